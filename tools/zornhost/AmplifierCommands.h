#pragma once

#include <string>
#include <vector>

#include "tools/zornhost/Output.h"
#include "tools/zornhost/Session.h"

namespace CLI {
class App;
}

// What a person does with one amplifier. All of it goes through the host channel that shows the amplifier: its
// properties, functions and procedures.
namespace zornhost {

// The channel that shows an amplifier, by a path of that channel, of another channel of the same module or of the
// module's folder; an end of the path ("AI 1") is enough where it is unique. Raises UnknownName, and std::runtime_error
// for a module without an amplifier.
ChannelEntry amplifierChannel(const HostTree& tree, const std::string& path);

int showAmplifier(Session& session, Output& output, bool json, const std::string& path);
// Sets NAME VALUE pairs, lets the amplifier take them, and shows what it took. 1 when it didn't take all.
int setAmplifier(Session& session, Output& output, bool json, const std::string& path,
                 const std::vector<std::string>& settings);
// Runs an acquisition of this module's channels for as long as it takes. With `reset` only forgets the offset.
int balanceAmplifier(Session& session, Output& output, bool json, const std::string& path, bool reset);
int readAmplifierTeds(Session& session, Output& output, bool json, const std::string& path, bool custom);
int showSensorStatus(Session& session, Output& output, bool json, const std::string& path);
// Needs no module. 1 when a file has a mistake.
int checkAmplifiers(Output& output, bool json, const std::string& directory);

// The commands `amplifier` and `check-amplifiers` of the command line.
class AmplifierCommandLine {
public:
    explicit AmplifierCommandLine(CLI::App& app);

    bool checks() const;  // `check-amplifiers`
    bool parsed() const;  // `amplifier`
    int runCheck(Output& output, bool json) const;
    int run(Session& session, Output& output, bool json) const;

private:
    std::string path_;
    std::vector<std::string> settings_;
    std::string directory_;
    bool custom_ = false;
    bool reset_ = false;
    CLI::App* amplifier_;
    CLI::App* set_;
    CLI::App* balance_;
    CLI::App* teds_;
    CLI::App* status_;
    CLI::App* check_;
};

}  // namespace zornhost
