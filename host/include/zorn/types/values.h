#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

#include <zorn/types/base.h>
#include <zorn/types/errorinfo.h>
#include <zorn/types/ptr.h>

// Values: what a property can hold and what operations pass. All but lists and dictionaries are immutable.
namespace Harvane::RT::Core {

enum class CoreType : int32_t {
    Bool = 0,
    Int = 1,
    Float = 2,
    String = 3,
    List = 4,
    Dict = 5,
    Ratio = 6,
    Proc = 7,
    Object = 8,
    Func = 9,
    Enum = 10,
    Reference = 11,
    Undefined = 0xFFFF,
};

class ICoreType : public IBaseObject {
    ZORN_INTERFACE(ICoreType, IBaseObject)

    virtual ErrCode getCoreType(CoreType* type) = 0;
};

class IComparable : public IBaseObject {
    ZORN_INTERFACE(IComparable, IBaseObject)

    // Below 0, 0 or above 0. InvalidType for another kind of object.
    virtual ErrCode compareTo(IBaseObject* other, int* result) = 0;
};

// Conversions between kinds of values; ConversionFailed where a value has no such form.
class IConvertible : public IBaseObject {
    ZORN_INTERFACE(IConvertible, IBaseObject)

    virtual ErrCode toBool(unsigned char* value) = 0;
    virtual ErrCode toInt(int64_t* value) = 0;
    virtual ErrCode toFloat(double* value) = 0;
    virtual ErrCode convertTo(CoreType type, IBaseObject** value) = 0;
};

// equals and getHashCode go by content.
class IString : public IBaseObject {
    ZORN_INTERFACE(IString, IBaseObject)

    virtual ErrCode getLength(size_t* length) = 0;
    virtual ErrCode getCharPtr(const char** text) = 0;  // valid as long as the object
};

class IIntObject : public IBaseObject {
    ZORN_INTERFACE(IIntObject, IBaseObject)

    virtual ErrCode getValue(int64_t* value) = 0;
};

class IFloatObject : public IBaseObject {
    ZORN_INTERFACE(IFloatObject, IBaseObject)

    virtual ErrCode getValue(double* value) = 0;
};

class IBoolObject : public IBaseObject {
    ZORN_INTERFACE(IBoolObject, IBaseObject)

    virtual ErrCode getValue(unsigned char* value) = 0;
};

// Numerator over denominator, kept as given; equal when the cross products are.
class IRatio : public IBaseObject {
    ZORN_INTERFACE(IRatio, IBaseObject)

    virtual ErrCode getNumerator(int64_t* numerator) = 0;
    virtual ErrCode getDenominator(int64_t* denominator) = 0;
};

class IList : public IBaseObject {
    ZORN_INTERFACE(IList, IBaseObject)

    virtual ErrCode getCount(size_t* count) = 0;
    virtual ErrCode getItemAt(size_t index, IBaseObject** item) = 0;  // OutOfRange beyond the end
    virtual ErrCode pushBack(IBaseObject* item) = 0;                  // takes its own reference
    virtual ErrCode setItemAt(size_t index, IBaseObject* item) = 0;
    virtual ErrCode removeAt(size_t index) = 0;
    virtual ErrCode clear() = 0;
};

class IDict : public IBaseObject {
    ZORN_INTERFACE(IDict, IBaseObject)

    virtual ErrCode getItem(IBaseObject* key, IBaseObject** value) = 0;  // NotFound
    virtual ErrCode setItem(IBaseObject* key, IBaseObject* value) = 0;
    virtual ErrCode hasKey(IBaseObject* key, unsigned char* found) = 0;
    virtual ErrCode removeItem(IBaseObject* key) = 0;
    virtual ErrCode getKeys(IList** keys) = 0;
    virtual ErrCode getCount(size_t* count) = 0;
};

class IVersionInfo : public IBaseObject {
    ZORN_INTERFACE(IVersionInfo, IBaseObject)

    virtual ErrCode getMajor(unsigned int* value) = 0;
    virtual ErrCode getMinor(unsigned int* value) = 0;
    virtual ErrCode getPatch(unsigned int* value) = 0;
};

// Creating functions: output first; one reference for the caller.
ZORN_FUNCTION ErrCode createString(IString** object, const char* text);
ZORN_FUNCTION ErrCode createStringN(IString** object, const char* text, size_t length);
ZORN_FUNCTION ErrCode createIntObject(IIntObject** object, int64_t value);
ZORN_FUNCTION ErrCode createFloatObject(IFloatObject** object, double value);
ZORN_FUNCTION ErrCode createBoolObject(IBoolObject** object, unsigned char value);
// InvalidParameter for a denominator of 0.
ZORN_FUNCTION ErrCode createRatio(IRatio** object, int64_t numerator, int64_t denominator);
ZORN_FUNCTION ErrCode createList(IList** object);
ZORN_FUNCTION ErrCode createDict(IDict** object);
ZORN_FUNCTION ErrCode createVersionInfo(IVersionInfo** object, unsigned int major, unsigned int minor,
                                        unsigned int patch);
ZORN_FUNCTION void zornCoreTypesGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch);
// Live objects made by this library, for finding leaks.
ZORN_FUNCTION size_t zornCoreTypesGetObjectCount();

