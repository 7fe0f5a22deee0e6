#include "tools/zornhost/DoctorCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "tools/zornhost/Doctor.h"
#include "tools/zornhost/InstrumentSocket.h"

namespace zornhost {

using Json = nlohmann::ordered_json;

namespace {

constexpr size_t lineWidth = 80;
constexpr size_t stateWidth = 6;
constexpr size_t nameWidth = 19;
constexpr const char* nothingKept = "/dev/null";

// The words in lines of the width that is left behind `indent`; a word that is longer has a line of its own.
std::string wrapped(const std::string& text, size_t indent) {
    std::string result;
    size_t column = 0;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (column > 0 && indent + column + 1 + word.size() > lineWidth) {
            result += "\n" + std::string(indent, ' ');
            column = 0;
        }
        result += (column > 0 ? " " : "") + word;
        column += word.size() + (column > 0 ? 1 : 0);
    }
    return result;
}

std::string describe(const std::vector<Finding>& findings) {
    std::string text;
    for (const auto& finding : findings) {
        text += fmt::format("{:<{}}{:<{}}{}\n", nameOf(finding.state), stateWidth, finding.check, nameWidth,
                            wrapped(finding.found, stateWidth + nameWidth));
        for (const auto& line : finding.fix) {
            text += std::string(stateWidth, ' ') + line + "\n";
        }
    }
    return text;
}

std::string verdict(const std::vector<Finding>& findings) {
    const auto count = [&findings](CheckState state) {
        return std::count_if(findings.begin(), findings.end(),
                             [state](const Finding& finding) { return finding.state == state; });
    };
    const auto failures = count(CheckState::Fail);
    const auto warnings = count(CheckState::Warn);
    return fmt::format("{} checks: {} FAIL, {} WARN. {}", findings.size(), failures, warnings,
                       failures > 0   ? "A measurement will not run as it is meant."
                       : warnings > 0 ? "A measurement can run."
                                      : "Ready for a measurement.");
}

std::string absolute(const std::string& path) {
    std::error_code failed;
    const auto whole = std::filesystem::absolute(path, failed);
    std::string text = failed ? path : whole.lexically_normal().string();
    if (text.size() > 1 && text.back() == '/') {
        text.pop_back();
    }
    return text;
}

std::string folderOf(const std::string& file) {
    return std::filesystem::path(file).parent_path().string();
}

}  // namespace

DoctorCommandLine::DoctorCommandLine(CLI::App& app) {
    command_ = app.add_subcommand(
        "doctor",
        "What a measurement needs, looked at before there is one: instrument, module, devices and rights, drivers, "
        "scripts, definitions, CAN, disk, clock, limits, CPU. Each line is OK, WARN or FAIL, with the commands that "
        "mend "
        "it. Exit code 1 when something is FAIL; WARN alone keeps it 0. Changes nothing, and leaves an instrument "
        "alone "
        "that another process holds");
    output_ = command_->add_option("-o,--output", file_,
                                   "File that a recording is to go to: the disk of its folder is looked at. /dev/null: "
                                   "none");
    folderOption_ =
        command_
            ->add_option("--folder", folder_, "Folder that recordings are to go to (default: the working directory)")
            ->excludes(output_);
    need_ = command_
                ->add_option("--need", needMegabytes_,
                             "MB/s (1e6 bytes) that the disk has to take (default: 300, all channels of eight modules "
                             "at the fastest rate, and a slower disk is only WARN)")
                ->check(CLI::Range(0.001, 1e6));
}

int DoctorCommandLine::run(const SessionOptions& session, const std::string& lockFile, Output& output) const {
    DoctorQuestions questions;
    questions.module = absolute(session.module.empty() ? defaultModule() : session.module);
    questions.definitions = session.amplifiers.empty() ? defaultAmplifiers() : session.amplifiers;
    if (!questions.definitions.empty()) {
        questions.definitions = absolute(questions.definitions);
    }
    questions.lockFile = lockFile;
    questions.simulated = runsOnSimulation();
    questions.socketFolder = folderOf(InstrumentSocket::defaultFile());
    std::error_code none;
    questions.temporaryFolder = std::filesystem::temp_directory_path(none).string();
    if (output_->count() == 0) {
        questions.recordings = absolute(folderOption_->count() > 0 ? folder_ : ".");
    } else if (file_ != nothingKept) {
        questions.recordings = folderOf(absolute(file_));
    }
    questions.bytesPerSecondNamed = need_->count() > 0;
    questions.bytesPerSecond = questions.bytesPerSecondNamed ? 1e6 * needMegabytes_ : fastestBytesPerSecond;
    questions.program = programFolder() + "/zornhost";

    const auto findings = examine(Machine(), questions);
    if (session.json) {
        Json list = Json::array();
        for (const auto& finding : findings) {
            list.push_back(Json{{"check", finding.check},
                                {"state", nameOf(finding.state)},
                                {"found", finding.found},
                                {"fix", finding.fix}});
        }
        output.line(list.dump(2, ' ', false, Json::error_handler_t::replace));
    } else {
        output.data(describe(findings));
        output.line(verdict(findings));
    }
    const bool failed = std::any_of(findings.begin(), findings.end(),
                                    [](const Finding& finding) { return finding.state == CheckState::Fail; });
    return failed ? 1 : 0;
}

}  // namespace zornhost
