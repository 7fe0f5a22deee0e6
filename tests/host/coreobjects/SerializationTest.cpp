#include "tests/host/coreobjects/Objects.h"

#include <limits>

#include <zorn/structure/property_classes.h>

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Core::Testing;

namespace {

std::string propertyForm(const std::string& attributes) {
    return R"({"__type": "PropertyObjectClass", "name": "c", "properties": [{"name": "A", "type": "int"}, {)" +
           attributes + "}]}";
}

}  // namespace

TEST(Serialization, keysAreSortedAndValuesComeBack) {
    const auto object = makeObject("RangeItem");
    object.setPropertyValue("Min", -1);
    object.setPropertyValue("DisplayName", "1 V \"x\" \xC3\xA4");
    object.setPropertyValue("B", true);
    object.setPropertyValue("Z", ListPtr::create({toValue(1), asBase(makeTexts({"x"}))}));
    object.setPropertyValue("A", 9007199254740993);
    object.setPropertyValue("R", Ratio{1000, 3});
    object.setPropertyValue("E", makeEval("1 + 1"));
    object.setPropertyValue("Child", makeObject());
    object.setPropertyValue("Child.X", 0.1);
    const std::string text = serialized(object.asPtr<IBaseObject>());
    EXPECT_EQ(R"({"className": "RangeItem","propValues": {"A": 9007199254740993,"B": true,)"
              R"("Child": {"propValues": {"X": 0.1}},"DisplayName": "1 V \"x\" ä",)"
              R"("E": {"__type": "Eval","expr": "1 + 1"},"Min": -1.0,"R": "1000/3","Z": [1,["x"]]}})",
              text);
    const GenericPropertyObjectPtr copy(deserialized(text).asPtr<IPropertyObject>());
    EXPECT_EQ(text, serialized(copy.asPtr<IBaseObject>()));
    EXPECT_EQ("RangeItem", copy.getClassName());
    EXPECT_EQ("0.1", get(copy, "Child.X"));
}

TEST(Serialization, whatHasNoFormFailsTheWholeCall) {
    const auto object = makeObject();
    auto write = [&] { return failure([&] { serialized(object.asPtr<IBaseObject>()); }); };
    object.setPropertyValue("P", makeProc([](const BasePtr&) -> ErrCode { return 0; }));
    EXPECT_EQ("80000018 Property P holds a value that can't be serialized", write());
    object.setPropertyValue("P", std::numeric_limits<double>::infinity());
    EXPECT_EQ("80000018 inf can't be written as a number", write());
    object.setPropertyValue("P", "\xff");
    EXPECT_EQ("80000018 A text is no valid UTF-8", write());
    object.setPropertyValue("P", object);
    EXPECT_EQ("80000018 A property object that contains itself can't be serialized", write());
    object.clearProperty("P");
    EXPECT_EQ("", write());
}

TEST(Serialization, badTextTellsPlaceAndReason) {
    const std::string deep(100000, '[');
    const std::pair<std::string, const char*> cases[] = {
        {"{\n\"a\": 1,}", "Bad JSON: parse error at line 2, column 8:"},
        {"{\"propValues\": {\"a\": 1}} // comment", "Bad JSON: parse error at line 1, column 26:"},
        {"\"\xff\"", "Bad JSON: parse error at line 1, column 2:"},
        {deep, "The text is nested more than 64 deep"},
        {R"({"propValues": {"a": 1, "b": 2, "a": 3}})", "The key \"a\" stands twice in one object"},
        {R"({"propValues": {"x": [1, null]}})", "/propValues/x/1: null is no value"},
        {R"({"propValues": {"x": 9223372036854775808}})", "/propValues/x: the integer is too large"},
        {R"({"propValue": {}})", "/: unknown key \"propValue\""},
        {R"({"propValues": {"a": {"__type": "Nothing"}}})", "/propValues/a: unknown type \"Nothing\""},
        {R"({"propValues": {"a": {"className": "Nobody"}}})",
         "/propValues/a: Property class \"Nobody\" (of \"Nobody\") is not registered"},
        {R"({"className": "RangeItem", "propValues": {"Min": "low"}})",
         "/: Value type is different than property type and conversion failed"},
        {R"({"__type": "PropertyObjectClass", "name": "", "properties": []})", "/: a property class needs a name"},
        {propertyForm(R"("name": "B", "type": "integer")"), "/properties/1: unknown type \"integer\""},
        {propertyForm(R"("name": "A", "type": "int")"), "/properties/1: Property A already exists"},
        {propertyForm(R"("name": "B", "type": "int", "defualt": 1)"), "/properties/1: unknown key \"defualt\""},
        {propertyForm(R"("name": "B", "type": "int", "default": 1.5)"),
         "/properties/1: \"default\" of property \"B\" must be of type int"},
        {propertyForm(R"("name": "B", "type": "int", "values": "x")"),
         "/properties/1: \"values\" of property \"B\" must be a list"},
        {propertyForm(R"("name": "B", "type": "int", "visible": 1)"),
         "/properties/1: \"visible\" of property \"B\" must be true or false"},
        {propertyForm(R"("name": "B", "type": "reference", "reference": "%A")"),
         "/properties/1: \"reference\" of property \"B\" must be an expression"},
        {propertyForm(R"("name": "B", "type": "int", "values": [1, {"__type": "Eval", "expr": "$"}])"),
         "/properties/1/values/1: Column 2 of the expression \"$\": expected a name"},
        {propertyForm(R"("name": "B", "type": "int", "configurationActions": [[1, 2]])"),
         "/properties/1: a configuration action is a list of mode, states and action"},
    };
    for (const auto& [text, error] : cases) {
        const std::string result = failure([&, text = text] { deserialized(text); });
        const std::string expected = std::string("80000021 ") + error;
        EXPECT_EQ(expected, expected.back() == ':' ? result.substr(0, expected.size()) : result);
    }
}

