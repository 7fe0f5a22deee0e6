#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <type_traits>

#include <zorn/types/base.h>
#include <zorn/types/errorinfo.h>
#include <zorn/types/exceptions.h>
#include <zorn/types/ptr.h>

// Who may see the counter below: a module exports it, everybody else keeps its own hidden. If the symbol were visible
// in several libraries, the loader would fold the counters into one and a module could never tell that it is free.
#ifdef ZORN_EXPORT_OBJECT_COUNT
#define ZORN_OBJECT_COUNT_VISIBILITY __attribute__((visibility("default")))
#else
#define ZORN_OBJECT_COUNT_VISIBILITY __attribute__((visibility("hidden")))
#endif

namespace Harvane::RT::Core {

// Live objects of this shared library: a library may be unloaded only while it is 0.
inline ZORN_OBJECT_COUNT_VISIBILITY std::atomic<uint64_t> zornSharedLibObjectCount{0};

// Answers a getter. A null output is ArgumentNull, and leaves no older text behind.
template <class T>
ErrCode handOut(std::type_identity_t<T> value, T* output) {
    if (output == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    *output = value;
    return Errors::Success;
}
// The same for an object: the caller gets a reference of its own. An empty pointer gives null.
template <class I>
ErrCode handOut(const ObjectPtr<I>& object, I** output) {
    const ErrCode code = handOut(object.get(), output);
    if (succeeded(code) && object) {
        object->addRef();
    }
    return code;
}

// Strong count of an object that hands out weak references; outlives the object as long as one of those does.
struct RefControl {
    std::atomic<int32_t> strong{1};
    std::atomic<int32_t> holders{1};  // the object itself and its weak references
    void release() {
        if (holders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }
};

// The object base: implements the base operations for a set of interfaces. Counts its objects in the library that
// instantiates it. An object is born with one reference, which belongs to whoever called `new`.
//
// The first interface gives the object's identity. An interface whose `Base` chain leads to another one answers to that
// one too.
template <class First, class... Rest>
class ObjectImpl : public First, public Rest... {
public:
    ErrCode queryInterface(IntfID id, void** result) override {
        const ErrCode code = borrowInterface(id, result);
        if (failed(code)) {
            return plainError(code);
        }
        addRef();
        return code;
    }

    // A missing interface is an answer here: the thread's error info stays as it is.
    ErrCode borrowInterface(IntfID id, void** result) override {
        if (result == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *result = findInterface(id);
        return *result != nullptr ? Errors::Success : Errors::NoInterface;
    }

    int32_t addRef() override { return control_->strong.fetch_add(1, std::memory_order_relaxed) + 1; }

    int32_t releaseRef() override {
        const int32_t left = control_->strong.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left == 0) {
            delete this;
        }
        return left;
    }

    ErrCode dispose() override { return Errors::Success; }

    ErrCode getHashCode(size_t* hash) override {
        if (hash == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *hash = reinterpret_cast<size_t>(self());
        return Errors::Success;
    }

    ErrCode equals(IBaseObject* other, unsigned char* equal) override {
        if (equal == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        void* identity = nullptr;
        if (other != nullptr) {
            other->borrowInterface(IBaseObject::Id, &identity);
        }
        *equal = identity == static_cast<void*>(self()) ? 1 : 0;
        return Errors::Success;
    }

    ErrCode toString(char** text) override {
        return text == nullptr ? plainError(Errors::ArgumentNull) : zornDuplicateCharPtr(text, "Object");
    }

    ObjectImpl(const ObjectImpl&) = delete;
    ObjectImpl& operator=(const ObjectImpl&) = delete;

protected:
    ObjectImpl() : control_(new RefControl) { zornSharedLibObjectCount.fetch_add(1, std::memory_order_relaxed); }
    virtual ~ObjectImpl() {
        control_->release();
        zornSharedLibObjectCount.fetch_sub(1, std::memory_order_acq_rel);
    }

    // This object as a base object: its identity.
    IBaseObject* self() { return static_cast<IBaseObject*>(static_cast<First*>(this)); }

    // An override may answer for more interfaces.
    virtual void* findInterface(IntfID id) {
        if (id == IBaseObject::Id) {
            return self();
        }
        if (void* found = findInChain<First>(static_cast<First*>(this), id)) {
            return found;
        }
        void* found = nullptr;
        (void)((found = findInChain<Rest>(static_cast<Rest*>(this), id)) || ...);
        return found;
    }

    // For getWeakRef: a new weak reference takes one of the holders.
    RefControl* shareControl() {
        control_->holders.fetch_add(1, std::memory_order_relaxed);
        return control_;
    }

private:
    template <class I>
    static void* findInChain(I* object, IntfID id) {
        if (id == I::Id) {
            return object;
        }
        if constexpr (!std::is_same_v<typename I::Base, void> && !std::is_same_v<typename I::Base, IBaseObject>) {
            return findInChain<typename I::Base>(static_cast<typename I::Base*>(object), id);
        } else {
            return nullptr;
        }
    }

    RefControl* control_;
};

class WeakRefImpl final : public ObjectImpl<IWeakRef> {
public:
    // Takes one holder of `control` over.
    WeakRefImpl(RefControl* control, IBaseObject* object) : target_(control), object_(object) {}
    ~WeakRefImpl() override { target_->release(); }

    ErrCode getRef(IBaseObject** object) override {
        if (object == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        int32_t count = target_->strong.load(std::memory_order_relaxed);
        while (count > 0) {
            if (target_->strong.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel)) {
                *object = object_;
                return Errors::Success;
            }
        }
        *object = nullptr;
        return plainError(Errors::NotFound);
    }

private:
    RefControl* target_;
    IBaseObject* object_;
};

// Puts a new object into an output parameter: createObject<StringImpl, IString>(out, "text").
template <class Implementation, class I, class... Arguments>
ErrCode createObject(I** result, Arguments&&... arguments) {
    if (result == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    return wrapHandler([&] { *result = new Implementation(std::forward<Arguments>(arguments)...); });
}

}  // namespace Harvane::RT::Core
