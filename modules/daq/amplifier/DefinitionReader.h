#pragma once

#include <string>

#include <zorn/objects/property_object.h>

// What the text of an amplifier's definition says, read in one place for all who want to know.
namespace Harvane::RT::Modules::Daq {

struct AmplifierDefinition {
    // Empty when the text is no class with an identifier.
    Core::PropertyObjectClassPtr objectClass;
    std::string className;
    std::string identifier;
    // Why the definition is of no use; "" when it is. The host's words begin with a place ("/properties/0: ..."),
    // hold one ("at line 3, column 17") or name none.
    std::string reason;
};

// Whether this is a file of definitions, by its name alone.
bool isDefinitionName(const std::string& path);

// What leads to a class; without a class and with a reason when nothing does.
AmplifierDefinition describeDefinition(const Core::PropertyObjectClassPtr& objectClass);
// Nothing that stands in a text raises an exception.
AmplifierDefinition readDefinition(const std::string& text);
// An unreadable file is a definition with a reason. `text` gets what the file holds, when it can be read.
AmplifierDefinition readDefinitionFile(const std::string& path, std::string* text = nullptr);

// Four decimal numbers from 0 to 255 joined by dots, without leading zeros: what an amplifier can say of itself.
bool isAmplifierIdentifier(const std::string& identifier);

}  // namespace Harvane::RT::Modules::Daq
