#pragma once

#include <zorn/types/values.h>

// Writing and reading of property objects and classes. The text form is JSON.
namespace Harvane::RT::Core {

enum class SerializedType : int32_t { Object = 0, List = 1, Float = 2, Int = 3, Bool = 4, String = 5, Null = 6 };

class ISerializer : public IBaseObject {
    ZORN_INTERFACE(ISerializer, IBaseObject)

    virtual ErrCode startObject() = 0;
    virtual ErrCode endObject() = 0;
    virtual ErrCode startList() = 0;
    virtual ErrCode endList() = 0;
    virtual ErrCode key(const char* name) = 0;
    virtual ErrCode writeInt(int64_t value) = 0;
    virtual ErrCode writeFloat(double value) = 0;
    virtual ErrCode writeBool(unsigned char value) = 0;
    virtual ErrCode writeString(const char* text) = 0;
    virtual ErrCode getOutput(IString** text) = 0;
};

class ISerializedList;

class ISerializedObject : public IBaseObject {
    ZORN_INTERFACE(ISerializedObject, IBaseObject)

    virtual ErrCode hasKey(const char* key, unsigned char* found) = 0;
    virtual ErrCode getType(const char* key, SerializedType* type) = 0;
    virtual ErrCode readInt(const char* key, int64_t* value) = 0;
    virtual ErrCode readFloat(const char* key, double* value) = 0;
    virtual ErrCode readBool(const char* key, unsigned char* value) = 0;
    virtual ErrCode readString(const char* key, IString** value) = 0;
    virtual ErrCode readObject(const char* key, ISerializedObject** value) = 0;
    virtual ErrCode readList(const char* key, ISerializedList** value) = 0;
    // Any value as a value object; objects through the registered factories.
    virtual ErrCode readValue(const char* key, IBaseObject** value) = 0;
    virtual ErrCode getKeys(IList** keys) = 0;  // in the order of the text
};

class ISerializedList : public IBaseObject {
    ZORN_INTERFACE(ISerializedList, IBaseObject)

    virtual ErrCode getCount(size_t* count) = 0;
    virtual ErrCode getType(size_t index, SerializedType* type) = 0;
    virtual ErrCode readObject(size_t index, ISerializedObject** value) = 0;
    virtual ErrCode readList(size_t index, ISerializedList** value) = 0;
    virtual ErrCode readValue(size_t index, IBaseObject** value) = 0;
};

class ISerializable : public IBaseObject {
    ZORN_INTERFACE(ISerializable, IBaseObject)

    virtual ErrCode serialize(ISerializer* serializer) = 0;
    virtual ErrCode getSerializeId(const char** id) = 0;
};

class IDeserializer : public IBaseObject {
    ZORN_INTERFACE(IDeserializer, IBaseObject)

    // The object that a text describes. Deserialize (0x80000021) with the place and the reason for bad text.
    virtual ErrCode deserialize(IString* text, IBaseObject** object) = 0;
    // The text as a serialised object, for `update`.
    virtual ErrCode parse(IString* text, ISerializedObject** object) = 0;
};

using SerializerFactory = ErrCode (*)(ISerializedObject* serialized, IBaseObject** object);

// Registering an identifier again replaces the factory: the newest wins.
ZORN_FUNCTION ErrCode zornRegisterSerializerFactory(const char* id, SerializerFactory factory);
// Drops every factory whose code lies in the shared object that contains `address`: called before that is unloaded.
ZORN_FUNCTION ErrCode zornDropSerializerFactories(const void* address);
ZORN_FUNCTION ErrCode createJsonDeserializer(IDeserializer** deserializer);
ZORN_FUNCTION ErrCode createJsonSerializer(ISerializer** serializer);

}  // namespace Harvane::RT::Core
