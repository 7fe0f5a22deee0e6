#pragma once

#include <cstddef>
#include <utility>

#include <zorn/types/base.h>
#include <zorn/types/exceptions.h>

namespace Harvane::RT::Core {

// Smart pointer of one interface. Copying takes a reference. Test and copy of an empty pointer are free; a call through
// an empty one raises InvalidParameterException.
template <class I>
class ObjectPtr {
public:
    using Interface = I;

    ObjectPtr() = default;
    ObjectPtr(std::nullptr_t) {}
    // Takes a reference of its own.
    ObjectPtr(I* object) : object_(object) {
        if (object_ != nullptr) {
            object_->addRef();
        }
    }
    ObjectPtr(const ObjectPtr& other) : ObjectPtr(other.object_) {}
    ObjectPtr(ObjectPtr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    ~ObjectPtr() { release(); }

    ObjectPtr& operator=(const ObjectPtr& other) {
        ObjectPtr(other).swap(*this);
        return *this;
    }
    ObjectPtr& operator=(ObjectPtr&& other) noexcept {
        ObjectPtr(std::move(other)).swap(*this);
        return *this;
    }

    // For results that carry a reference already.
    static ObjectPtr take(I* object) {
        ObjectPtr result;
        result.object_ = object;
        return result;
    }

    I* get() const { return object_; }
    // Gives the reference away.
    I* detach() { return std::exchange(object_, nullptr); }
    explicit operator bool() const { return object_ != nullptr; }
    bool operator==(const ObjectPtr& other) const { return object_ == other.object_; }

    void release() {
        if (I* object = std::exchange(object_, nullptr)) {
            object->releaseRef();
        }
    }
    void swap(ObjectPtr& other) noexcept { std::swap(object_, other.object_); }

    I* operator->() const { return checked(); }
    I& operator*() const { return *checked(); }

    // The same object under another interface. asPtr raises NoInterfaceException, asPtrOrNull gives an empty pointer.
    template <class I2>
    ObjectPtr<I2> asPtr() const {
        void* result = nullptr;
        checkErrorInfo(checked()->queryInterface(I2::Id, &result));
        return ObjectPtr<I2>::take(static_cast<I2*>(result));
    }
    template <class I2>
    ObjectPtr<I2> asPtrOrNull() const {
        void* result = nullptr;
        if (object_ == nullptr || failed(object_->borrowInterface(I2::Id, &result))) {
            return {};
        }
        return ObjectPtr<I2>(static_cast<I2*>(result));
    }

    // Identity or, for values, equality of content; two empty pointers are equal.
    template <class I2>
    bool equals(const ObjectPtr<I2>& other) const {
        if (object_ == nullptr || !other) {
            return object_ == nullptr && !other;
        }
        unsigned char equal = 0;
        checkErrorInfo(object_->equals(other.get(), &equal));
        return equal != 0;
    }

protected:
    I* checked() const {
        if (object_ == nullptr) {
            throw InvalidParameterException("Can not return by a null pointer.");
        }
        return object_;
    }

    // Asks a getter of this object: fetch for an output that carries a reference, read for a plain one.
    template <class R, class From>
    ObjectPtr<R> fetch(ErrCode (From::*getter)(R**)) const {
        return fetch<R>([&](R** result) { return (checked()->*getter)(result); });
    }
    template <class R, class From>
    R read(ErrCode (From::*getter)(R*)) const {
        return read<R>([&](R* result) { return (checked()->*getter)(result); });
    }

    // Runs an operation with one output that carries a reference.
    template <class R, class Operation>
    static ObjectPtr<R> fetch(Operation&& operation) {
        R* result = nullptr;
        checkErrorInfo(operation(&result));
        return ObjectPtr<R>::take(result);
    }
    // Runs an operation with one plain output.
    template <class R, class Operation>
    static R read(Operation&& operation) {
        R result{};
        checkErrorInfo(operation(&result));
        return result;
    }

private:
    I* object_ = nullptr;
};

// The object under its first interface; used as a key and for identity.
using BasePtr = ObjectPtr<IBaseObject>;

template <class I>
BasePtr asBase(const ObjectPtr<I>& object) {
    return object ? BasePtr(static_cast<IBaseObject*>(object.get())) : BasePtr();
}

}  // namespace Harvane::RT::Core
