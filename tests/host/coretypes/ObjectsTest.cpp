#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include <zorn/types/callable.h>

#include "tests/host/Made.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Core::Testing;

namespace {

struct Weak final : ObjectImpl<IIntObject, ISupportsWeakRef> {
    ErrCode getValue(int64_t* value) override { return *value = 5, Errors::Success; }
    ErrCode getWeakRef(IWeakRef** reference) override {
        *reference = new WeakRefImpl(shareControl(), self());
        return Errors::Success;
    }
};

}  // namespace

TEST(Objects, answerForTheirInterfacesOnly) {
    const BasePtr object = toValue("text");
    void* found = &found;
    EXPECT_EQ(Errors::NoInterface, object->queryInterface(IList::Id, &found));
    EXPECT_EQ(nullptr, found);
    EXPECT_EQ(Errors::ArgumentNull, object->queryInterface(IString::Id, nullptr));
    EXPECT_THROW(object.asPtr<IList>(), NoInterfaceException);
    EXPECT_THROW(BasePtr().asPtr<IList>(), InvalidParameterException);
    // One identity, whichever interface is asked.
    EXPECT_TRUE(object.asPtr<IConvertible>().asPtr<IBaseObject>() == object);
    // Borrowing takes no reference.
    ASSERT_EQ(Errors::Success, object->borrowInterface(IConvertible::Id, &found));
    EXPECT_EQ(2, object->addRef());
    EXPECT_EQ(1, object->releaseRef());
}

TEST(Objects, aWeakReferenceNeverRevivesADyingObject) {
    const uint64_t before = zornSharedLibObjectCount;
    for (int round = 0; round < 500; ++round) {
        auto object = ObjectPtr<IIntObject>::take(new Weak);
        const auto reference =
            made<IWeakRef>([&](IWeakRef** weak) { return object.asPtr<ISupportsWeakRef>()->getWeakRef(weak); });
        std::atomic<int> seen{0};
        std::thread other([&] {
            for (int i = 0; i < 20; ++i) {
                IBaseObject* found = nullptr;
                if (succeeded(reference->getRef(&found))) {
                    seen = fromValue<int>(BasePtr::take(found));
                }
            }
        });
        if (round % 2 == 0) {
            object.release();
        }
        other.join();
        EXPECT_TRUE(seen == 5 || (round % 2 == 0 && seen == 0));
        object.release();
        IBaseObject* found = nullptr;
        EXPECT_EQ(Errors::NotFound, reference->getRef(&found));
        // The reference alone is left, not the object behind it.
        EXPECT_EQ(before + 1, zornSharedLibObjectCount);
    }
    EXPECT_EQ(before, zornSharedLibObjectCount);
}

TEST(Callables, passArgumentsCodesAndExceptions) {
    const auto function = makeFunc([](const BasePtr& argument, BasePtr& result) -> ErrCode {
        if (!argument) {
            return 1;
        }
        if (fromValue<int>(argument) < 0) {
            throw InvalidValueException("no negative numbers");
        }
        return result = toValue(fromValue<int>(argument) + 1), Errors::Success;
    });
    EXPECT_EQ(5, fromValue<int>(executeFunc(function, toValue(4))));
    ErrCode code = 99;
    EXPECT_FALSE(executeFunc(function, {}, &code));
    EXPECT_EQ(1u, code);
    EXPECT_EQ(Errors::ArgumentNull, function->execute(nullptr, nullptr));
    EXPECT_EQ("8000000E no negative numbers", failure([&] { executeFunc(function, toValue(-1)); }));
    // A result that comes with a failure goes nowhere.
    const size_t values = zornCoreTypesGetObjectCount();
    const auto both =
        makeFunc([](const BasePtr&, BasePtr& result) -> ErrCode { return result = toValue(1), Errors::CalcFailed; });
    EXPECT_EQ("80000015 Calculation failed", failure([&] { executeFunc(both, {}); }));
    EXPECT_EQ(values, zornCoreTypesGetObjectCount());
    const auto procedure = makeProc([](const BasePtr& argument) -> ErrCode { return argument ? 0 : 0x80000027; });
    EXPECT_EQ(0x80000027, procedure->dispatch(nullptr));
    EXPECT_EQ(0u, procedure->dispatch(toValue(1).get()));
}

TEST(Events, callInOrderAndStopAtTheFirstFailure) {
    const auto event = made<IEvent>(createEvent);
    std::string order;
    auto handler = [&](char mark, bool fails) {
        auto made = makeHandler([&order, mark, fails](const BasePtr& sender, const auto&) {
            order += mark + textOf(sender);
            if (fails) {
                throw InvalidStateException("handler %c", mark);
            }
        });
        checkErrorInfo(event->addHandler(made.get()));
        return made;
    };
    handler('a', false);
    const auto b = handler('b', true);
    handler('c', false);
    EXPECT_EQ("80000029 handler b", failure([&] { checkErrorInfo(event->trigger(toValue(7).get(), nullptr)); }));
    EXPECT_EQ("a7b7", order);
    checkErrorInfo(event->removeHandler(b.get()));
    EXPECT_EQ(Errors::NotFound, event->removeHandler(b.get()));
    EXPECT_EQ(0u, event->trigger(toValue(8).get(), nullptr));
    EXPECT_EQ("a7b7a8c8", order);
}

TEST(Events, handlersMayAddRemoveAndTriggerAgain) {
    const auto event = made<IEvent>(createEvent);
    std::string order;
    const auto later = makeHandler([&](const BasePtr&, const auto&) { order += 'l'; });
    const ObjectPtr<IEventHandler> first = makeHandler([&](const BasePtr&, const auto&) {
        order += 'f';
        checkErrorInfo(event->removeHandler(first.get()));
        checkErrorInfo(event->addHandler(later.get()));
        checkErrorInfo(event->trigger(nullptr, nullptr));
    });
    checkErrorInfo(event->addHandler(first.get()));
    EXPECT_EQ(0u, event->trigger(nullptr, nullptr));
    EXPECT_EQ("fl", order);
}
