#include <filesystem>
#include <fstream>

#include <dlfcn.h>
#include <unistd.h>

#include <zorn/manager/manager.h>

#include "tests/host/coreobjects/Objects.h"
#include "tests/host/runtime/Eventually.h"
#include "tests/host/runtime/RecordingSink.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Core::Testing;
using Calls = std::vector<std::string>;

namespace {

std::string fake(const char* variant = "") {
    return std::string(FAKE_MODULE_DIR) + "/fake-module" + variant + ".so";
}

// A library of its own, for tests that leave theirs loaded.
std::string copyOfFake(const char* name) {
    std::string copy = testing::TempDir() + "fake-" + std::to_string(getpid()) + "-" + name + ".so";
    std::filesystem::copy_file(fake(), copy, std::filesystem::copy_options::overwrite_existing);
    return copy;
}

bool isLoaded(const std::string& file) {
    void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

struct ModuleHostTest : testing::Test {
    void run() {
        host.add();
        host.configure();
        host.initialize();
        host.start();
    }
    bool ranCycles(uint64_t count) {
        return eventually([&] { return host.scheduler().statistics().cycles >= count; });
    }
    static void expectParts(const std::string& text, const std::vector<std::string>& parts) {
        for (const auto& part : parts) {
            EXPECT_NE(text.find(part), std::string::npos) << part << " in: " << text;
        }
    }
    // Closing a library of its own, which stays loaded, tells why; a host can open another after that.
    void expectStaysLoaded(const std::string& file, int waitMs, const std::vector<std::string>& parts) {
        expectParts(failure([&] { host.close(waitMs); }), parts);
        std::filesystem::remove(file);
        EXPECT_FALSE(host.isOpen());
        host.open(fake());
        host.close();
        EXPECT_FALSE(isLoaded(fake()));
    }

    RecordingSink log{"FakeModule"};
    ModuleHost host{1};
};

}  // namespace

TEST_F(ModuleHostTest, WholeLifeInOrder) {
    host.open(fake());
    EXPECT_EQ(host.driverName(), "Fake Driver");
    EXPECT_EQ(host.moduleVersion(), "3.1.4");
    EXPECT_FALSE(host.canUnload());
    EXPECT_GE(host.moduleObjectCount(), 3u) << "driver, factory, module";
    EXPECT_TRUE(host.channels().empty());
    host.add();
    ASSERT_EQ(host.channels().size(), 2u);
    EXPECT_EQ(host.channels()[0].getNodeId(), "data/daq/channels/inner/0");
    EXPECT_EQ(host.channels()[1].getNodeId(), "data/daq/channels/1");
    EXPECT_FALSE(host.clockProvider());
    for (int round = 0; round < 2; ++round) {
        host.configure();
        long ticks = 0;
        checkErrorInfo(host.clockProvider()->getCurrentClock(&ticks));
        EXPECT_EQ(ticks, 7);
        EXPECT_TRUE(host.data().getClockProvider() == host.clockProvider());
        EXPECT_FALSE(host.absTimeProvider());
        host.initialize();
        host.start();
        EXPECT_TRUE(host.isRunning());
        ASSERT_TRUE(ranCycles(3));
        host.stop();
        EXPECT_FALSE(host.isRunning());
        const auto cycles = static_cast<long>(host.scheduler().statistics().cycles);
        EXPECT_EQ(host.channels()[0].getSamplesAcquired(), cycles * 10);
        EXPECT_EQ(host.channels()[1].getSamplesAcquired(), cycles);
        EXPECT_EQ(host.scheduler().statistics().failures, 0u);
        EXPECT_EQ(host.channels()[0].getBuffer().getCapacity(), 2000u) << "readable until the next run";
    }
    host.close();
    EXPECT_TRUE(host.canUnload());
    EXPECT_FALSE(isLoaded(fake()));
    const std::string round =
        "configure, initialize, capacity 2000 2000, start (locked), postStart, preStop, "
        "stop (locked), finalize, ";
    std::string calls;
    for (const auto& message : log.messages()) {
        calls += message + ", ";
    }
    EXPECT_EQ(calls, "library initialized, constructed, add, " + round + round + "remove, balance asked, destroyed, ");
}

TEST_F(ModuleHostTest, RefusedLibrariesTellFileAndReason) {
    const std::string text = testing::TempDir() + "no-library.so";
    std::ofstream(text) << "this is text";
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {fake("-wrong-version"),
         {"fake-module-wrong-version.so", "Incompatible CoreTypes v2.0.0 (expected compatible with v1.1.0)",
          "0x80030004"}},
        {fake("-failing-init"), {"fake-module-failing-init.so", "zornInitDaqModuleLibrary", "the logger is missing"}},
        {fake("-no-check"), {"fake-module-no-check.so", "zornCheckDependencies"}},
        {fake("-no-driver"), {"fake-module-no-driver.so", "createDaqModuleDriver"}},
        {"/no/such/file.zmod", {"/no/such/file.zmod", "No such file"}},
        {"missing.zmod", {"missing.zmod", "No such file"}},
        {text, {text, "Can't load"}},
        {"", {"No module file"}},
    };
    for (const auto& [file, texts] : cases) {
        expectParts(failure([&, name = file] { host.open(name); }), texts);
        EXPECT_FALSE(host.isOpen());
        EXPECT_TRUE(file.empty() || !isLoaded(file)) << file;
    }
    host.open(fake());
    expectParts(failure([&] { host.open(fake()); }), {"is open"});
    EXPECT_TRUE(host.isOpen());
}

