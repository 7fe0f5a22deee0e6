#pragma once

#include <string>
#include <vector>

#include "tools/zornhost/Output.h"
#include "tools/zornhost/Session.h"

namespace zornhost {

// What the instrument follows and what it sources for others, as the data module's list [follows, [sources]].
struct SyncOption {
    int follows = 0;
    std::vector<int> sources;

    std::string name() const;   // "Standalone", "PTP", "IRIG in, PTP out"
    std::string value() const;  // "[6, [14]]"
    bool isStandalone() const;  // it follows nothing
    bool operator==(const SyncOption&) const = default;
};

// In the order of their numbers, 1 the first.
std::vector<SyncOption> offeredOptions(Session& session);
// What is in force.
SyncOption appliedOption(Session& session);
// By name, in any case, or by number. Throws std::runtime_error that tells what there is.
SyncOption chooseOption(const std::vector<SyncOption>& offered, const std::string& text);
// Makes it the choice, in force from the next start on.
void applyOption(Session& session, const std::string& text);

// `zornhost sync list`.
int listOptions(Session& session, Output& output, bool json);

}  // namespace zornhost