// ---- Wrappers ------------------------------------------------------------------------------------------------------

class StringPtr : public ObjectPtr<IString> {
public:
    using ObjectPtr::ObjectPtr;
    StringPtr(const ObjectPtr<IString>& other) : ObjectPtr(other) {}
    StringPtr(ObjectPtr<IString>&& other) : ObjectPtr(std::move(other)) {}
    StringPtr(const char* text) : StringPtr(std::string_view(text)) {}
    StringPtr(const std::string& text) : StringPtr(std::string_view(text)) {}
    StringPtr(std::string_view text) {
        IString* object = nullptr;
        checkErrorInfo(createStringN(&object, text.data(), text.size()));
        ObjectPtr::operator=(ObjectPtr::take(object));
    }

    // Empty for an empty pointer.
    std::string_view view() const {
        if (!*this) {
            return {};
        }
        const char* text = nullptr;
        size_t length = 0;
        checkErrorInfo(get()->getCharPtr(&text));
        checkErrorInfo(get()->getLength(&length));
        return {text, length};
    }
    std::string toStdString() const { return std::string(view()); }
    bool operator==(const StringPtr& other) const { return view() == other.view(); }
    bool operator==(std::string_view other) const { return view() == other; }
    bool operator==(const char* other) const { return view() == other; }
    bool operator==(const std::string& other) const { return view() == other; }
    bool operator<(const StringPtr& other) const { return view() < other.view(); }
};

struct StringPtrHash {
    size_t operator()(const StringPtr& text) const { return std::hash<std::string_view>()(text.view()); }
};

struct Ratio {
    int64_t numerator = 0;
    int64_t denominator = 1;
    bool operator==(const Ratio&) const = default;
};

class ListPtr : public ObjectPtr<IList> {
public:
    using ObjectPtr::ObjectPtr;
    ListPtr(const ObjectPtr<IList>& other) : ObjectPtr(other) {}
    ListPtr(ObjectPtr<IList>&& other) : ObjectPtr(std::move(other)) {}

    static ListPtr create(std::initializer_list<BasePtr> items = {}) {
        IList* object = nullptr;
        checkErrorInfo(createList(&object));
        ListPtr list(ObjectPtr::take(object));
        for (const auto& item : items) {
            list.pushBack(item);
        }
        return list;
    }
    size_t getCount() const { return read(&IList::getCount); }
    BasePtr getItemAt(size_t index) const {
        return fetch<IBaseObject>([&](IBaseObject** item) { return checked()->getItemAt(index, item); });
    }
    void pushBack(const BasePtr& item) const { checkErrorInfo(checked()->pushBack(item.get())); }
};

// Makes a value object of a plain value: bool, integers, doubles, texts, Ratio. Objects pass through.
inline BasePtr toValue(bool value) {
    IBoolObject* object = nullptr;
    checkErrorInfo(createBoolObject(&object, value ? 1 : 0));
    return BasePtr::take(object);
}
template <class T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) || std::is_enum_v<T>
BasePtr toValue(T value) {
    IIntObject* object = nullptr;
    checkErrorInfo(createIntObject(&object, static_cast<int64_t>(value)));
    return BasePtr::take(object);
}
inline BasePtr toValue(double value) {
    IFloatObject* object = nullptr;
    checkErrorInfo(createFloatObject(&object, value));
    return BasePtr::take(object);
}
inline BasePtr toValue(std::string_view value) {
    return BasePtr(StringPtr(value).get());
}
inline BasePtr toValue(const std::string& value) {
    return toValue(std::string_view(value));
}
inline BasePtr toValue(const char* value) {
    return toValue(std::string_view(value));
}
inline BasePtr toValue(const Ratio& value) {
    IRatio* object = nullptr;
    checkErrorInfo(createRatio(&object, value.numerator, value.denominator));
    return BasePtr::take(object);
}
template <class I>
BasePtr toValue(const ObjectPtr<I>& value) {
    return asBase(value);
}

