#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/controller/DaqController.h"
#include "modules/daq/objectmodel/SystemDevice.h"
#include "tests/bridge/Bench.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

struct RateTest : testing::Test, protected Bench {
    RateTest() : device(std::make_shared<TestDevice>()) {
        build({device});
        deviceFolder = folder("Bench 8");
    }

    void chooseClock(int index) { deviceFolder.setPropertyValue("BaseClock", index); }
    void loadSetup(bool on) { data.setPropertyValue("isUpdatingFromConfiguration", on); }
    // System, device and "Raw 1" in Hz, and the place of the clock: as the host shows them, and as they are in force.
    using Rates = std::vector<int>;
    Rates shown() const {
        return {rateOf(dataModule), rateOf(deviceFolder), rateOf(channel("Raw 1")),
                deviceFolder.getPropertyValue<int>("BaseClock")};
    }
    Rates inForce() const {
        return {controller->sampleRate, device->getRate(), device->ai->channels[0]->getRate(),
                device->ai->baseClock == device->ai->baseClocks[0] ? 0 : 1};
    }
    void expectRates(const Rates& expected) const {
        EXPECT_EQ(shown(), expected);
        EXPECT_EQ(inForce(), expected);
    }

    std::shared_ptr<TestDevice> device;
    ChannelFolderPtr deviceFolder;
};

Texts adjusted(const std::string& what, int64_t wanted, int became) {
    return {what + " was set to " + std::to_string(wanted) + ", adjusted to " + std::to_string(became)};
}

TEST_F(RateTest, SystemRate) {
    const std::pair<int64_t, int> rows[] = {{5000, 5000},         {48000, 46875}, {2100000, 1875000},
                                            {20000000, 15000000}, {7, 10},        {-3, 10}};
    for (const auto& [wanted, expected] : rows) {
        SCOPED_TRACE(wanted);
        setRate(dataModule, wanted);
        expectRates({expected, expected, expected, 0});
        EXPECT_EQ(log.take(), wanted == expected ? Texts() : adjusted("Sample rate", wanted, expected));
    }
    EXPECT_EQ(rateOf(channel("Async in")), 8);
    // Beyond the width of a rate: the fastest.
    setRate(dataModule, int64_t{5} << 32);
    expectRates({15000000, 15000000, 15000000, 0});
    log.entries.clear();
    // A clear has no value to set: what the property then shows counts.
    dataModule.clearProperty("SampleRate");
    expectRates({1000, 1000, 1000, 0});
    EXPECT_TRUE(log.take().empty());
}

// No device is faster than the system, and without a divider it stays where it is.
TEST_F(RateTest, DeviceRate) {
    const std::tuple<int, int, int> rows[] = {{1000, 500, 500}, {1000, 300, 250}, {1000, 5000, 1000}, {25, 11, 25}};
    for (const auto& [system, wanted, expected] : rows) {
        SCOPED_TRACE(wanted);
        if (controller->sampleRate != system) {
            setRate(dataModule, system);
        }
        setRate(deviceFolder, wanted);
        expectRates({system, expected, expected, 0});
        EXPECT_EQ(log.take(), wanted == expected ? Texts() : adjusted("Daq Device Sample rate", wanted, expected));
    }
}

