#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/endtoend/measurement/Bench.h"
#include "tools/zornhost/Commands.h"

using namespace kestrixsim;
using namespace Harvane::RT::Core;
using Json = nlohmann::json;

namespace {

// What a command writes to the standard output.
template <class Command>
std::string printed(Command&& command) {
    testing::internal::CaptureStdout();
    {
        zornhost::Output output;
        EXPECT_EQ(command(output), 0);
    }
    return testing::internal::GetCapturedStdout();
}

Json synchronizationIn(const std::string& list) {
    const Json node = Json::parse(list);
    for (const auto& property : node["properties"]) {
        if (property["name"] == "Synchronization") {
            return property;
        }
    }
    return {};
}

}  // namespace

// A run uses the option that was applied, from the beginning on. One that was chosen since waits, and whoever looks is
// told.
TEST(PendingOption, IsShownWhereTheChoiceIs) {
    Bench bench(Scenario::counters(1));
    auto& session = bench.session();
    session.open();
    const Json applied = Json::array({1, Json::array()});
    const Json chosen = Json::array({14, Json::array()});
    const std::string note = "[14, []] (from the next start on; in force: [1, []])";
    for (const bool pending : {false, true}) {
        SCOPED_TRACE(pending);
        const std::string choice = pending ? "[14, []]" : "[1, []]";
        const auto set = [&](bool json) {
            return printed(
                [&](auto& output) { return zornhost::setProperty(session, output, json, "Synchronization", choice); });
        };
        std::string said = "Synchronization: ";
        said.append(choice).append(" requested, ").append(choice).append(" set");
        said.append(pending ? note.substr(choice.size()) : "").append("\n");
        EXPECT_EQ(set(false), said);
        EXPECT_EQ(Json::parse(set(true)).value("inForce", Json()), pending ? applied : Json());

        const auto list = [&](bool json) {
            return printed([&](auto& output) { return zornhost::listProperties(session, output, json, ""); });
        };
        EXPECT_EQ(list(false).find(note) != std::string::npos, pending) << list(false);
        EXPECT_EQ(synchronizationIn(list(true)).value("inForce", Json()), pending ? applied : Json());
        EXPECT_EQ(synchronizationIn(list(true))["value"], pending ? chosen : applied);

        const auto tree = [&](bool json) {
            return printed([&](auto& output) { return zornhost::showTree(session, output, json); });
        };
        EXPECT_EQ(tree(false).find("\nSynchronization: " + note + "\n") != std::string::npos, pending) << tree(false);
        EXPECT_EQ(Json::parse(tree(true)).value("synchronization", Json()),
                  pending ? Json({{"chosen", chosen}, {"inForce", applied}}) : Json());
    }
}
