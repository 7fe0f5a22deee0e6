#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <zorn/manager/manager.h>
#include <zorn/objects/serialization.h>

#include "tests/host/runtime/RecordingSink.h"

using namespace Harvane::RT::Core;
using namespace std::chrono_literals;
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

template <class Body>
std::string failureOf(Body&& body) {
    try {
        body();
    } catch (const std::exception& exception) {
        return exception.what();
    }
    return {};
}

void waitForCycles(ModuleHost& host, uint64_t count) {
    const auto until = std::chrono::steady_clock::now() + 10s;
    while (host.scheduler().statistics().cycles < count && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(1ms);
    ASSERT_GE(host.scheduler().statistics().cycles, count);
}

void runTo(ModuleHost& host, const std::string& last) {
    for (const auto& [name, step] : std::initializer_list<std::pair<std::string, void (ModuleHost::*)()>>{
             {"add", &ModuleHost::add},
             {"configure", &ModuleHost::configure},
             {"initialize", &ModuleHost::initialize},
             {"start", &ModuleHost::start}}) {
        (host.*step)();
        if (name == last)
            return;
    }
}

}  // namespace

TEST(ModuleHost, WholeLifeInOrder) {
    RecordingSink log("FakeModule");
    ModuleHost host(1);
    EXPECT_TRUE(host.canUnload());
    host.open(fake());
    EXPECT_TRUE(host.isOpen());
    EXPECT_EQ(host.driverName(), "Fake Driver");
    EXPECT_EQ(host.moduleVersion(), "3.1.4");
    EXPECT_FALSE(host.canUnload());
    EXPECT_GE(host.moduleObjectCount(), 3u) << "driver, factory, module";
    EXPECT_TRUE(host.channels().empty());
    EXPECT_TRUE(isLoaded(fake()));

    host.add();
    {
        const auto channels = host.channels();
        ASSERT_EQ(channels.size(), 2u);
        EXPECT_EQ(channels[0].getNodeId(), "data/daq/channels/inner/0");
        EXPECT_EQ(channels[1].getNodeId(), "data/daq/channels/1");
    }
    EXPECT_FALSE(host.clockProvider());
    for (int round = 0; round < 2; ++round) {
        host.configure();
        long ticks = 0;
        checkErrorInfo(host.clockProvider()->getCurrentClock(&ticks));
        EXPECT_EQ(ticks, 7);
        EXPECT_TRUE(host.data().getClockProvider() == host.clockProvider());
        EXPECT_TRUE(host.absTimeProvider());
        host.initialize();
        EXPECT_EQ(host.channels()[0].getSamplesAcquired(), 0);
        host.start();
        EXPECT_TRUE(host.isRunning());
        waitForCycles(host, 3);
        host.stop();
        EXPECT_FALSE(host.isRunning());
        const auto cycles = static_cast<long>(host.scheduler().statistics().cycles);
        EXPECT_EQ(host.channels()[0].getSamplesAcquired(), cycles * 10);
        EXPECT_EQ(host.channels()[1].getSamplesAcquired(), cycles);
        EXPECT_EQ(host.scheduler().statistics().failures, 0u);
        EXPECT_EQ(host.channels()[0].getBuffer().getCapacity(), 2000u) << "readable until the next run";
    }
    host.close();
    EXPECT_FALSE(host.isOpen());
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

TEST(ModuleHost, CanOpenAgainAndTidiesUpByItself) {
    for (int time = 0; time < 2; ++time) {
        RecordingSink log("FakeModule");
        {
            ModuleHost host(1);
            host.open(fake());
            runTo(host, "start");
            host.close();  // stops
            host.open(fake());
            runTo(host, "start");
            waitForCycles(host, 1);
        }  // the destructor stops and closes
        EXPECT_EQ(log.messages().back(), "destroyed");
        EXPECT_FALSE(isLoaded(fake()));
    }
}

TEST(ModuleHost, RefusedLibrariesTellFileAndReason) {
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
    ModuleHost host(1);
    for (const auto& c : cases) {
        const std::string failure = failureOf([&] { host.open(c.file); });
        for (const auto& part : c.texts)
            EXPECT_NE(failure.find(part), std::string::npos) << part << " in: " << failure;
        EXPECT_FALSE(host.isOpen());
        EXPECT_TRUE(c.file.empty() || !isLoaded(c.file)) << c.file;
    }
    host.open(fake());
    EXPECT_NE(failureOf([&] { host.open(fake()); }).find("is open"), std::string::npos);
    EXPECT_TRUE(host.isOpen());
    host.close();
}

TEST(ModuleHost, FailingStepIsNamedAndCloseTidiesUp) {
    struct Case {
        const char* step;
        bool brings;     // the step is reached by starting
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
    ModuleHost host(1);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.step);
        RecordingSink log("FakeModule");
        host.open(fake());
        host.data().setPropertyValue("FailStep", c.step);
        std::string failure = failureOf([&] { runTo(host, "start"); });
        if (!c.brings) {
            EXPECT_EQ(failure, "");
            failure = failureOf([&] { host.stop(); });
        }
        EXPECT_FALSE(host.isRunning());
        const std::string closing = failureOf([&] { host.close(); });
        if (failure.empty())
            failure = closing;
        for (const std::string part : {"fake-module.so", c.step, "broken on demand", "0x80000029"})
            EXPECT_NE(failure.find(part), std::string::npos) << part << " in: " << failure;
        EXPECT_FALSE(isLoaded(fake()));
        auto calls = log.messages();
        const auto at =
            std::find_if(calls.begin(), calls.end(), [&](const auto& call) { return call.starts_with(c.step); });
        ASSERT_NE(at, calls.end());
        EXPECT_EQ(Calls(at + 1, calls.end()), c.cleanedUp);
    }
}