TEST_F(ModuleHostTest, FailingStepIsNamedAndCloseTidiesUp) {
    const Calls wayDown = {"preStop", "stop (locked)", "finalize", "remove", "balance asked", "destroyed"};
    // The step, whether it is one of the way up, and how many calls of the way down follow it.
    const std::tuple<const char*, bool, int> cases[] = {
        {"add", true, 1},   {"configure", true, 3}, {"initialize", true, 3},
        {"start", true, 6}, {"postStart", true, 6}, {"preStop", false, 5},
        {"stop", false, 4}, {"finalize", false, 3}, {"remove", false, 2},
    };
    for (const auto& [step, onTheWayUp, following] : cases) {
        SCOPED_TRACE(step);
        host.open(fake());
        host.data().setPropertyValue("FailStep", step);
        std::string error = failure([&] { run(); });
        EXPECT_EQ(error.empty(), !onTheWayUp);
        if (error.empty()) {
            error = failure([&] { host.stop(); });
        }
        EXPECT_FALSE(host.isRunning());
        const std::string closing = failure([&] { host.close(); });
        expectParts(error.empty() ? closing : error, {"fake-module.so", step, "broken on demand", "0x80000029"});
        EXPECT_FALSE(isLoaded(fake()));
        const auto calls = log.messages();
        ASSERT_GT(calls.size(), static_cast<size_t>(following));
        const auto behind = calls.end() - following;
        EXPECT_EQ(Calls(behind, calls.end()), Calls(wayDown.end() - following, wayDown.end()));
        EXPECT_TRUE((behind - 1)->starts_with(step));
    }
}

// What was set between `initialize` and `start` counts, and nothing of the run before.
TEST_F(ModuleHostTest, RingsAreThoseOfTheStart) {
    host.open(fake());
    host.add();
    const auto channels = host.channels();
    const std::tuple<int64_t, bool, const char*> rounds[] = {
        {5000, true, "capacity 10000 2000"},
        {50, false, "capacity 100 0"},  // shorter, and the other one without
        {5000, true, "capacity 10000 2000"},
    };
    for (const auto& [rate, used, told] : rounds) {
        SCOPED_TRACE(told);
        host.configure();
        host.initialize();
        channels[0].setSampleRate({rate, 1});
        channels[1].setUsed(used);
        EXPECT_EQ(channels[1].getActive(), used);
        host.start();
        ASSERT_TRUE(ranCycles(15));
        EXPECT_EQ(channels[1].getActive(), used);
        host.stop();
        const auto calls = log.messages();
        EXPECT_EQ(std::count(calls.end() - 6, calls.end(), told), 1);
        EXPECT_EQ(channels[0].getSamplesAcquired(), static_cast<long>(host.scheduler().statistics().cycles) * 10);
    }
}

TEST_F(ModuleHostTest, StartWithoutMemoryLeavesTheModuleAloneAndCanBeRepeated) {
    host.open(fake());
    host.add();
    host.configure();
    host.initialize();
    const auto channel = host.channels()[1];
    channel.setSampleRate({1000000000000000, 1});
    expectParts(failure([&] { host.start(); }), {"memory of channel data/daq/channels/1", "No memory for a ring"});
    EXPECT_EQ(log.messages().back(), "initialize");
    EXPECT_FALSE(host.isRunning());
    channel.setUsed(false);
    EXPECT_FALSE(channel.getActive());
    host.start();
    host.stop();
}

