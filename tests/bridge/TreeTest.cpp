#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "modules/daq/DaqController.h"
#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/objectmodel/SystemDevice.h"
#include "tests/bridge/Bench.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

class TreeTest : public testing::Test, protected Bench {};

template <class I>
std::vector<std::string> localNames(const PropertyObjectPtr<I>& object, const std::vector<std::string>& of) {
    std::vector<std::string> names;
    for (const auto& info : object.enumProperties(PropertyOrder::Index)) {
        const std::string name = info.getName().toStdString();
        if (std::find(of.begin(), of.end(), name) != of.end()) {
            names.push_back(name);
        }
    }
    return names;
}

std::vector<std::string> namesOf(const std::vector<ChannelNodePtr<>>& nodes) {
    std::vector<std::string> names;
    for (const auto& node : nodes) {
        names.push_back(node.getName().toStdString());
    }
    return names;
}

using Names = std::vector<std::string>;

TEST_F(TreeTest, MirrorsDevicesFoldersAndChannels) {
    auto device = std::make_shared<TestDevice>();
    build({device});
    const auto root = dataModule.getRootFolder();
    EXPECT_EQ(root.getName(), StringPtr(controller->systemDevice->getDisplayName()));
    EXPECT_EQ(namesOf(root.getChildren()), Names{"Bench 8"});

    // The folder of a device carries its sub-devices.
    const auto deviceFolder = folder("Bench 8");
    EXPECT_EQ(namesOf(deviceFolder.getChildren()), (Names{device->ai->getDisplayName(), "Messages and numbers"}));
    EXPECT_NE(deviceFolder.getNodeId().toStdString().find(device->getElementId()), std::string::npos);

    const auto analog = folder(device->ai->getDisplayName());
    EXPECT_EQ(namesOf(analog.getChildren()), (Names{"Slot 1", "Others"}));
    EXPECT_EQ(namesOf(folder("Slot 1").getChildren()), (Names{"Raw 1", "Filtered 1"}));
    EXPECT_TRUE(folder("Slot 1").getPropertyValue<bool>("SharedInputs"));
    EXPECT_FALSE(folder("Others").hasProperty("SharedInputs"));
    EXPECT_FALSE(channel("Single value"));

    Names order;
    for (const auto& [ownChannel, hostChannel] : structure->getChannelsMap()) {
        EXPECT_EQ(hostChannel.getName(), StringPtr(ownChannel->name));
        order.push_back(ownChannel->name);
    }
    EXPECT_EQ(order, (Names{"Raw 1", "Filtered 1", "Byte", "Single", "Double", "Record", "Async in", "Async out",
                            "Messages"}));
    ASSERT_EQ(structure->getDevicesMap().size(), 1u);
    EXPECT_EQ(structure->getDevicesMap()[0].first, device);
    EXPECT_TRUE(structure->getDevicesMap()[0].second.equals(deviceFolder));
}

// Children of another kind exist for the module alone.
TEST_F(TreeTest, PassesOverChildrenOfOtherKinds) {
    auto device = std::make_shared<TestDevice>();
    auto secret = std::make_shared<TestAsync>();
    secret->kind = 1;
    device->push_back(secret);
    build({device});
    EXPECT_EQ(folder("Bench 8").getChildren().size(), 2u);
    EXPECT_EQ(structure->getChannelsMap().size(), 9u);
}

TEST_F(TreeTest, ChannelTypesFollowTheSamples) {
    build({std::make_shared<TestDevice>()});
    struct Row {
        const char* name;
        SampleDataType dataType;
        size_t dimension;
        int type;
        const char* id;
    };
    for (const Row& row : {Row{"Raw 1", SampleDataType::Int16, 1, 0, "0"},
                           Row{"Filtered 1", SampleDataType::Int32, 1, 0, "1"},
                           Row{"Byte", SampleDataType::Int8, 1, 0, "2"},
                           Row{"Single", SampleDataType::Float32, 1, 0, "3"},
                           Row{"Double", SampleDataType::Float64, 1, 0, "4"},
                           Row{"Record", SampleDataType::Opaque, 16, 0, "5"},
                           Row{"Async in", SampleDataType::Int32, 1, 1, "0"},
                           Row{"Messages", SampleDataType::Opaque, 16, 1, "3"}}) {
        const auto hostChannel = channel(row.name);
        ASSERT_TRUE(hostChannel) << row.name;
        EXPECT_EQ(hostChannel.getSampleDataType(), row.dataType) << row.name;
        EXPECT_EQ(hostChannel.getDimension(), row.dimension) << row.name;
        EXPECT_EQ(hostChannel.getType(), row.type) << row.name;
        EXPECT_EQ(hostChannel.getPropertyValue<std::string>("ChannelId"), row.id) << row.name;
    }
    // A numeric read without samples gives the NaN that the channel was made with.
    double value = 0.0;
    checkErrorInfo(channel("Raw 1")->getCurrentSample(&value));
    EXPECT_TRUE(std::isnan(value));
}

