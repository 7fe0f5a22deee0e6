#pragma once

#include <cstddef>
#include <cstdint>

#include <zorn/types/errors.h>

// A plain C function that a library exports by its unmangled name.
#define ZORN_FUNCTION extern "C" __attribute__((visibility("default")))
// A C++ class or function of the host that its own programs (not modules) use across libraries.
#define ZORN_EXPORT __attribute__((visibility("default")))

// The first line of each interface: its `Id`, the interface that it extends as `Base`, and a destructor that only the
// object behind it can call. Public operations follow.
#define ZORN_INTERFACE(NAME, BASE)                                                             \
public:                                                                                        \
    using Base = BASE;                                                                         \
    static constexpr ::Harvane::RT::Core::IntfID Id = ::Harvane::RT::Core::interfaceId(#NAME); \
                                                                                               \
protected:                                                                                     \
    ~NAME() = default;                                                                         \
                                                                                               \
public:

namespace Harvane::RT::Core {

// Identifies an interface: a hash (FNV-1a, 64 bits) of its name.
using IntfID = uint64_t;

constexpr IntfID interfaceId(const char* name) {
    uint64_t hash = 0xcbf29ce484222325ull;
    for (; *name != 0; ++name) {
        hash = (hash ^ static_cast<unsigned char>(*name)) * 0x100000001b3ull;
    }
    return hash;
}

// Root of all interfaces. Reference counted; objects are destroyed by the last releaseRef on whichever thread that is.
class IBaseObject {
    ZORN_INTERFACE(IBaseObject, void)

    // Hands out the interface with a reference for the caller; NoInterface (and null) when there is none.
    virtual ErrCode queryInterface(IntfID id, void** result) = 0;
    // Both return the new count.
    virtual int32_t addRef() = 0;
    virtual int32_t releaseRef() = 0;
    // As queryInterface, without a reference.
    virtual ErrCode borrowInterface(IntfID id, void** result) = 0;
    // Drops what the object holds; the object stays callable.
    virtual ErrCode dispose() = 0;
    virtual ErrCode getHashCode(size_t* hash) = 0;
    // Identity unless an object says otherwise.
    virtual ErrCode equals(IBaseObject* other, unsigned char* equal) = 0;
    // The caller frees the text with zornFreeMemory.
    virtual ErrCode toString(char** text) = 0;
};

class IWeakRef : public IBaseObject {
    ZORN_INTERFACE(IWeakRef, IBaseObject)

    // The object with a reference; NotFound when it is gone.
    virtual ErrCode getRef(IBaseObject** object) = 0;
};

class ISupportsWeakRef : public IBaseObject {
    ZORN_INTERFACE(ISupportsWeakRef, IBaseObject)

    virtual ErrCode getWeakRef(IWeakRef** reference) = 0;
};

}  // namespace Harvane::RT::Core
