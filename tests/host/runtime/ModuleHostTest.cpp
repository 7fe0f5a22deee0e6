#include <filesystem>
#include <fstream>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <zorn/manager/manager.h>
#include <zorn/objects/serialization.h>

#include "tests/host/Made.h"
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
    const std::string copy = testing::TempDir() + "fake-" + std::to_string(getpid()) + "-" + name + ".so";
    std::filesystem::copy_file(fake(), copy, std::filesystem::copy_options::overwrite_existing);
    return copy;
}

bool isLoaded(const std::string& file) {
    void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr)
        dlclose(handle);
    return handle != nullptr;
}

class ModuleHostTest : public testing::Test {
protected:
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
        for (const auto& part : parts)
            EXPECT_NE(text.find(part), std::string::npos) << part << " in: " << text;
    }
    // Whatever has happened before, a host can open a library again.
    void expectUsable() {
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
    const Calls round = {"configure", "initialize", "capacity 2000 2000", "start (locked)", "postStart",
                         "preStop",   "stop (locked)", "finalize"};
    Calls expected = {"library initialized", "constructed", "add"};
    expected.insert(expected.end(), round.begin(), round.end());
    expected.insert(expected.end(), round.begin(), round.end());
    expected.insert(expected.end(), {"remove", "balance asked", "destroyed"});
    EXPECT_EQ(log.messages(), expected);
}

TEST_F(ModuleHostTest, RefusedLibrariesTellFileAndReason) {
    struct Case {
        std::string file;
        std::vector<std::string> texts;
    };
    const std::string text = testing::TempDir() + "no-library.so";
    std::ofstream(text) << "this is text";
    const Case cases[] = {
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
    for (const auto& c : cases) {
        const std::string error = failure([&] { host.open(c.file); });
        expectParts(error, c.texts);
        EXPECT_FALSE(host.isOpen());
        EXPECT_TRUE(c.file.empty() || !isLoaded(c.file)) << c.file;
    }
    host.open(fake());
    expectParts(failure([&] { host.open(fake()); }), {"is open"});
    EXPECT_TRUE(host.isOpen());
}

TEST_F(ModuleHostTest, FailingStepIsNamedAndCloseTidiesUp) {
    struct Case {
        const char* step;
        bool onTheWayUp;
        Calls cleanedUp;  // calls after the failing one
    };
    const Case cases[] = {
        {"add", true, {"destroyed"}},
        {"configure", true, {"remove", "balance asked", "destroyed"}},
        {"initialize", true, {"remove", "balance asked", "destroyed"}},
        {"start", true, {"preStop", "stop (locked)", "finalize", "remove", "balance asked", "destroyed"}},
        {"postStart", true, {"preStop", "stop (locked)", "finalize", "remove", "balance asked", "destroyed"}},
        {"preStop", false, {"stop (locked)", "finalize", "remove", "balance asked", "destroyed"}},
        {"stop", false, {"finalize", "remove", "balance asked", "destroyed"}},
        {"finalize", false, {"remove", "balance asked", "destroyed"}},
        {"remove", false, {"balance asked", "destroyed"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.step);
        host.open(fake());
        host.data().setPropertyValue("FailStep", c.step);
        std::string error = failure([&] { run(); });
        EXPECT_EQ(error.empty(), !c.onTheWayUp);
        if (error.empty())
            error = failure([&] { host.stop(); });
        EXPECT_FALSE(host.isRunning());
        const std::string closing = failure([&] { host.close(); });
        expectParts(error.empty() ? closing : error, {"fake-module.so", c.step, "broken on demand", "0x80000029"});
        EXPECT_FALSE(isLoaded(fake()));
        auto calls = log.messages();
        const auto failing =
            std::find_if(calls.rbegin(), calls.rend(), [&](const auto& call) { return call.starts_with(c.step); });
        EXPECT_EQ(Calls(failing.base(), calls.end()), c.cleanedUp);
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
    const auto refused = [](auto&& step) { return failure(step).find("Can't ") == 9; };
    EXPECT_TRUE(refused([&] { host.add(); }));
    host.stop();
    host.close();
    host.open(fake());
    EXPECT_TRUE(refused([&] { host.configure(); }));
    host.add();
    EXPECT_TRUE(refused([&] { host.add(); }));
    EXPECT_TRUE(refused([&] { host.initialize(); }));
    host.configure();
    EXPECT_TRUE(refused([&] { host.start(); }));
    host.initialize();
    host.initialize();  // again is allowed, as is a new configuration
    host.configure();
    EXPECT_TRUE(refused([&] { host.start(); })) << "the providers changed: initialize first";
    host.initialize();
    host.start();
    EXPECT_TRUE(refused([&] { host.start(); }));
    EXPECT_TRUE(refused([&] { host.configure(); }));
    host.stop();
    EXPECT_TRUE(refused([&] { host.start(); })) << "a new round begins with configure";
}

TEST_F(ModuleHostTest, TreeInOtherHandsKeepsTheLibrary) {
    const std::string file = copyOfFake("kept");
    host.open(file);
    run();
    auto kept = host.channels()[0];
    const std::string error = failure([&] { host.close(20); });
    std::filesystem::remove(file);
    expectParts(error, {file, "2 of its objects are left; it stays loaded"});
    EXPECT_EQ(kept.getSampleRate(), (Ratio{1000, 1}));
    kept.release();  // runs destructors of the module's code
    expectUsable();
}

TEST_F(ModuleHostTest, DestroysNothingUnderABalancingThatNeverEnds) {
    const std::string file = copyOfFake("balancing");
    host.open(file);
    host.data().setPropertyValue("BalanceAsks", 1000000);
    host.add();
    const std::string error = failure([&] { host.close(50); });
    std::filesystem::remove(file);
    expectParts(error, {"data/daq/channels/inner/0 is still being balanced"});
    EXPECT_EQ(log.messages().back(), "balance asked");
    expectUsable();
}

TEST_F(ModuleHostTest, SerializerFactoriesGoWithTheLibrary) {
    auto read = [] {
        return failure([] {
            made<IBaseObject>([](IBaseObject** object) {
                return made<IDeserializer>(createJsonDeserializer)
                    ->deserialize(StringPtr(R"({"__type": "FakeThing"})").get(), object);
            });
        });
    };
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

TEST_F(ModuleHostTest, VersionsOfTheFiveLibraries) {
    std::string all;
    for (const auto& [name, version] : ModuleHost::hostVersions())
        all += name + " " + version + "; ";
    EXPECT_EQ(all, "CoreTypes 1.1.0; CoreObjects 1.0.0; CoreStructure 1.2.0; ModuleManager 1.0.0; Scheduler 1.0.0; ");
}