TEST_F(TreeTest, DeviceProperties) {
    build({std::make_shared<TestDevice>()});
    const auto device = folder("Bench 8");
    const Names names = {"SerialNumber",     "RevisionCounter", "Manufacturer",  "Model",         "DeviceManual",
                         "DeviceRevision",   "SoftwareRevision", "HardwareRevision", "DeviceHealth", "SampleRate",
                         "MinSampleRate",    "MaxSampleRate",   "CheckRate",     "IOCtl",         "BaseClock"};
    EXPECT_EQ(localNames(device, names), names);
    for (const auto& [name, value] : std::vector<std::pair<const char*, std::string>>{
             {"SerialNumber", "SN-17"}, {"RevisionCounter", "3"}, {"Manufacturer", "Maker"}, {"Model", "Bench 8"},
             {"DeviceManual", "manual.pdf"}, {"DeviceRevision", "B"}, {"SoftwareRevision", "1.2"},
             {"HardwareRevision", "4"}}) {
        // Whatever is written, a read-only property shows its fixed value.
        device.setPropertyValue(name, std::string("overwritten") == name ? "" : "77");
        EXPECT_EQ(device.getPropertyValue<std::string>(name), value) << name;
    }
    EXPECT_TRUE(device.getPropertyInfo("RevisionCounter").isHidden());
    EXPECT_FALSE(device.getPropertyInfo("SerialNumber").isHidden());

    EXPECT_EQ(device.getPropertyInfo("DeviceHealth").getValuesAsList().getCount(), 5u);
    EXPECT_EQ(device.getPropertyValue<int>("DeviceHealth"), 2);
    device.setPropertyValue("DeviceHealth", 0);
    EXPECT_EQ(device.getPropertyValue<int>("DeviceHealth"), 0);

    EXPECT_EQ(rateOf(device), 1000);
    EXPECT_EQ(rateOf(device, "MinSampleRate"), 10);
    EXPECT_EQ(rateOf(device, "MaxSampleRate"), 15000000);
    EXPECT_EQ(fromValue<int>(device.getPropertyInfo("SampleRate").getMinValue()), 10);
    EXPECT_EQ(fromValue<int>(device.getPropertyInfo("SampleRate").getMaxValue()), 15000000);
    EXPECT_EQ(device.getPropertyValue<int>("BaseClock"), 0);
    EXPECT_EQ(fromValue<int>(device.getPropertyEnum("BaseClock")), 15000000);
}

TEST_F(TreeTest, NoBaseClockWithoutSelectableClocks) {
    auto withoutAI = std::make_shared<TestDevice>();
    withoutAI->withAI = false;
    withoutAI->model = "No AI";
    auto withoutClocks = std::make_shared<TestDevice>();
    withoutClocks->withClocks = false;
    withoutClocks->model = "No clocks";
    auto plain = std::make_shared<TestDevice>();
    build({withoutAI, withoutClocks, plain});
    EXPECT_FALSE(folder("No AI").hasProperty("BaseClock"));
    EXPECT_FALSE(folder("No clocks").hasProperty("BaseClock"));
    EXPECT_TRUE(folder("Bench 8").hasProperty("BaseClock"));
    EXPECT_EQ(structure->getDevicesMap().size(), 3u);
}

TEST_F(TreeTest, ChannelProperties) {
    build({std::make_shared<TestDevice>()});
    const auto filtered = channel("Filtered 1");
    EXPECT_EQ(filtered.getUnit(), StringPtr("V"));
    EXPECT_EQ(filtered.getMinValue(), -10.0);
    EXPECT_EQ(filtered.getMaxValue(), 10.0);
    EXPECT_EQ(filtered.getPropertyValue<int>("BufferSizeIsMultipleOf"), 32);
    EXPECT_FALSE(filtered.getPropertyValue<bool>("IsControl"));
    EXPECT_TRUE(filtered.getUsed());
    EXPECT_EQ(rateOf(filtered), 1000);
    EXPECT_EQ(rateOf(filtered, "MinSampleRate"), 5);
    EXPECT_EQ(rateOf(filtered, "MaxSampleRate"), 15000000);
    EXPECT_TRUE(filtered.getPropertyValue<bool>("Enabled"));
    EXPECT_EQ(filtered.getPropertyValue<int>("PhaseDelay"), 7);
    const Names names = {"MinSampleRate", "MaxSampleRate", "CheckRate", "Enabled", "PhaseDelay"};
    EXPECT_EQ(localNames(filtered, names), names);
    filtered.setPropertyValue("MinSampleRate", Ratio{1, 1});
    EXPECT_EQ(rateOf(filtered, "MinSampleRate"), 5);

    EXPECT_FALSE(channel("Single").getUsed());
    EXPECT_FALSE(channel("Single").getPropertyValue<bool>("Enabled"));
    EXPECT_TRUE(channel("Async out").getPropertyValue<bool>("IsControl"));
    EXPECT_EQ(rateOf(channel("Async in")), 8);
}

