#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <zorn/types/callable.h>

using namespace Harvane::RT::Core;

namespace {

class Weak final : public ObjectImpl<IIntObject, ISupportsWeakRef> {
public:
    ErrCode getValue(int64_t* value) override { return *value = 5, Errors::Success; }
    ErrCode getWeakRef(IWeakRef** reference) override {
        *reference = new WeakRefImpl(shareControl(), self());
        return Errors::Success;
    }
};

ObjectPtr<IEvent> makeEvent() {
    IEvent* event = nullptr;
    checkErrorInfo(createEvent(&event));
    return ObjectPtr<IEvent>::take(event);
}

}  // namespace

TEST(Objects, answerForTheirInterfacesOnly) {
    const BasePtr object = toValue("text");
    void* found = &found;
    EXPECT_EQ(Errors::NoInterface, object->queryInterface(IList::Id, &found));
    EXPECT_EQ(nullptr, found);
    EXPECT_EQ(Errors::ArgumentNull, object->queryInterface(IString::Id, nullptr));
    EXPECT_THROW(object.asPtr<IList>(), NoInterfaceException);
    EXPECT_THROW(BasePtr().asPtr<IList>(), InvalidParameterException);
    // Borrowing takes no reference, asking does.
    EXPECT_EQ(2, object->addRef());
    EXPECT_EQ(1, object->releaseRef());
    ASSERT_EQ(Errors::Success, object->borrowInterface(IConvertible::Id, &found));
    EXPECT_EQ(2, object->addRef());
    EXPECT_EQ(1, object->releaseRef());
    {
        const auto convertible = object.asPtr<IConvertible>();
        EXPECT_EQ(3, object->addRef());
        EXPECT_EQ(2, object->releaseRef());
        // One identity, whichever interface is asked.
        EXPECT_TRUE(convertible.asPtr<IBaseObject>() == object);
    }
}

TEST(Objects, weakReferencesEndWithTheObject) {
    const uint64_t before = zornSharedLibObjectCount;
    ObjectPtr<IWeakRef> reference;
    {
        auto object = ObjectPtr<IIntObject>::take(new Weak);
        IWeakRef* raw = nullptr;
        ASSERT_EQ(Errors::Success, object.asPtr<ISupportsWeakRef>()->getWeakRef(&raw));
        reference = ObjectPtr<IWeakRef>::take(raw);
        IBaseObject* found = nullptr;
        ASSERT_EQ(Errors::Success, reference->getRef(&found));
        EXPECT_EQ(5, fromValue<int>(BasePtr::take(found)));
    }
    IBaseObject* found = nullptr;
    EXPECT_EQ(Errors::NotFound, reference->getRef(&found));
    EXPECT_EQ(nullptr, found);
    EXPECT_EQ(before + 1, zornSharedLibObjectCount);
    reference.release();
    EXPECT_EQ(before, zornSharedLibObjectCount);
}

TEST(Objects, aWeakReferenceNeverRevivesADyingObject) {
    for (int round = 0; round < 500; ++round) {
        auto object = ObjectPtr<IIntObject>::take(new Weak);
        IWeakRef* raw = nullptr;
        ASSERT_EQ(Errors::Success, object.asPtr<ISupportsWeakRef>()->getWeakRef(&raw));
        const auto reference = ObjectPtr<IWeakRef>::take(raw);
        std::thread other([&] {
            for (int i = 0; i < 20; ++i) {
                IBaseObject* found = nullptr;
                if (succeeded(reference->getRef(&found))) {
                    EXPECT_EQ(5, fromValue<int>(BasePtr::take(found)));
                }
            }
        });
        object.release();
        other.join();
    }
}

TEST(Callables, passArgumentsCodesAndExceptions) {
    const auto function = makeFunc([](const BasePtr& argument, BasePtr& result) -> ErrCode {
        if (!argument)
            return 1;
        if (fromValue<int>(argument) < 0)
            throw InvalidValueException("no negative numbers");
        result = toValue(fromValue<int>(argument) + 1);
        return 0;
    });
    EXPECT_EQ(5, fromValue<int>(executeFunc(function, toValue(4))));
    ErrCode code = 99;
    EXPECT_FALSE(executeFunc(function, {}, &code));
    EXPECT_EQ(1u, code);
    EXPECT_EQ(Errors::ArgumentNull, function->execute(nullptr, nullptr));
    try {
        executeFunc(function, toValue(-1));
        ADD_FAILURE();
    } catch (const InvalidValueException& exception) {
        EXPECT_STREQ("no negative numbers", exception.what());
    }
    int calls = 0;
    const auto procedure = makeProc([&](const BasePtr& argument) -> ErrCode {
        ++calls;
        return argument ? 0 : 0x80000027;
    });
    EXPECT_EQ(0x80000027, procedure->dispatch(nullptr));
    EXPECT_EQ(0u, procedure->dispatch(toValue(1).get()));
    EXPECT_EQ(2, calls);
    EXPECT_EQ(CoreType::Proc, coreTypeOf(asBase(procedure)));
    EXPECT_EQ(CoreType::Func, coreTypeOf(asBase(function)));
}

TEST(Events, callInOrderAndStopAtTheFirstFailure) {
    const auto event = makeEvent();
    std::string order;
    auto handler = [&](char mark, bool fails) {
        return makeHandler([&order, mark, fails](const BasePtr& sender, const ObjectPtr<IEventArgs>&) {
            EXPECT_EQ(7, fromValue<int>(sender));
            order += mark;
            if (fails)
                throw InvalidStateException("handler %c", mark);
        });
    };
    const auto b = handler('b', true);
    ASSERT_EQ(0u, event->addHandler(handler('a', false).get()));
    ASSERT_EQ(0u, event->addHandler(b.get()));
    ASSERT_EQ(0u, event->addHandler(handler('c', false).get()));
    EXPECT_EQ(Errors::InvalidState, event->trigger(toValue(7).get(), nullptr));
    EXPECT_EQ("ab", order);
    EXPECT_EQ("handler b", takeErrorMessage());
    ASSERT_EQ(0u, event->removeHandler(b.get()));
    EXPECT_EQ(Errors::NotFound, event->removeHandler(b.get()));
    zornClearErrorInfo();
    EXPECT_EQ(0u, event->trigger(toValue(7).get(), nullptr));
    EXPECT_EQ("abac", order);
    EXPECT_EQ(Errors::ArgumentNull, event->addHandler(nullptr));
}

TEST(Events, handlersMayAddRemoveAndTriggerAgain) {
    const uint64_t before = zornSharedLibObjectCount;
    {
        const auto event = makeEvent();
        std::string order;
        ObjectPtr<IEventHandler> first;
        const auto later = makeHandler([&](const BasePtr&, const ObjectPtr<IEventArgs>&) { order += 'l'; });
        first = makeHandler([&](const BasePtr&, const ObjectPtr<IEventArgs>&) {
            order += 'f';
            checkErrorInfo(event->removeHandler(first.get()));
            checkErrorInfo(event->addHandler(later.get()));
            checkErrorInfo(event->trigger(nullptr, nullptr));
        });
        ASSERT_EQ(0u, event->addHandler(first.get()));
        EXPECT_EQ(0u, event->trigger(nullptr, nullptr));
        EXPECT_EQ("fl", order);
        size_t count = 0;
        ASSERT_EQ(0u, event->getHandlerCount(&count));
        EXPECT_EQ(1u, count);
    }
    EXPECT_EQ(before, zornSharedLibObjectCount);
}
