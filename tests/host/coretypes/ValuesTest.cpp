#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>

#include "tests/host/Made.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Core::Testing;

namespace {

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr int64_t largest = std::numeric_limits<int64_t>::max();
constexpr int64_t smallest = std::numeric_limits<int64_t>::min();

// The text form of a conversion's result, or "-" when it is refused.
std::string converted(const BasePtr& value, CoreType type) {
    BasePtr result;
    const std::string error = failure([&] {
        result = made<IBaseObject>([&](IBaseObject** r) { return value.asPtr<IConvertible>()->convertTo(type, r); });
    });
    EXPECT_EQ(error.empty() ? "" : "80000004 \"" + textOf(value), error.substr(0, 10 + textOf(value).size()));
    EXPECT_EQ(error.empty() ? type : CoreType::Undefined, coreTypeOf(result));
    return error.empty() ? textOf(result) : "-";
}

}  // namespace

TEST(Values, convertIntoEachOther) {
    // As Boolean, integer, float, string and ratio.
    const std::pair<BasePtr, std::array<const char*, 5>> cases[] = {
        {toValue(true), {"true", "1", "1", "true", "1/1"}},
        {toValue(false), {"false", "0", "0", "false", "0/1"}},
        {toValue(0), {"false", "0", "0", "0", "0/1"}},
        {toValue(largest),
         {"true", "9223372036854775807", "9223372036854775808", "9223372036854775807", "9223372036854775807/1"}},
        {toValue(2.9), {"true", "2", "2.9", "2.9", "29/10"}},
        {toValue(-2.9), {"true", "-2", "-2.9", "-2.9", "-29/10"}},
        {toValue(0x1p63), {"true", "-", "9223372036854775808", "9223372036854775808", "-"}},
        {toValue(notANumber), {"-", "-", "nan", "nan", "-"}},
        {toValue(M_PI), {"true", "3", "3.141592653589793", "3.141592653589793", "-"}},
        {toValue(Ratio{1000, 1}), {"true", "1000", "1000", "1000/1", "1000/1"}},
        {toValue(Ratio{-7, 2}), {"true", "-3", "-3.5", "-7/2", "-7/2"}},
        {toValue(Ratio{smallest, -1}),
         {"true", "-", "9223372036854775808", "-9223372036854775808/-1", "-9223372036854775808/-1"}},
        {toValue("true"), {"true", "-", "-", "true", "-"}},
        {toValue("0"), {"false", "0", "0", "0", "0/1"}},
        {toValue("12"), {"-", "12", "12", "12", "12/1"}},
        {toValue("1.5"), {"-", "-", "1.5", "1.5", "-"}},
        {toValue("1000/3"), {"-", "-", "-", "1000/3", "1000/3"}},
        {toValue("5/0"), {"-", "-", "-", "5/0", "-"}},
        {toValue(" 1"), {"-", "-", "-", " 1", "-"}},
        {toValue("1x"), {"-", "-", "-", "1x", "-"}},
        {toValue(""), {"-", "-", "-", "", "-"}},
        {toValue("9223372036854775808"), {"-", "-", "9223372036854775808", "9223372036854775808", "-"}},
    };
    constexpr CoreType types[] = {CoreType::Bool, CoreType::Int, CoreType::Float, CoreType::String, CoreType::Ratio};
    for (const auto& [value, texts] : cases) {
        SCOPED_TRACE(textOf(value) + " of type " + std::to_string(static_cast<int>(coreTypeOf(value))));
        for (size_t i = 0; i < texts.size(); ++i) {
            EXPECT_EQ(texts[i], converted(value, types[i])) << i;
        }
    }
}

TEST(Values, areReadAsAnotherTypeWithinItsLimits) {
    EXPECT_EQ(2, fromValue<int64_t>(toValue(2.5)));
    EXPECT_EQ("12", fromValue<std::string>(toValue(12)));
    EXPECT_EQ((Ratio{3, 1}), fromValue<Ratio>(toValue(3)));
    EXPECT_EQ(std::numeric_limits<int>::max(), fromValue<int>(toValue(int64_t{1} << 32)));
    EXPECT_EQ(std::numeric_limits<int>::min(), fromValue<int>(toValue(smallest)));
    EXPECT_THROW(fromValue<int64_t>(toValue("twelve")), ConversionFailedException);
    EXPECT_THROW(fromValue<int64_t>(asBase(ListPtr::create())), NoInterfaceException);
    EXPECT_THROW(fromValue<double>(BasePtr()), InvalidParameterException);
}