TEST(ModuleHost, FailingCycleGoesOn) {
    RecordingSink log("Scheduler");
    ModuleHost host(1);
    host.open(fake());
    host.data().setPropertyValue("FailStep", "processData");
    runTo(host, "start");
    waitForCycles(host, 3);
    host.stop();
    EXPECT_EQ(host.scheduler().statistics().failures, host.scheduler().statistics().cycles);
    host.close();
    EXPECT_FALSE(isLoaded(fake())) << "the error's source was an object of the module";
    ASSERT_FALSE(log.messages().empty());
    EXPECT_NE(log.messages()[0].find("broken on demand"), std::string::npos);
}

TEST(ModuleHost, StepsOutOfOrderAreRefused) {
    ModuleHost host(1);
    const auto refused = [](auto&& step) { return failureOf(step).find("Can't ") == 0; };
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
    host.close();
}

TEST(ModuleHost, LeakKeepsTheLibraryAndSaysSo) {
    ModuleHost host(1);
    host.open(fake("-leak"));
    runTo(host, "start");
    const std::string failure = failureOf([&] { host.close(20); });
    EXPECT_NE(failure.find("fake-module-leak.so"), std::string::npos) << failure;
    EXPECT_NE(failure.find("1 of its objects"), std::string::npos) << failure;
    EXPECT_FALSE(host.isOpen());
    EXPECT_TRUE(isLoaded(fake("-leak")));
    host.open(fake());
    host.close();
}

TEST(ModuleHost, TreeInOtherHandsKeepsTheLibrary) {
    const std::string file = copyOfFake("kept");
    ModuleHost host(1);
    host.open(file);
    runTo(host, "start");
    auto kept = host.channels()[0];
    const std::string failure = failureOf([&] { host.close(20); });
    std::filesystem::remove(file);
    EXPECT_NE(failure.find("2 of its objects are left; it stays loaded"), std::string::npos) << failure;
    EXPECT_FALSE(host.isOpen());
    EXPECT_EQ(kept.getSampleRate(), (Ratio{1000, 1}));
    kept.release();  // runs destructors of the module's code
    host.open(fake());
    host.close();
}

TEST(ModuleHost, WaitsForBalancingBeforeTheModuleGoes) {
    RecordingSink log("FakeModule");
    ModuleHost host(1);
    host.open(fake());
    host.data().setPropertyValue("BalanceAsks", 2);
    host.add();
    host.close();
    const auto calls = log.messages();
    EXPECT_EQ(Calls(calls.end() - 5, calls.end()),
              (Calls{"remove", "balance asked", "balance asked", "balance asked", "destroyed"}));
}

TEST(ModuleHost, DestroysNothingUnderABalancingThatNeverEnds) {
    const std::string file = copyOfFake("balancing");
    RecordingSink log("FakeModule");
    ModuleHost host(1);
    host.open(file);
    host.data().setPropertyValue("BalanceAsks", 1000000);
    host.add();
    const std::string failure = failureOf([&] { host.close(50); });
    std::filesystem::remove(file);
    EXPECT_NE(failure.find("data/daq/channels/inner/0 is still being balanced"), std::string::npos) << failure;
    EXPECT_FALSE(host.isOpen());
    EXPECT_EQ(log.messages().back(), "balance asked");
    host.open(fake());
    host.close();
}

TEST(ModuleHost, SerializerFactoriesGoWithTheLibrary) {
    IDeserializer* raw = nullptr;
    checkErrorInfo(createJsonDeserializer(&raw));
    const auto deserializer = ObjectPtr<IDeserializer>::take(raw);
    auto read = [&]() -> ErrCode {
        IBaseObject* object = nullptr;
        const ErrCode code = deserializer->deserialize(StringPtr(R"({"__type": "FakeThing"})").get(), &object);
        BasePtr::take(object);
        zornClearErrorInfo();
        return code;
    };
    ModuleHost host(1);
    host.open(fake());
    EXPECT_EQ(read(), Errors::Success);
    host.close();
    EXPECT_FALSE(isLoaded(fake()));
    EXPECT_EQ(read(), Errors::Deserialize) << "no call into code that is gone";
}

TEST(ModuleHost, MakesTheLoggerOfTheHardwareLayers) {
    ModuleHost host(1);
    ILogger* raw = nullptr;
    ASSERT_EQ(zornGetLogger("kestrix", &raw), Errors::Success);
    const auto logger = ObjectPtr<ILogger>::take(raw);
    EXPECT_THROW(ModuleHost(0), InvalidParameterException);
}

TEST(ModuleHost, VersionsOfTheFiveLibraries) {
    std::string all;
    for (const auto& [name, version] : ModuleHost::hostVersions())
        all += name + " " + version + "; ";
    EXPECT_EQ(all, "CoreTypes 1.1.0; CoreObjects 1.0.0; CoreStructure 1.2.0; ModuleManager 1.0.0; Scheduler 1.0.0; ");
}
