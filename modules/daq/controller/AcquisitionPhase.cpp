#include "modules/daq/controller/AcquisitionPhase.h"

#include <array>
#include <cstddef>

namespace Harvane::RT::Modules::Daq {

namespace {

struct PhaseText {
    const char* name;
    const char* hint;  // what helps there
};

// In the order of AcquisitionPhase.
constexpr std::array<PhaseText, 6> phases{{
    {"empty", "it holds no instrument, since it was not added or adding it failed"},
    {"scanned", "it has to be initialized first"},
    {"prepared", "no acquisition runs"},
    {"initialised", "the acquisition has not been started"},
    {"running", "stop the acquisition first"},
    {"stopping", "the acquisition is being stopped"},
}};

struct StepRow {
    const char* name;
    std::array<bool, phases.size()> possible;
};

// In the order of AcquisitionStep. A stop ends what a preparation has switched on, and is nothing where nothing is.
constexpr std::array<StepRow, 7> steps{{
    // clang-format off
    //                 empty  scanned prepared initialised running stopping
    {"\"add\"",         {true,  false, false, false, false, false}},
    {"\"configure\"",   {false, true,  true,  true,  false, false}},
    {"\"initialize\"",  {false, true,  true,  true,  false, false}},
    {"\"BeforeStart\"", {false, false, true,  true,  false, false}},
    {"\"start\"",       {false, false, true,  true,  false, false}},
    {"\"processData\"", {false, false, false, false, true,  false}},
    {"\"stop\"",        {false, false, true,  true,  true,  false}},
    // clang-format on
}};

}  // namespace

bool isPossible(AcquisitionStep step, AcquisitionPhase phase) {
    return steps.at(static_cast<std::size_t>(step)).possible.at(static_cast<std::size_t>(phase));
}

std::string refusalOf(AcquisitionStep step, AcquisitionPhase phase) {
    if (isPossible(step, phase)) {
        return {};
    }
    const PhaseText& text = phases.at(static_cast<std::size_t>(phase));
    if (step == AcquisitionStep::Add) {
        return std::string("\"add\" is refused in phase \"") + text.name + "\": the module has its instrument already.";
    }
    return std::string(steps.at(static_cast<std::size_t>(step)).name) + " is refused in phase \"" + text.name +
           "\" of the module: " + text.hint + ".";
}

}  // namespace Harvane::RT::Modules::Daq
