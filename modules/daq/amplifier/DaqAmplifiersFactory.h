#pragma once

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <zorn/objects/property_object.h>

#include "modules/daq/amplifier/DefinitionReader.h"
#include "modules/daq/amplifier/IDaqAmplifiersFactory.h"

namespace Harvane::RT::Modules::Daq {

// Reads amplifier definitions, files of host property classes, and knows which class belongs to which amplifier. A
// bad file costs its own amplifier only, in silence. Files are read once; later changes in the folder don't count.
//
// The host has one register of classes for the whole process. A class that another factory of this library has added
// counts as registered here too, if it is for the same amplifier, and goes with the last factory that uses it.
class DaqAmplifiersFactory : public IDaqAmplifiersFactory {
public:
    static constexpr const char* unknownAmplifierClass = "ampl_unknown";

    DaqAmplifiersFactory() = default;
    // Unregisters what is still registered.
    ~DaqAmplifiersFactory() override;
    DaqAmplifiersFactory(const DaqAmplifiersFactory&) = delete;
    DaqAmplifiersFactory& operator=(const DaqAmplifiersFactory&) = delete;

    // The class for amplifiers without a definition, then every file "*.json" of the folder itself. Only a failure
    // of the built-in class is an exception.
    void registerAmplifiers(const std::string& directory) override;
    void unregisterAmplifiers() override;

    // The class for an identifier as Amplifier::getId gives it, "ampl_unknown" when there is none.
    std::string getAmplifierClassName(const std::string& id) const;
    // Path of the file that a class came from; "" for the built-in class.
    std::string getDefinitionFile(const std::string& className) const;

    // What has become of a file, in the order in which they were read.
    struct File {
        std::string path;
        // Without its class, which the host has now. The reason is also that of the host when it refused the class.
        AmplifierDefinition definition;
        bool registered = false;  // an identifier leads to a class of this name
    };
    const std::vector<File>& files() const { return files_; }

    // Reads and registers one file; false when it is of no use.
    bool initFromFile(const std::string& path);
    // The same for a text; `path` is what it is known by.
    bool initFromText(const std::string& text, const std::string& path);
    // Empty when the file can't be read; an exception of the host when it is no property class with an identifier.
    Core::PropertyObjectClassPtr deserializeAmplDefinition(const std::string& path);
    // Makes the class a channel class, adds it to the host and keeps its identifier.
    bool tryRegisterAmplDefinition(Core::PropertyObjectClassPtr objectClass);
    void initUnknownAmplifier();

private:
    bool init(AmplifierDefinition definition, const std::string& path);
    void registerDefinition(const AmplifierDefinition& definition);
    void addClass(const AmplifierDefinition& definition);

    std::unordered_map<std::string, std::string> classes_;  // amplifier identifier to class name
    std::unordered_map<std::string, std::string> origins_;  // class name to the path of its definition
    std::unordered_set<std::string> used_;                  // classes of the host that this factory holds
    std::vector<File> files_;
};

}  // namespace Harvane::RT::Modules::Daq

// A new empty factory, which goes back through releaseDaqAmplifiersFactory; null without memory.
extern "C" __attribute__((visibility("default"))) Harvane::RT::Modules::Daq::IDaqAmplifiersFactory*
createDaqAmplifiersFactory();
// Null is accepted.
extern "C" __attribute__((visibility("default"))) void releaseDaqAmplifiersFactory(
    Harvane::RT::Modules::Daq::IDaqAmplifiersFactory* factory);
