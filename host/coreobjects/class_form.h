#pragma once

#include <vector>

#include <zorn/objects/property_object.h>

// The serialised form of property classes:
//   {"__type": "PropertyObjectClass", "name": ..., "parent": ..., "properties": [{"name": ..., "type": ..., ...}, ...]}
namespace Harvane::RT::Core {

inline constexpr const char* ClassFormId = "PropertyObjectClass";
inline constexpr const char* EvalFormId = "Eval";

void writeClassForm(ISerializer* serializer, const StringPtr& name, const StringPtr& parent,
                    const std::vector<PropertyInfoPtr>& infos);

// Factories for zornRegisterSerializerFactory.
ErrCode deserializeClass(ISerializedObject* serialized, IBaseObject** object);
ErrCode deserializeEval(ISerializedObject* serialized, IBaseObject** object);

// "int", "float", ...; null for a type without a name.
const char* nameOfType(CoreType type);

}  // namespace Harvane::RT::Core
