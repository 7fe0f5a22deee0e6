#pragma once

#include <functional>
#include <utility>

#include <zorn/types/object_impl.h>
#include <zorn/types/values.h>

// Procedures, functions and events.
namespace Harvane::RT::Core {

class IProcObject : public IBaseObject {
    ZORN_INTERFACE(IProcObject, IBaseObject)

    // One argument is passed as itself, several as an IList, none as null.
    virtual ErrCode dispatch(IBaseObject* arguments) = 0;
};

class IFuncObject : public IBaseObject {
    ZORN_INTERFACE(IFuncObject, IBaseObject)

    // A code of 1 with no result is a legal answer and passes unchanged. Null `result`: ArgumentNull.
    virtual ErrCode execute(IBaseObject* arguments, IBaseObject** result) = 0;
};

class IEventArgs : public IBaseObject {
    ZORN_INTERFACE(IEventArgs, IBaseObject)

    virtual ErrCode getEventName(IString** name) = 0;
};

class IEventHandler : public IBaseObject {
    ZORN_INTERFACE(IEventHandler, IBaseObject)

    virtual ErrCode handle(IBaseObject* sender, IEventArgs* arguments) = 0;
};

// Triggering works on a copy of the list, so that handlers may add, remove and trigger again. The first failure ends
// the trigger and is its result.
class IEvent : public IBaseObject {
    ZORN_INTERFACE(IEvent, IBaseObject)

    virtual ErrCode addHandler(IEventHandler* handler) = 0;
    virtual ErrCode removeHandler(IEventHandler* handler) = 0;  // NotFound
    virtual ErrCode getHandlerCount(size_t* count) = 0;
    virtual ErrCode trigger(IBaseObject* sender, IEventArgs* arguments) = 0;
};

ZORN_FUNCTION ErrCode createEvent(IEvent** event);

// ---- Objects around a C++ callable. They count in the library that makes them; exceptions become codes. ------------

class ProcImpl final : public ObjectImpl<IProcObject, ICoreType> {
public:
    explicit ProcImpl(std::function<ErrCode(const BasePtr&)> body) : body_(std::move(body)) {}
    ErrCode dispatch(IBaseObject* arguments) override {
        return wrapHandler([&]() -> ErrCode { return body_(BasePtr(arguments)); });
    }
    ErrCode getCoreType(CoreType* type) override { return handOut(CoreType::Proc, type); }

private:
    std::function<ErrCode(const BasePtr&)> body_;
};

class FuncImpl final : public ObjectImpl<IFuncObject, ICoreType> {
public:
    explicit FuncImpl(std::function<ErrCode(const BasePtr&, BasePtr&)> body) : body_(std::move(body)) {}
    ErrCode execute(IBaseObject* arguments, IBaseObject** result) override {
        if (result == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *result = nullptr;
        return wrapHandler([&]() -> ErrCode {
            BasePtr value;
            const ErrCode code = body_(BasePtr(arguments), value);
            if (succeeded(code)) {
                *result = value.detach();
            }
            return code;
        });
    }
    ErrCode getCoreType(CoreType* type) override { return handOut(CoreType::Func, type); }

private:
    std::function<ErrCode(const BasePtr&, BasePtr&)> body_;
};

class EventHandlerImpl final : public ObjectImpl<IEventHandler> {
public:
    using Body = std::function<void(const BasePtr& sender, const ObjectPtr<IEventArgs>& arguments)>;
    explicit EventHandlerImpl(Body body) : body_(std::move(body)) {}
    ErrCode handle(IBaseObject* sender, IEventArgs* arguments) override {
        return wrapHandler([&] { body_(BasePtr(sender), ObjectPtr<IEventArgs>(arguments)); });
    }

private:
    Body body_;
};

inline ObjectPtr<IProcObject> makeProc(std::function<ErrCode(const BasePtr& arguments)> body) {
    return ObjectPtr<IProcObject>::take(new ProcImpl(std::move(body)));
}
inline ObjectPtr<IFuncObject> makeFunc(std::function<ErrCode(const BasePtr& arguments, BasePtr& result)> body) {
    return ObjectPtr<IFuncObject>::take(new FuncImpl(std::move(body)));
}
inline ObjectPtr<IEventHandler> makeHandler(EventHandlerImpl::Body body) {
    return ObjectPtr<IEventHandler>::take(new EventHandlerImpl(std::move(body)));
}

// Runs a function object; gives code and result as they come (a failing code raises its exception).
inline BasePtr executeFunc(const ObjectPtr<IFuncObject>& function, const BasePtr& arguments, ErrCode* code = nullptr) {
    IBaseObject* raw = nullptr;
    const ErrCode answer = function->execute(arguments.get(), &raw);
    BasePtr result = BasePtr::take(raw);
    checkErrorInfo(answer);
    if (code != nullptr) {
        *code = answer;
    }
    return result;
}

}  // namespace Harvane::RT::Core