TEST(Serialization, classesKeepAllTheirAttributes) {
    const std::string text =
        R"({"__type": "PropertyObjectClass","name": "full","parent": "Channel","properties": [)"
        R"({"name": "A","type": "ratio","default": "1000/1","min": "1/2","max": {"__type": "Eval","expr": "$B"},)"
        R"("enabled": {"__type": "Eval","expr": "true"},"visible": false,"hidden": true,)"
        R"("configurationActions": [[1,1,1],[2,4,0]]},)"
        R"({"name": "B","type": "int","selection": true,"default": 0,"values": ["x"],"unit": "V","readOnly": true,)"
        R"("readOnlyValue": 0}]})";
    EXPECT_EQ(text, serialized(deserialized(text)));
    // Whole numbers and texts become what the property holds.
    const PropertyObjectClassPtr read(
        deserialized(propertyForm(R"("name": "B", "type": "float", "default": 3)")).asPtr<IPropertyObjectClass>());
    EXPECT_EQ(CoreType::Float, coreTypeOf(read.getProperty("B").getDefaultValue()));
}

TEST(Update, actionsDecide) {
    using enum ConfigurationAction;
    // states: of the rule in mode 1.
    const std::tuple<const char*, PropertyState, ConfigurationAction, bool, bool, const char*> cases[] = {
        {"no rule, only here", 0, Leave, true, false, "here"},
        {"no rule, only in the setup", 0, Leave, false, true, "setup"},
        {"no rule, in both", 0, Leave, true, true, "setup"},
        {"leave", 6, Leave, true, true, "here"},
        {"clear what the setup lacks", 1, Clear, true, false, "default"},
        {"clear", 4, Clear, true, true, "default"},
        {"set if unset, unset", 6, SetIfUnset, false, true, "setup"},
        {"set if unset, set", 6, SetIfUnset, true, true, "here"},
        {"take over everything", 7, TakeOver, true, false, "default"},
        {"take over", 7, TakeOver, true, true, "setup"},
    };
    for (const auto& [what, states, action, set, inSetup, result] : cases) {
        SCOPED_TRACE(what);
        const auto info = property("P", CoreType::String).defaultValue("default");
        if (states != 0) {
            info.configurationAction(1, states, action);
        }
        const auto object = makeObject({info});
        if (set) {
            object.setPropertyValue("P", "here");
        }
        update(object, inSetup ? R"({"propValues": {"P": "setup"}})" : R"({"propValues": {}})");
        EXPECT_EQ(result, get(object, "P"));
        // The rules of the other mode don't matter.
        update(object, R"({"propValues": {"P": "stored"}})", 2);
        EXPECT_EQ("stored", get(object, "P"));
    }
}

TEST(Update, kindsOfProperties) {
    const auto object = makeObject(
        {property("Rate", CoreType::Ratio), property("Fixed").readOnly(1), property("Kept", CoreType::Object),
         property("Tree", CoreType::Object).configurationAction(1, 7, ConfigurationAction::TakeOver),
         property("Items", CoreType::List)});
    const auto kept = makeObject(), tree = makeObject(), first = makeObject("RangeItem"), second = makeObject();
    kept.setPropertyValue("X", 1);
    tree.setPropertyValue("X", 1);
    first.setPropertyValue("Min", 1.0);
    object.setPropertyValue("Kept", kept);
    object.setPropertyValue("Tree", tree);
    object.setPropertyValue("Items", ListPtr::create({asBase(first), asBase(second), toValue(3)}));
    update(object, R"({"className": "ignored", "propValues": {
        "Fixed": 5, "Free": [1, "x"],
        "Items": [{"className": "RangeItem", "propValues": {"Min": 2}}, {"className": "RangeItem"}],
        "Kept": {"propValues": {"X": 2}}, "Rate": "1000/3", "Tree": {"propValues": {"X": 2}}}})");
    EXPECT_EQ("1000/3", get(object, "Rate"));
    EXPECT_FALSE(object.isPropertySet("Fixed"));
    EXPECT_EQ("x", get(object, "Free[1]"));
    EXPECT_EQ("1", get(object, "Kept.X"));
    // Objects of the same class stay themselves.
    EXPECT_TRUE(object.getPropertyValue<>("Tree") == asBase(tree));
    EXPECT_EQ("2", get(object, "Tree.X"));
    const auto items = object.getPropertyValue<ListPtr>("Items");
    ASSERT_EQ(2u, items.getCount());
    EXPECT_TRUE(items.getItemAt(0) == asBase(first));
    EXPECT_EQ("2", get(object, "Items[0].Min"));
    EXPECT_FALSE(items.getItemAt(1) == asBase(second));
    EXPECT_EQ("RangeItem", GenericPropertyObjectPtr(items.getItemAt(1).asPtr<IPropertyObject>()).getClassName());
}

TEST(Update, aFailureStopsItAndTellsWhy) {
    const auto object = makeObject({property("B")});
    EXPECT_EQ("80000001 Value type is different than property type and conversion failed",
              failure([&] { update(object, R"({"propValues": {"A": 1, "B": "x", "C": 3}})"); }));
    EXPECT_TRUE(object.isPropertySet("A"));
    EXPECT_FALSE(object.isPropertySet("C"));
    EXPECT_EQ("80000021 /propValues: must be an object", failure([&] { update(object, R"({"propValues": []})"); }));
    update(object, "{}");
}