// The module's failure leaves no words, and this thread has some of an earlier one.
TEST_F(ModuleHostTest, FailingStepWithoutWordsHasThoseOfItsCode) {
    host.open(fake());
    host.data().setPropertyValue("FailStep", "initialize without words");
    host.add();
    host.configure();
    try {
        makeError(Errors::GeneralError, "the cable of yesterday");
        host.initialize();
        ADD_FAILURE();
    } catch (const ZornException& exception) {
        EXPECT_EQ(exception.message, fake() + ": initialize failed: Invalid state (0x80000029)");
    }
}

TEST_F(ModuleHostTest, FailingCycleGoesOn) {
    RecordingSink failures("Scheduler");
    host.open(fake());
    host.data().setPropertyValue("FailStep", "processData");
    run();
    ASSERT_TRUE(ranCycles(3));
    host.close();
    EXPECT_FALSE(isLoaded(fake())) << "the error's source was an object of the module";
    ASSERT_FALSE(failures.messages().empty());
    expectParts(failures.messages()[0], {"broken on demand"});
}

TEST_F(ModuleHostTest, StepsOutOfOrderAreRefused) {
    EXPECT_EQ(failure([&] { host.add(); }).find("Can't "), 9u);
    host.stop();
    host.close();
    host.open(fake());
    const std::pair<void (ModuleHost::*)(), bool> steps[] = {
        {&ModuleHost::configure, false},
        {&ModuleHost::add, true},
        {&ModuleHost::add, false},
        {&ModuleHost::initialize, false},
        {&ModuleHost::configure, true},
        {&ModuleHost::start, false},
        {&ModuleHost::initialize, true},
        {&ModuleHost::initialize, true},  // again is allowed, as is a new configuration
        {&ModuleHost::configure, true},
        {&ModuleHost::start, false},  // the providers changed: initialize first
        {&ModuleHost::initialize, true},
        {&ModuleHost::start, true},
        {&ModuleHost::start, false},
        {&ModuleHost::configure, false},
        {&ModuleHost::stop, true},
        {&ModuleHost::start, false},  // a new round begins with configure
    };
    int place = 0;
    for (const auto& [step, allowed] : steps) {
        const std::string error = failure([&, call = step] { (host.*call)(); });
        EXPECT_EQ(error.substr(0, 15), allowed ? "" : "80000029 Can't ") << "step " << place << " " << error;
        ++place;
    }
}

TEST_F(ModuleHostTest, TreeInOtherHandsKeepsTheLibrary) {
    const std::string file = copyOfFake("kept");
    host.open(file);
    run();
    auto kept = host.channels()[0];
    expectStaysLoaded(file, 20, {file, "2 of its objects are left; it stays loaded"});
    EXPECT_EQ(kept.getSampleRate(), (Ratio{1000, 1}));
    kept.release();  // runs destructors of the module's code
}

TEST_F(ModuleHostTest, DestroysNothingUnderABalancingThatNeverEnds) {
    const std::string file = copyOfFake("balancing");
    host.open(file);
    host.data().setPropertyValue("BalanceAsks", 1000000);
    host.add();
    expectStaysLoaded(file, 50, {"data/daq/channels/inner/0 is still being balanced"});
    const auto calls = log.messages();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "destroyed"), 1) << "the second library's module only";
}

TEST_F(ModuleHostTest, SerializerFactoriesGoWithTheLibrary) {
    auto read = [] { return failure([] { deserialized(R"({"__type": "FakeThing"})"); }); };
    host.open(fake());
    EXPECT_EQ(read(), "");
    host.close();
    EXPECT_FALSE(isLoaded(fake()));
    EXPECT_EQ(read(), "80000021 /: unknown type \"FakeThing\"") << "no call into code that is gone";
}

TEST_F(ModuleHostTest, MakesTheLoggerOfTheHardwareLayers) {
    EXPECT_TRUE(made<ILogger>([](ILogger** logger) { return zornGetLogger("kestrix", logger); }));
    EXPECT_THROW(ModuleHost(0), InvalidParameterException);
}
