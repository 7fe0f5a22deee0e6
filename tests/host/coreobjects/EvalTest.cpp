#include "tests/host/coreobjects/Objects.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Core::Testing;

namespace {

std::string evaluated(const GenericPropertyObjectPtr& object, const char* expression) {
    return outcome([&] {
        const auto eval = makeEval(expression);
        const auto bound = made<IEvalValue>([&](IEvalValue** copy) { return eval->bind(object.get(), copy); });
        const auto value = made<IBaseObject>([&](IBaseObject** result) { return bound->getResult(result); });
        static const char* const marks[] = {"b:", "i:", "f:", "s:", "l:", "d:", "r:"};
        const auto type = static_cast<size_t>(coreTypeOf(value));
        return !value ? "empty" : (type < std::size(marks) ? marks[type] : "") + textOf(value);
    });
}

GenericPropertyObjectPtr makeFixture() {
    auto object = makeObject({property("Zero").defaultValue(0), property("Off").defaultValue(0).enabled(false)});
    object.setPropertyValue("Three", 3);
    object.setPropertyValue("Half", 0.5);
    object.setPropertyValue("Yes", true);
    object.setPropertyValue("Text", "abc");
    object.setPropertyValue("Rate", Ratio{3, 2});
    object.setPropertyValue("List", makeTexts({"x", "y"}));
    object.setPropertyValue("Formula", makeEval("$Three * 2"));
    object.setPropertyValue("Child", makeObject());
    object.setPropertyValue("Child.Y_1", 11);
    return object;
}

}  // namespace

TEST(Eval, results) {
    const auto object = makeFixture();
    const std::pair<const char*, const char*> cases[] = {
        // literals
        {"7", "i:7"},
        {"1.5", "f:1.5"},
        {"2e3", "f:2000"},
        {"'a\"b'", "s:a\"b"},
        {"\"it's\"", "s:it's"},
        {"true", "b:true"},
        {"9223372036854775807", "i:9223372036854775807"},
        // arithmetic
        {"1 + 2 * 3", "i:7"},
        {"(1 + 2) * 3", "i:9"},
        {"10 - 2 - 3", "i:5"},
        {"7 / 2", "i:3"},
        {"-7 / 2", "i:-3"},
        {"7 / 2.0", "f:3.5"},
        {"8 / 2 * 2", "i:8"},
        {"- - 2", "i:2"},
        {"-$Half", "f:-0.5"},
        {"true + 1", "i:2"},
        {"'ab' + 'c'", "s:abc"},
        {"$Rate * 2", "f:3"},
        {"2-1", "i:1"},
        // comparison and logic
        {"1 < 2", "b:true"},
        {"2 <= 1", "b:false"},
        {"1 == 1.0", "b:true"},
        {"1 != 2", "b:true"},
        {"2 >= 2", "b:true"},
        {"3 > 2.5", "b:true"},
        {"'a' == 'a'", "b:true"},
        {"'1' == 1", "b:false"},
        {"'a' != 'b'", "b:true"},
        {"!true", "b:false"},
        {"!0", "b:true"},
        {"1 < 2 && 2 < 3", "b:true"},
        {"false || 0 || 0.1", "b:true"},
        {"true || false && false", "b:true"},
        {"1 + 1 == 2", "b:true"},
        {"$Yes == 1", "b:true"},
        // properties
        {"$Three", "i:3"},
        {"$Zero", "i:0"},
        {"$Text", "s:abc"},
        {"$List[1]", "s:y"},
        {"$List[$Three - 2]", "s:y"},
        {"$Child.Y_1 + 1", "i:12"},
        {"$Formula + 1", "i:7"},
        {"%Zero", "PropertyInfo"},
        {"%Nobody", "empty"},
        {"%Child.Y_1", "empty"},
        {" $Three ", "i:3"},
        // functions
        {"min(3, 1.5, 2)", "f:1.5"},
        {"max(1, 2)", "i:2"},
        {"max($Three)", "i:3"},
        {"if(1 < 2, 'y', 'n')", "s:y"},
        {"switch(2, 1, 'a', 2, 'b')", "s:b"},
        {"switch(9, 1, 'a', 'other')", "s:other"},
        {"switch(9, 1, 'a')", "empty"},
        {"switch('b', 'a', 1, 'b', 2)", "i:2"},
        {"switch(1)", "empty"},
        // what is not needed is not evaluated
        {"if(true, 1, $Nobody)", "i:1"},
        {"switch(1, 1, 5, 1 / 0, 6)", "i:5"},
        {"switch(2, 1, $Off, 2, 7)", "i:7"},
        {"true || $Nobody", "b:true"},
        {"false && 1 / 0", "b:false"},
        // what can't be calculated
        {"1 / 0", "80000015 \"1 / 0\": division by zero"},
        {"1.0 / 0", "80000015 \"1.0 / 0\": division by zero"},
        {"9223372036854775807 + 1", "80000015 \"9223372036854775807 + 1\": the integer result is too large"},
        {"(-9223372036854775807 - 1) / -1",
         "80000015 \"(-9223372036854775807 - 1) / -1\": the integer result is too large"},
        {"'a' < 'b'", "80000015 \"'a' < 'b'\": only numbers have an order"},
        {"'a' + 1", "80000015 \"'a' + 1\": only numbers can be calculated with"},
        {"!'a'", "80000015 \"!'a'\": the condition is no truth value"},
        {"switch(9, 1, 2) + 1", "80000015 \"switch(9, 1, 2) + 1\": a value is missing"},
        {"$List[0.5]", "80000015 \"$List[0.5]\": an index must be an integer of 0 or more"},
        {"$Nobody", "80000006 Not found"},
        {"$Off", "80000013 Property Off is not enabled"},
        {"$List[2]", "80000005 The index parameter is out of bounds of the list."},
    };
    for (const auto& [expression, result] : cases) {
        EXPECT_EQ(result, evaluated(object, expression)) << expression;
    }
}

