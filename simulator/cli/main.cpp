#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "simulator/cli/Reports.h"
#include "simulator/cli/Runner.h"

// Data goes to standard output, messages to standard error. Status 0: done; 1: the answer is no, or a file is wrong;
// 2: the command line is wrong; 126 and 127 as the shell has them; otherwise `run` ends as its program does.
int main(int argc, char** argv) {
    CLI::App app("Simulated instrument of the Kestrix family.", "kestrix-sim");
    app.require_subcommand(1);

    kestrixsim::RunOptions options;
    CLI::App* run = app.add_subcommand("run", "Run a program that finds the simulated instrument");
    run->add_option("--scenario", options.scenario, "Scenario file (default: the standard scenario)");
    run->add_option("--preload-first", options.preloadFirst,
                    "Library to load in front of the simulator, such as a sanitizer's run time "
                    "(also KESTRIX_SIM_PRELOAD_FIRST)");
    run->add_option("program", options.command, "The program and its arguments, after --")->required();
    run->positionals_at_end();

    CLI::App* scenario = app.add_subcommand("scenario", "Print a scenario as JSON");
    bool standard = false;
    bool counters = false;
    auto* standardFlag = scenario->add_flag("--standard", standard, "Eight modules of all kinds (the default)");
    scenario->add_flag("--counters", counters, "The same modules, every sample its own number")->excludes(standardFlag);

    CLI::App* check = app.add_subcommand("check", "Read a scenario file and say what it holds");
    std::string file;
    bool checkJson = false;
    check->add_option("file", file, "Scenario file")->required();
    check->add_flag("--json", checkJson, "Report as JSON");

    CLI::App* doors = app.add_subcommand("doors", "List what is served, and what falls through");
    bool doorsJson = false;
    doors->add_flag("--json", doorsJson, "Report as JSON");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    try {
        if (*run) {
            return kestrixsim::runProgram(options);
        }
        if (*scenario) {
            return kestrixsim::printScenario(counters);
        }
        return *check ? kestrixsim::checkScenario(file, checkJson) : kestrixsim::listDoors(doorsJson);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kestrix-sim: %s\n", error.what());
        return 1;
    }
}
