#pragma once

#include <string>
#include <vector>

#include "tools/zornhost/Machine.h"

// What a measurement needs, looked at before there is one. Changes nothing, loads no module into this process and
// leaves an instrument alone that another process holds.
namespace zornhost {

// Fail: a measurement will not run, or not as it is meant. Warn: it runs, and something can go wrong or isn't known.
enum class CheckState { Ok, Warn, Fail };

const char* nameOf(CheckState state);  // "OK", "WARN", "FAIL"

struct Finding {
    std::string check;  // what was looked at, in a few words; the same in each run
    CheckState state = CheckState::Ok;
    std::string found;             // one line
    std::vector<std::string> fix;  // command lines; what they begin with is done first
};

struct DoctorQuestions {
    std::string module;                // file
    std::string definitions;           // folder; empty: there is none
    std::string lockFile;              // empty: nobody else can have this instrument
    bool simulated = false;            // the instrument is; the machine is not
    std::string socketFolder;          // where a recording lets others ask it; empty: no folder can be written
    std::string temporaryFolder;       // where programs may have left something
    std::string recordings;            // folder that a recording is to go to; empty: it is not kept
    double bytesPerSecond = 0.0;       // that a recording is to write
    bool bytesPerSecondNamed = false;  // by the user, so that the disk has to be that fast
    std::string program = "zornhost";  // its path
};

// All channels of eight modules at their fastest rate: 15 MS/s of 2 bytes and 1.875 MS/s of 4 bytes.
inline constexpr double fastestBytesPerSecond = 8 * (15e6 * 2 + 1.875e6 * 4);

// In the order from what keeps a measurement from beginning to what makes it worse. Raises nothing but std::bad_alloc.
std::vector<Finding> examine(const Machine& machine, const DoctorQuestions& questions);

}  // namespace zornhost