TEST_F(RateTest, ChannelRate) {
    const auto raw = channel("Raw 1");
    setRate(raw, 500);
    EXPECT_EQ(device->ai->channels[0]->getRate(), 500);
    EXPECT_EQ(device->ai->channels[1]->getRate(), 1000);
    EXPECT_TRUE(log.entries.empty());
    setRate(raw, 300);
    EXPECT_EQ(rateOf(raw), 250);
    EXPECT_EQ(device->ai->channels[0]->srDiv, 4);
    EXPECT_EQ(log.take(), adjusted("Channel rate", 300, 250));

    setRate(channel("Async in"), 33);
    EXPECT_EQ(device->async->input->asyncRate, 33);
    // Other properties of a channel have nothing to do with it.
    device->ai->onCheck = [] { throw std::runtime_error("not asked for"); };
    raw.setName("Renamed");
    raw.setPropertyValue("MaxSampleRate", Ratio{7, 1});
    EXPECT_EQ(rateOf(raw), 250);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(RateTest, NothingChangesWhileAcquisitionRuns) {
    reserve({});
    structure->beforeStart();
    controller->startAcquisition();
    log.entries.clear();
    setRate(dataModule, 48000);
    setRate(deviceFolder, 300);
    setRate(channel("Raw 1"), 300);
    chooseClock(1);
    EXPECT_EQ(shown(), (Rates{48000, 300, 300, 1}));
    EXPECT_EQ(inForce(), (Rates{1000, 1000, 1000, 0}));
    EXPECT_TRUE(log.entries.empty());
}

// The host never sees a failure inside: it is logged, the property keeps its value, and the next change works.
TEST_F(RateTest, ExceptionsInHandlersAreLogged) {
    device->ai->onCheck = [] { throw std::runtime_error("rate check failed"); };
    setRate(dataModule, 5000);
    setRate(deviceFolder, 500);
    setRate(channel("Raw 1"), 500);
    chooseClock(1);
    Texts expected;
    for (const char* name : {"SampleRate", "DaqDeviceSampleRate", "ChannelSampleRate", "DaqDeviceBaseClock"}) {
        expected.push_back("Error executing DaqStructure::on" + std::string(name) + "Changed: rate check failed");
    }
    EXPECT_EQ(log.take(), expected);
    EXPECT_EQ(rateOf(dataModule), 5000);
    EXPECT_EQ(controller->sampleRate, 1000);

    device->ai->onCheck = [] {};
    setRate(dataModule, 2000);
    expectRates({2000, 2000, 2000, 1});
}

TEST_F(RateTest, ChoosingAClock) {
    setRate(dataModule, 5000);
    // Neither the clock in force nor one that doesn't exist changes anything; the property shows the one in force.
    for (const int index : {1, 1, 2, -1}) {
        chooseClock(index);
        expectRates({5000, 5000, 5000, 1});  // suits both clocks
        EXPECT_EQ(rateOf(channel("Raw 1"), "MaxSampleRate"), 10000000);
        EXPECT_EQ(rateOf(deviceFolder, "MaxSampleRate"), 10000000);
        EXPECT_EQ(rateOf(dataModule, "MaxSampleRate"), 10000000);
    }
    EXPECT_TRUE(log.take().empty());
    // A rate that the new clock can't do would fail the next start; it moves, and all that was derived from it.
    setRate(dataModule, 10000000);
    chooseClock(0);
    expectRates({7500000, 7500000, 7500000, 0});
    EXPECT_EQ(log.take(), adjusted("Sample rate", 10000000, 7500000));
}

// Own rates of devices and channels survive a clock that can do them, also those that don't divide.
TEST_F(RateTest, OwnRatesSurviveAClockChange) {
    setRate(deviceFolder, 500);
    setRate(channel("Raw 1"), 250);
    setRate(channel("Filtered 1"), 80);
    ASSERT_EQ(rateOf(channel("Filtered 1")), 71);  // 500 / 7
    log.entries.clear();
    chooseClock(1);
    expectRates({1000, 500, 250, 1});
    EXPECT_EQ(rateOf(channel("Filtered 1")), 71);
    EXPECT_TRUE(log.take().empty());
}

// The system's rate suits the new clock, a channel's or device's own one doesn't.
TEST_F(RateTest, OwnRatesThatTheNewClockCannotDo) {
    device->ai->filteredMaxAt10MHz = 100;
    chooseClock(1);
    EXPECT_EQ(rateOf(channel("Filtered 1"), "MaxSampleRate"), 100);
    EXPECT_EQ(rateOf(channel("Filtered 1")), 100);
    EXPECT_EQ(device->ai->channels[1]->getRate(), 100);
    expectRates({1000, 1000, 1000, 1});
    EXPECT_EQ(log.take(), adjusted("Channel rate", 1000, 100));

    setRate(deviceFolder, 500);
    device->ai->impossibleRate = 500;
    chooseClock(0);
    expectRates({1000, 250, 250, 0});
    EXPECT_EQ(log.take(), adjusted("Daq Device Sample rate", 500, 250));
}

// A user's edit never moves a clock, the load of a setup does.
TEST_F(RateTest, OnlyASetupMovesTheClock) {
    chooseClock(1);
    setRate(dataModule, 46875);
    expectRates({40000, 40000, 40000, 1});
    log.entries.clear();

    loadSetup(true);
    setRate(dataModule, 46875);
    expectRates({46875, 46875, 46875, 0});
    EXPECT_EQ(log.take(warning), Texts{"Device base clock will be changed to 15000000, based on SR: 46875"});

    // A device's rate does it too: the system's has to follow, and no device is faster than the system.
    setRate(dataModule, 3000);
    setRate(deviceFolder, 200000);  // suits 15 MHz as well
    EXPECT_EQ(inForce().back(), 0);
    setRate(deviceFolder, 2000000);
    expectRates({2500, 2500, 2500, 1});

    // A data module that hangs nowhere has nobody who loads a setup.
    const DataModulePtr alone(made<IDataModule>(createDataModule, StringPtr("Alone").get()));
    structure->buildDataModuleProps(alone);
    setRate(alone, 46875);
    EXPECT_EQ(rateOf(alone), 40000);
    EXPECT_EQ(inForce().back(), 1);
}

// As a host stores a setup and loads it again.
std::string textOfSetup(const ObjectPtr<IPropertyObject>& object) {
    const auto serializer = made<ISerializer>(createJsonSerializer);
    checkErrorInfo(object->serialize(serializer.get()));
    return StringPtr(made<IString>([&](IString** text) { return serializer->getOutput(text); })).toStdString();
}

void load(const ObjectPtr<IPropertyObject>& object, const std::string& text) {
    const auto parsed = made<ISerializedObject>([&](ISerializedObject** parts) {
        return made<IDeserializer>(createJsonDeserializer)->parse(StringPtr(text).get(), parts);
    });
    checkErrorInfo(object->update(1, parsed.get()));
}

// A stored setup brings clock and rates back, whatever clock is in force when it is loaded.
TEST_F(RateTest, RatesComeBackFromASetup) {
    const std::pair<Rates, int> rows[] = {{{46875, 15625, 3125, 0}, 1},
                                          {{400000, 200000, 50000, 1}, 0},
                                          {{2000000, 1000000, 1000000, 1}, 0},
                                          {{1000, 500, 100, 0}, 0}};
    for (const auto& [stored, clockAtLoad] : rows) {
        SCOPED_TRACE(stored[0]);
        chooseClock(stored[3]);
        setRate(dataModule, stored[0]);
        setRate(deviceFolder, stored[1]);
        setRate(channel("Raw 1"), stored[2]);
        const ObjectPtr<IPropertyObject> objects[] = {dataModule.get(), deviceFolder.get(), channel("Raw 1").get()};
        Texts texts;
        for (const auto& object : objects) {
            texts.push_back(textOfSetup(object));
        }
        // As after a start of the host.
        for (const auto& object : objects) {
            checkErrorInfo(object->clearProperty(StringPtr("SampleRate").get()));
        }
        chooseClock(clockAtLoad);
        setRate(dataModule, 1000);
        log.entries.clear();
        loadSetup(true);
        for (size_t i = 0; i < texts.size(); ++i) {
            load(objects[i], texts[i]);
        }
        loadSetup(false);
        expectRates(stored);
        EXPECT_TRUE(log.take().empty());
    }
}

template <class I>
void listen(const PropertyObjectPtr<I>& object, const std::function<void()>& listener) {
    auto handler = makeHandler([listener](const BasePtr&, const ObjectPtr<IEventArgs>&) { listener(); });
    checkErrorInfo(object.getOnPropertyValueChanged()->addHandler(handler.get()));
}

// The bridge's own writes, at whatever level, start nothing, and neither does what a listener of the host writes in
// answer to them.
TEST_F(RateTest, WritesWithinAHandlerAreLeftAlone) {
    const auto raw = channel("Raw 1");
    std::vector<std::pair<int, int>> seen;  // rate in the host and in the channel
    listen(raw, [&] { seen.emplace_back(rateOf(raw), device->ai->channels[0]->getRate()); });
    bool answered = false;
    listen(deviceFolder, [&] {
        if (!std::exchange(answered, true)) {
            setRate(deviceFolder, 300);
            setRate(dataModule, 48000);
            setRate(channel("Filtered 1"), 300);
            chooseClock(1);
        }
    });
    setRate(dataModule, 5100);
    EXPECT_EQ(log.take(), Texts{"Sample rate was set to 5100, adjusted to 5000"});
    EXPECT_EQ(inForce(), (Rates{5000, 5000, 5000, 0}));
    EXPECT_EQ(shown(), (Rates{48000, 300, 5000, 1}));
    EXPECT_EQ(device->ai->channels[1]->getRate(), 5000);
    EXPECT_EQ(seen.size(), 2u);  // the rate and, beside it, the exact one

    // The next change of the user works as ever. In the host the adjusted value stands before the channel takes it.
    seen.clear();
    setRate(raw, 300);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0], std::pair(294, 5000));
}

class BuildingTest : public testing::Test, protected Bench {};

// While data module and tree are being built every handler is quiet, also behind the first finished branch of it.
TEST_F(BuildingTest, KeepsTheHandlersQuiet) {
    auto first = std::make_shared<TestDevice>();
    auto second = std::make_shared<TestDevice>();
    second->model = "Second";
    scan({first, second});
    structure->buildDataModuleProps(dataModule);
    int calls = 0;
    second->onName = [&] {
        if (const auto raw = channel("Raw 1"); raw && calls++ == 0) {
            setRate(raw, 300);
            setRate(dataModule, 48000);
            setRate(folder("Bench 8"), 300);
            EXPECT_TRUE(log.take().empty());
        }
    };
    structure->buildDeviceTree(controller->systemDevice, dataModule.getRootFolder(), sync);
    second->onName = [] {};
    EXPECT_GT(calls, 0);
    EXPECT_EQ(first->ai->channels[0]->getRate(), 1000);
    EXPECT_EQ(controller->sampleRate, 1000);

    // From then on they answer, for all devices.
    setRate(dataModule, 5000);
    for (const char* name : {"Bench 8", "Second"}) {
        EXPECT_EQ(rateOf(folder(name)), 5000) << name;
    }
}

}  // namespace