// Reads a value object as a plain value: over its own interface first, else (missing, or InvalidType) converted.
// InvalidParameter for an empty pointer, ConversionFailed or NoInterface where there is no such form.
template <class T>
T fromValue(const BasePtr& value);

template <>
inline int64_t fromValue<int64_t>(const BasePtr& value) {
    int64_t result = 0;
    if (auto plain = value.asPtrOrNull<IIntObject>()) {
        const ErrCode code = plain->getValue(&result);
        if (code != Errors::InvalidType) {
            checkErrorInfo(code);
            return result;
        }
        zornClearErrorInfo();
    }
    checkErrorInfo(value.asPtr<IConvertible>()->toInt(&result));
    return result;
}
// What an int can't hold becomes the nearest that it can: a number too large stays a large one.
template <>
inline int fromValue<int>(const BasePtr& value) {
    using Limits = std::numeric_limits<int>;
    return static_cast<int>(std::clamp<int64_t>(fromValue<int64_t>(value), Limits::min(), Limits::max()));
}
template <>
inline double fromValue<double>(const BasePtr& value) {
    double result = 0.0;
    if (auto plain = value.asPtrOrNull<IFloatObject>()) {
        checkErrorInfo(plain->getValue(&result));
    } else {
        checkErrorInfo(value.asPtr<IConvertible>()->toFloat(&result));
    }
    return result;
}
template <>
inline bool fromValue<bool>(const BasePtr& value) {
    unsigned char result = 0;
    if (auto plain = value.asPtrOrNull<IBoolObject>()) {
        checkErrorInfo(plain->getValue(&result));
    } else {
        checkErrorInfo(value.asPtr<IConvertible>()->toBool(&result));
    }
    return result != 0;
}
template <>
inline StringPtr fromValue<StringPtr>(const BasePtr& value) {
    if (auto plain = value.asPtrOrNull<IString>()) {
        return plain;
    }
    IBaseObject* text = nullptr;
    checkErrorInfo(value.asPtr<IConvertible>()->convertTo(CoreType::String, &text));
    return BasePtr::take(text).asPtr<IString>();
}
template <>
inline std::string fromValue<std::string>(const BasePtr& value) {
    return fromValue<StringPtr>(value).toStdString();
}
template <>
inline Ratio fromValue<Ratio>(const BasePtr& value) {
    auto ratio = value.asPtrOrNull<IRatio>();
    if (!ratio) {
        IBaseObject* converted = nullptr;
        checkErrorInfo(value.asPtr<IConvertible>()->convertTo(CoreType::Ratio, &converted));
        ratio = BasePtr::take(converted).asPtr<IRatio>();
    }
    Ratio result;
    checkErrorInfo(ratio->getNumerator(&result.numerator));
    checkErrorInfo(ratio->getDenominator(&result.denominator));
    return result;
}
template <>
inline ListPtr fromValue<ListPtr>(const BasePtr& value) {
    return value.asPtr<IList>();
}
template <>
inline BasePtr fromValue<BasePtr>(const BasePtr& value) {
    return value;
}

// Undefined for objects that are no values.
inline CoreType coreTypeOf(const BasePtr& value) {
    CoreType type = CoreType::Undefined;
    if (auto typed = value.asPtrOrNull<ICoreType>()) {
        typed->getCoreType(&type);
    }
    return type;
}

// The text that an object prints of itself.
template <class I>
std::string textOf(const ObjectPtr<I>& object) {
    if (!object) {
        return {};
    }
    char* text = nullptr;
    checkErrorInfo(object->toString(&text));
    std::string result(text == nullptr ? "" : text);
    zornFreeMemory(text);
    return result;
}

inline std::string takeErrorMessage() {
    IErrorInfo* raw = nullptr;
    if (failed(zornGetErrorInfo(&raw)) || raw == nullptr) {
        return {};
    }
    std::string result;
    IString* message = nullptr;
    if (succeeded(raw->getMessage(&message)) && message != nullptr) {
        const char* text = nullptr;
        if (succeeded(message->getCharPtr(&text)) && text != nullptr) {
            result = text;
        }
        message->releaseRef();
    }
    raw->releaseRef();
    zornClearErrorInfo();
    return result;
}

// `compareObjectPtr` of sorted maps: by IComparable where there is one, else by identity.
inline bool compareObjectPtr(const BasePtr& left, const BasePtr& right) {
    if (auto comparable = left.asPtrOrNull<IComparable>()) {
        int result = 0;
        if (succeeded(comparable->compareTo(right.get(), &result))) {
            return result < 0;
        }
        zornClearErrorInfo();
    }
    return std::less<IBaseObject*>()(left.get(), right.get());
}

}  // namespace Harvane::RT::Core