TEST(Values, compareByContentWithinTheirKind) {
    const std::tuple<BasePtr, BasePtr, int> cases[] = {
        {toValue("abc"), toValue("abc"), 0},
        {toValue("abc"), toValue("abd"), -1},
        {toValue("b"), toValue("abc"), 1},
        {toValue(1), toValue(1), 0},
        {toValue(smallest), toValue(largest), -1},
        {toValue(1.5), toValue(1.5), 0},
        {toValue(notANumber), toValue(notANumber), 0},
        {toValue(notANumber), toValue(-1e300), -1},
        {toValue(0.0), toValue(-0.0), 0},
        {toValue(false), toValue(true), -1},
        {toValue(Ratio{1, 2}), toValue(Ratio{2, 4}), 0},
        {toValue(Ratio{1, -2}), toValue(Ratio{-2, 4}), 0},
        {toValue(Ratio{1, -3}), toValue(Ratio{1, 3}), -1},
        {toValue(Ratio{largest, smallest}), toValue(Ratio{-1, 2}), -1},
        {toValue(std::string_view("a\0b", 3)), toValue("a"), 1},
    };
    auto sign = [](int value) { return (value > 0) - (value < 0); };
    for (const auto& [left, right, expected] : cases) {
        SCOPED_TRACE(textOf(left) + " and " + textOf(right));
        int order = 99;
        ASSERT_EQ(Errors::Success, left.asPtr<IComparable>()->compareTo(right.get(), &order));
        EXPECT_EQ(expected, sign(order));
        ASSERT_EQ(Errors::Success, right.asPtr<IComparable>()->compareTo(left.get(), &order));
        EXPECT_EQ(-expected, sign(order));
        EXPECT_EQ(expected == 0, left.equals(right));
        size_t hashes[2] = {};
        checkErrorInfo(left->getHashCode(&hashes[0]));
        checkErrorInfo(right->getHashCode(&hashes[1]));
        EXPECT_TRUE(hashes[0] == hashes[1] || expected != 0);
    }
    // Other kinds are never equal and have no order.
    int order = 0;
    EXPECT_FALSE(toValue(1).equals(toValue(1.0)));
    EXPECT_FALSE(toValue("1").equals(toValue(1)));
    EXPECT_EQ(Errors::InvalidType, toValue(1).asPtr<IComparable>()->compareTo(toValue("1").get(), &order));
}

TEST(Values, refuseWhatCannotBe) {
    EXPECT_EQ("80000001 The denominator of a ratio can't be 0", failure([] { toValue(Ratio{1, 0}); }));
    EXPECT_EQ(Errors::ArgumentNull, createString(nullptr, "x"));
    EXPECT_THROW(made<IString>(createString, nullptr), ArgumentNullException);
    EXPECT_EQ("80000026 Argument must not be NULL.",
              failure([] { checkErrorInfo(toValue(1).asPtr<IIntObject>()->getValue(nullptr)); }));
}

TEST(Values, listsHoldAndReleaseTheirItems) {
    const size_t before = zornCoreTypesGetObjectCount();
    const ListPtr list = ListPtr::create({toValue(1), toValue("two"), toValue(3.0)});
    checkErrorInfo(list->setItemAt(1, toValue("zwei").get()));
    checkErrorInfo(list->removeAt(0));
    EXPECT_EQ(2u, list.getCount());
    EXPECT_EQ("zwei", fromValue<std::string>(list.getItemAt(0)));
    EXPECT_EQ("80000005 Index 2 is beyond the list of 2 items", failure([&] { list.getItemAt(2); }));
    EXPECT_EQ(Errors::OutOfRange, list->setItemAt(2, nullptr));
    EXPECT_EQ(Errors::OutOfRange, list->removeAt(2));
    zornClearErrorInfo();
    checkErrorInfo(list->clear());
    EXPECT_EQ(before + 1, zornCoreTypesGetObjectCount());
}