TEST_F(TreeTest, DataModuleProperties) {
    build({std::make_shared<TestDevice>()});
    const Names names = {"SampleRate",  "MinSampleRate",          "MaxSampleRate",  "CheckSampleRate",
                         "BeforeStart", "SynchronizationOptions", "Synchronization"};
    EXPECT_EQ(localNames(dataModule, names), names);
    EXPECT_EQ(rateOf(dataModule), 1000);
    EXPECT_EQ(rateOf(dataModule, "MinSampleRate"), 10);
    EXPECT_EQ(rateOf(dataModule, "MaxSampleRate"), 15000000);
    for (const char* name : {"CycleRate", "CheckCycleRate", "CheckCycleRateBasedOnDeviceSampleRates"}) {
        EXPECT_FALSE(dataModule.hasProperty(name)) << name;
    }
}

TEST_F(TreeTest, DataModuleWithoutDevices) {
    build({});
    EXPECT_EQ(rateOf(dataModule, "MinSampleRate"), 1);
    EXPECT_EQ(rateOf(dataModule, "MaxSampleRate"), 10);
    EXPECT_TRUE(structure->getChannelsMap().empty());
    EXPECT_TRUE(dataModule.getRootFolder().getChildren().empty());
    // The rate is that of a system without hardware.
    EXPECT_EQ(rateOf(dataModule), controller->sampleRate);
}

TEST_F(TreeTest, LoopProperties) {
    auto device = std::make_shared<TestDevice>();
    device->loop = std::make_shared<TestLoop>();
    build({device});
    EXPECT_EQ(rateOf(dataModule, "CycleRate"), 50);
    EXPECT_EQ(fromValue<int>(dataModule.getPropertyInfo("CycleRate").getMinValue()), 2);
    EXPECT_EQ(fromValue<int>(dataModule.getPropertyInfo("CycleRate").getMaxValue()), 400);
    EXPECT_EQ(fromValue<Ratio>(executeFunc(functionOf(dataModule, "CheckCycleRate"), rate(1000))), (Ratio{400, 1}));
    const auto arguments = ListPtr::create({rate(1000), asBase(ListPtr::create({toValue(300), toValue(70)}))});
    EXPECT_EQ(fromValue<Ratio>(executeFunc(functionOf(dataModule, "CheckCycleRateBasedOnDeviceSampleRates"),
                                           asBase(arguments))),
              (Ratio{70, 1}));

    // Only with a clock of its own the loop follows the user's rate.
    dataModule.setPropertyValue("CycleRate", Ratio{500, 1});
    data.setPropertyValue("OperationMode", 1);
    structure->initializeLoop(data, dataModule);
    EXPECT_EQ(device->loop->cycleRate, 20);
    data.setPropertyValue("OperationMode", 2);
    structure->initializeLoop(data, dataModule);
    EXPECT_EQ(device->loop->cycleRate, 400);
}

TEST_F(TreeTest, InitializeLoopWithoutLoopReadsNothing) {
    build({std::make_shared<TestDevice>()});
    EXPECT_NO_THROW(structure->initializeLoop(DataPtr(), DataModulePtr()));
}