TEST(Eval, badExpressionsTellTheirPlace) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "Column 1 of the expression \"\": a value is missing at the end"},
        {"1 +", "Column 4 of the expression \"1 +\": a value is missing at the end"},
        {"1 2", "Column 3 of the expression \"1 2\": unexpected \"2\""},
        {"(1", "Column 3 of the expression \"(1\": expected \")\""},
        {"Mode", "Column 1 of the expression \"Mode\": unknown word \"Mode\"; a property needs a \"$\" or \"%\""},
        {"1 == 1 == 1", "Column 8 of the expression \"1 == 1 == 1\": unexpected \"=\""},
        {"$", "Column 2 of the expression \"$\": expected a name"},
        {"$a.", "Column 4 of the expression \"$a.\": expected a name"},
        {"%a[0]", "Column 3 of the expression \"%a[0]\": an index is possible behind \"$\" only"},
        {"$a[0", "Column 5 of the expression \"$a[0\": expected \"]\""},
        {"'a", "Column 1 of the expression \"'a\": the text is not closed"},
        {"if(1, 2)", "Column 1 of the expression \"if(1, 2)\": \"if\" takes a condition and two values"},
        {"switch()", "Column 8 of the expression \"switch()\": expected a value instead of \")\""},
        {"1.", "Column 1 of the expression \"1.\": the number is not complete"},
        {"9223372036854775808", "Column 1 of the expression \"9223372036854775808\": the number is too large"},
        {"1 & 2", "Column 3 of the expression \"1 & 2\": unexpected \"&\""},
    };
    for (const auto& [expression, error] : cases) {
        EXPECT_EQ(std::string("8000000D ") + error, failure([&, text = expression] { makeEval(text); })) << expression;
    }
}

TEST(Eval, deepTextIsRefusedAndLongTextIsNot) {
    auto nested = [](size_t depth) { return std::string(depth, '(') + "1" + std::string(depth, ')'); };
    EXPECT_EQ("", failure([&] { makeEval(nested(60).c_str()); }));
    for (const std::string& text : {nested(100000), std::string(100000, '-') + "1", std::string(100000, '!')}) {
        EXPECT_NE(std::string::npos,
                  failure([&] { makeEval(text.c_str()); }).find("the expression is nested too deeply"));
    }
    std::string sum = "0";
    for (int i = 0; i < 100000; ++i) {
        sum += "+1";
    }
    EXPECT_EQ("i:100000", evaluated(makeObject(), sum.c_str()));
}

TEST(Eval, circlesEnd) {
    const auto object =
        makeObject({property("A").defaultValue(makeEval("$B + 1")), property("B").defaultValue(makeEval("$A + $A")),
                    property("C").defaultValue(1).enabled(makeEval("$C == 1"))});
    EXPECT_EQ("80000015", get(object, "A").substr(0, 8));
    EXPECT_NE(std::string::npos, get(object, "B").find("they seem to need each other"));
    EXPECT_EQ("80000015", get(object, "C").substr(0, 8));
    // The count of levels is back at none.
    object.setPropertyValue("A", 5);
    EXPECT_EQ("10", get(object, "B"));
}

TEST(Eval, unboundThereIsNoResult) {
    IBaseObject* result = nullptr;
    EXPECT_EQ("80000029 The expression \"$X\" is not bound to an object",
              failure([&] { checkErrorInfo(makeEval("$X")->getResult(&result)); }));
}
