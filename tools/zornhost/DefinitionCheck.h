#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Amplifier definition files, read and tried by the module's own code, with an answer for each file: what it registers,
// or what is wrong with it and where. Needs no module to be loaded.
namespace zornhost {

struct DefinitionProblem {
    bool error = true;  // false: the definition works, but not as its author will have meant it
    size_t line = 0;    // from 1; 0 when the whole text is meant
    size_t column = 0;  // from 1, in bytes
    std::string text;
};

struct DefinitionMeasurement {
    std::string name;
    std::string unit;
    std::vector<std::string> ranges;  // as displayed, without the unit
};

struct DefinitionReport {
    // Unusable: registered, but its amplifier is shown as unknown.
    enum class Outcome { Registered, Unusable, Wrong, NotRead };

    std::string file;  // name within the folder
    Outcome outcome = Outcome::Wrong;
    std::string className;
    std::string moduleName;
    std::string identifier;
    std::vector<DefinitionMeasurement> measurements;
    std::vector<DefinitionProblem> problems;
    std::string reason;  // NotRead only

    bool hasErrors() const;
};

// One text by itself. Its class is known to the host during the check and gone afterwards. Never throws for what stands
// in the text.
DefinitionReport checkDefinition(const std::string& text);

// All entries of a folder, by name; which of two files counts is what the module would find. Raises std::runtime_error
// when it can't be read at all.
std::vector<DefinitionReport> checkDefinitions(const std::string& directory);

}  // namespace zornhost
