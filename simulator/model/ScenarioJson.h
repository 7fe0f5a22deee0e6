#pragma once

#include <stdexcept>
#include <string>

#include "simulator/model/Scenario.h"

namespace kestrixsim {

// A scenario text or file is wrong. The message names the file, the place in it and what is expected there.
class ScenarioError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The JSON form of a scenario. A key that is left out has the default of Scenario; an unknown or repeated key, a value
// of the wrong type or outside its range is an error. simulator/README.md lists the keys.
class ScenarioJson {
public:
    // `name` stands in front of messages. A relative name of a WAV file counts from `folder`; the file is not opened.
    static Scenario parse(const std::string& text, const std::string& name, const std::string& folder = ".");
    // The WAV files that the scenario names are tried too.
    static Scenario read(const std::string& file);

    // Every key, indented, with a line end. Reading it gives the same scenario.
    static std::string write(const Scenario& scenario);
};

}  // namespace kestrixsim
