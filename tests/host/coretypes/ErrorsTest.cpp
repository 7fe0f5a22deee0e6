#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include <zorn/types/callable.h>
#include <zorn/types/object_impl.h>

#include "tests/host/Made.h"

using namespace Harvane::RT::Core;
using Testing::made;

namespace {

bool hasErrorInfo() {
    return static_cast<bool>(made<IErrorInfo>(zornGetErrorInfo));
}

struct ErrorsTest : testing::Test {
    void SetUp() override { zornClearErrorInfo(); }
    void TearDown() override { zornClearErrorInfo(); }
};

}  // namespace

TEST_F(ErrorsTest, eachCodeHasItsClassAndText) {
    const std::pair<ErrCode, const char*> cases[] = {
        {0x80000000, "No memory"},
        {0x80000001, "Invalid parameter"},
        {0x80000004, "Conversion failed"},
        {0x80000005, "Out of range"},
        {0x80000006, "Not found"},
        {0x8000000A, "Already exists"},
        {0x8000000B, "Not assigned"},
        {0x8000000D, "Parse failed"},
        {0x8000000E, "Invalid value"},
        {0x80000011, "Invalid type"},
        {0x80000013, "Not enabled"},
        {0x80000014, "General error"},
        {0x80000015, "Calculation failed"},
        {0x80000016, "Not Implemented"},
        {0x80000017, "Object frozen"},
        {0x80000018, "Not serializable"},
        {0x80000021, "Error when parsing or deserializing"},
        {0x80000024, "Invalid property"},
        {0x80000026, "Argument must not be NULL."},
        {0x80000027, "Operation in not valid for the current type or state."},
        {0x80000028, "The operation requires initialization"},
        {0x80000029, "Invalid state"},
        {0x80000030, "Validate failed"},
        {0x80004002, "Invalid cast. The object does not implement this interface."},
        {0x80001234, ""},  // no class of its own
    };
    for (const auto& [code, text] : cases) {
        try {
            checkErrorInfo(code);
            ADD_FAILURE() << "no exception for " << text;
        } catch (const ZornException& exception) {
            EXPECT_EQ(code, exception.errorCode);
            EXPECT_STREQ(text, exception.what());
            EXPECT_EQ(*text != 0, exception.defaultMessage);
        }
    }
    EXPECT_THROW(checkErrorInfo(0x80000006), NotFoundException);
}

TEST_F(ErrorsTest, aTextTravelsOnceAndSuccessLeavesItAlone) {
    EXPECT_EQ(0x80000006, makeError(Errors::NotFound, "100 % of \"%s\" is missing"));
    checkErrorInfo(0);
    checkErrorInfo(1);
    EXPECT_TRUE(hasErrorInfo());
    try {
        checkErrorInfo(Errors::NotFound);
        ADD_FAILURE();
    } catch (const ZornException& exception) {
        EXPECT_STREQ("100 % of \"%s\" is missing", exception.what());
        EXPECT_FALSE(exception.defaultMessage);
    }
    EXPECT_FALSE(hasErrorInfo());
    EXPECT_EQ(Errors::NotFound, errorFromException(NotFoundException()));
    EXPECT_FALSE(hasErrorInfo());
    EXPECT_EQ(std::string(1023, 'x'), InvalidParameterException("%s", std::string(2000, 'x').c_str()).message);
    EXPECT_TRUE(InvalidParameterException("%s", "").message.empty());
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const char* nothing = "";
    EXPECT_EQ("Invalid parameter", InvalidParameterException(nothing, 0).message);
#pragma GCC diagnostic pop
}

TEST_F(ErrorsTest, theEdgeTranslatesEveryException) {
    EXPECT_EQ(Errors::Frozen, wrapHandler([] { throw FrozenException("by %s", "winter"); }));
    EXPECT_EQ("by winter", takeErrorMessage());
    EXPECT_EQ(Errors::NoMemory, wrapHandler([] { throw std::bad_alloc(); }));
    EXPECT_EQ(Errors::GeneralError, wrapHandler([] { throw std::runtime_error("worn out"); }));
    EXPECT_EQ("worn out", takeErrorMessage());
    EXPECT_EQ(Errors::GeneralError, wrapHandler([] { throw 7; }));
    EXPECT_EQ(1u, wrapHandler([]() -> ErrCode { return 1; }));
}

// Whoever asks for the reason of a failure gets that of this one or none.
TEST_F(ErrorsTest, aFailureWithoutATextLeavesNoOlderOne) {
    const ListPtr list = ListPtr::create();
    void* interface = nullptr;
    const std::pair<const char*, std::function<ErrCode()>> cases[] = {
        {"a default text", [] { return errorFromException(NotFoundException()); }},
        {"out of memory", [] { return wrapHandler([] { throw std::bad_alloc(); }); }},
        {"something thrown", [] { return wrapHandler([] { throw 7; }); }},
        {"a code at an edge", [] { return wrapHandler([]() -> ErrCode { return Errors::InvalidState; }); }},
        {"a procedure", [] { return makeProc([](const BasePtr&) { return Errors::NotEnabled; })->dispatch(nullptr); }},
        {"no output", [] { return createList(nullptr); }},
        {"a getter's", [&] { return list->getCount(nullptr); }},
        {"an interface", [&] { return list->queryInterface(IString::Id, &interface); }},
    };
    for (const auto& [name, call] : cases) {
        makeError(Errors::GeneralError, "stale");
        const ErrCode code = call();
        try {
            checkErrorInfo(code);
            ADD_FAILURE() << name;
        } catch (const ZornException& exception) {
            EXPECT_STREQ(exception.what(), defaultErrorText(code)) << name;
        }
    }
    // One that has a text keeps it, also through further edges and with the same words.
    for (const char* text : {"fresh", "stale"}) {
        makeError(Errors::GeneralError, "stale");
        wrapHandler(
            [&]() -> ErrCode { return wrapHandler([&]() -> ErrCode { return makeError(Errors::NotFound, text); }); });
        EXPECT_EQ(text, takeErrorMessage());
    }
    // To ask whether there is an interface is no failure.
    makeError(Errors::GeneralError, "kept");
    EXPECT_FALSE(list.asPtrOrNull<IString>());
    EXPECT_EQ("kept", takeErrorMessage());
}

TEST_F(ErrorsTest, everyThreadHasItsOwn) {
    const size_t before = zornCoreTypesGetObjectCount();
    makeError(Errors::NotFound, "mine");
    const size_t withMine = zornCoreTypesGetObjectCount();
    std::thread([] {
        EXPECT_FALSE(hasErrorInfo());
        makeError(Errors::NotFound, "theirs");
    }).join();
    EXPECT_EQ(withMine, zornCoreTypesGetObjectCount()) << "a thread left its error info behind";
    EXPECT_EQ("mine", takeErrorMessage());
    EXPECT_EQ(before, zornCoreTypesGetObjectCount());
}

TEST_F(ErrorsTest, aLaterFactoryReplacesAndDestroysTheEarlier) {
    static int destroyed = 0;
    struct Factory final : IExceptionFactory {
        void destroy() override {
            ++destroyed;
            delete this;
        }
        void throwException(ErrCode, const std::string&) override {}  // returns, against the rule
    };
    auto& table = ErrorCodeToException::GetInstance();
    table.registerRtException(0x80007777, new Factory);
    table.registerRtException(0x80007777, new Factory);
    EXPECT_EQ(1, destroyed);
    try {
        table.throwExceptionFromErrorCode(0x80007777, "returned");
    } catch (const std::runtime_error& exception) {
        EXPECT_STREQ("returned (2147514231)", exception.what());
    }
}