TEST_F(TreeTest, CheckFunctions) {
    auto device = std::make_shared<TestDevice>();
    build({device});
    const auto check = [](const ObjectPtr<IFuncObject>& function, const BasePtr& arguments) {
        return fromValue<Ratio>(executeFunc(function, arguments)).numerator;
    };
    EXPECT_EQ(check(functionOf(dataModule, "CheckSampleRate"), rate(48000)), 46875);
    EXPECT_EQ(check(functionOf(dataModule, "CheckSampleRate"), rate(1 << 30)), 15000000);
    const auto deviceCheck = functionOf(folder("Bench 8"), "CheckRate");
    EXPECT_EQ(check(deviceCheck, rates(1000, 300)), 250);
    EXPECT_EQ(check(deviceCheck, rates(12, 11)), -1);
    EXPECT_EQ(check(functionOf(channel("Filtered 1"), "CheckRate"), rates(1000, 300)), 250);
    EXPECT_EQ(check(functionOf(channel("Async in"), "CheckRate"), rates(1000, 300)), 300);
    // Nothing has changed.
    EXPECT_EQ(controller->sampleRate, 1000);
    EXPECT_EQ(device->getRate(), 1000);

    // Arguments that are none.
    IBaseObject* result = nullptr;
    EXPECT_TRUE(failed(deviceCheck->execute(rate(5).get(), &result)));
    EXPECT_TRUE(failed(deviceCheck->execute(asBase(ListPtr::create({rate(5)})).get(), &result)));
    EXPECT_TRUE(failed(deviceCheck->execute(nullptr, &result)));
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(deviceCheck->execute(rates(1, 1).get(), nullptr), Errors::ArgumentNull);
    takeText();
}

TEST_F(TreeTest, IoctlOfTheDevice) {
    build({std::make_shared<TestDevice>()});
    const auto ioctl = functionOf(folder("Bench 8"), "IOCtl");
    const auto arguments = [](int command) { return asBase(ListPtr::create({toValue(command), toValue("On")})); };
    ErrCode code = 7;
    EXPECT_EQ(fromValue<std::string>(executeFunc(ioctl, arguments(1), &code)), "On!");
    EXPECT_EQ(code, 0u);
    EXPECT_FALSE(executeFunc(ioctl, arguments(2), &code));
    EXPECT_EQ(code, 1u);
    IBaseObject* result = nullptr;
    EXPECT_EQ(ioctl->execute(arguments(99).get(), &result), Errors::GeneralError);
    EXPECT_EQ(takeText(), "no such luck");
}

// What the host's tree holds of the module must fail softly when the module is gone, and mustn't keep it alive.
TEST_F(TreeTest, FunctionsOutliveTheBridge) {
    TestDevice::destroyed = 0;
    build({std::make_shared<TestDevice>()});
    devicesToFind().clear();
    const auto hostChannel = channel("Raw 1");
    const auto deviceFolder = folder("Bench 8");
    const auto channelEvent = hostChannel.getOnPropertyValueChanged();
    size_t handlers = 0;
    checkErrorInfo(channelEvent->getHandlerCount(&handlers));
    EXPECT_EQ(handlers, 1u);

    controller.reset();
    structure.reset();
    EXPECT_EQ(TestDevice::destroyed, 1);
    checkErrorInfo(channelEvent->getHandlerCount(&handlers));
    EXPECT_EQ(handlers, 0u);

    IBaseObject* result = nullptr;
    for (const auto& function : {functionOf(hostChannel, "CheckRate"), functionOf(deviceFolder, "CheckRate"),
                                 functionOf(deviceFolder, "IOCtl"), functionOf(dataModule, "CheckSampleRate")}) {
        EXPECT_EQ(function->execute(rates(1, 1).get(), &result), Errors::InvalidState);
    }
    EXPECT_EQ(dataModule.getPropertyValue("BeforeStart").asPtr<IProcObject>()->dispatch(nullptr),
              Errors::InvalidState);
    takeText();
    // Writes meet no handler and are kept.
    dataModule.setPropertyValue("SampleRate", Ratio{48000, 1});
    deviceFolder.setPropertyValue("SampleRate", Ratio{48000, 1});
    deviceFolder.setPropertyValue("BaseClock", 5);
    hostChannel.setSampleRate(Ratio{77, 1});
    EXPECT_EQ(rateOf(dataModule), 48000);
    EXPECT_EQ(rateOf(hostChannel), 77);
    EXPECT_TRUE(log.take(4).empty());
}

// A build that fails leaves half a tree; its handlers stay quiet for good.
TEST_F(TreeTest, HandlersStayQuietAfterAFailedBuild) {
    auto device = std::make_shared<TestDevice>();
    devicesToFind().emplace_back("ID_10", device);
    controller->initialize();
    controller->scan();
    controller->initializeHardware();
    structure->buildDataModuleProps(dataModule);
    device->ai->channels[1]->buffer.reset();
    EXPECT_THROW(structure->buildDeviceTree(controller->systemDevice, dataModule.getRootFolder(), sync),
                 InvalidParameterException);
    dataModule.setPropertyValue("SampleRate", Ratio{48000, 1});
    EXPECT_EQ(rateOf(dataModule), 48000);
    EXPECT_EQ(controller->sampleRate, 1000);
}

}  // namespace
