#pragma once

#include <string>

// The file of an amplifier that the host calls "Mine". More properties follow, each with its comma in front.
inline std::string definition(const std::string& name, const std::string& identifier, const std::string& more = "") {
    return R"({"__type": "PropertyObjectClass", "name": ")" + name + R"(", "properties": [
  {"name": "ModuleName", "type": "string", "readOnly": true, "readOnlyValue": "Mine"},
  {"name": "AmplifierID", "type": "string", "readOnly": true, "readOnlyValue": ")" +
           identifier + "\"}\n" + more + "]}";
}
