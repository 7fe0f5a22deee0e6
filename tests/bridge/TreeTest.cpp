#include <cmath>

#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/controller/DaqController.h"
#include "modules/daq/objectmodel/SystemDevice.h"
#include "tests/bridge/Bench.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

class TreeTest : public testing::Test, protected Bench {};

// The object has these properties, in this order.
template <class I>
void expectOrder(const PropertyObjectPtr<I>& object, const Texts& expected) {
    Texts names;
    for (const auto& info : object.enumProperties(PropertyOrder::Index)) {
        const std::string name = info.getName().toStdString();
        if (std::find(expected.begin(), expected.end(), name) != expected.end()) {
            names.push_back(name);
        }
    }
    EXPECT_EQ(names, expected);
}

Texts namesOf(const std::vector<ChannelNodePtr<>>& nodes) {
    Texts names;
    for (const auto& node : nodes) {
        names.push_back(node.getName().toStdString());
    }
    return names;
}

TEST_F(TreeTest, MirrorsDevicesFoldersAndChannels) {
    auto device = std::make_shared<TestDevice>();
    auto secret = std::make_shared<TestAsync>();  // a child of another kind exists for the module alone
    secret->kind = 1;
    device->push_back(secret);
    build({device});
    const auto root = dataModule.getRootFolder();
    EXPECT_EQ(root.getName(), StringPtr(controller->systemDevice->getDisplayName()));
    EXPECT_EQ(namesOf(root.getChildren()), Texts{"Bench 8"});
    // The folder of a device carries its sub-devices.
    const auto deviceFolder = folder("Bench 8");
    const std::string analog = device->ai->getDisplayName();
    EXPECT_EQ(namesOf(deviceFolder.getChildren()), (Texts{analog, "Messages and numbers"}));
    EXPECT_NE(deviceFolder.getNodeId().toStdString().find(device->getElementId()), std::string::npos);
    EXPECT_EQ(namesOf(folder(analog).getChildren()), (Texts{"Slot 1", "Others"}));
    EXPECT_EQ(namesOf(folder("Slot 1").getChildren()), (Texts{"Raw 1", "Filtered 1"}));
    EXPECT_TRUE(folder("Slot 1").getPropertyValue<bool>("SharedInputs"));
    EXPECT_FALSE(folder("Others").hasProperty("SharedInputs"));

    Texts order;
    for (const auto& [ownChannel, hostChannel] : structure->getChannelsMap()) {
        EXPECT_EQ(hostChannel.getName(), StringPtr(ownChannel->name));
        order.push_back(ownChannel->name);
    }
    EXPECT_EQ(order, (Texts{"Raw 1", "Filtered 1", "Byte", "Single", "Double", "Record", "Async in", "Async out",
                            "Messages"}));
    ASSERT_EQ(structure->getDevicesMap().size(), 1u);
    EXPECT_EQ(structure->getDevicesMap()[0].first, device);
    EXPECT_TRUE(structure->getDevicesMap()[0].second.equals(deviceFolder));
}

TEST_F(TreeTest, ChannelTypesFollowTheSamples) {
    build({std::make_shared<TestDevice>()});
    const std::tuple<const char*, SampleDataType, size_t, int, const char*> rows[] = {
        {"Raw 1", SampleDataType::Int16, 1, 0, "0"},    {"Filtered 1", SampleDataType::Int32, 1, 0, "1"},
        {"Byte", SampleDataType::Int8, 1, 0, "2"},      {"Single", SampleDataType::Float32, 1, 0, "3"},
        {"Double", SampleDataType::Float64, 1, 0, "4"}, {"Record", SampleDataType::Opaque, 16, 0, "5"},
        {"Async in", SampleDataType::Int32, 1, 1, "0"}, {"Messages", SampleDataType::Opaque, 16, 1, "3"}};
    for (const auto& [name, dataType, dimension, type, id] : rows) {
        const auto hostChannel = channel(name);
        EXPECT_EQ(hostChannel.getSampleDataType(), dataType) << name;
        EXPECT_EQ(hostChannel.getDimension(), dimension) << name;
        EXPECT_EQ(hostChannel.getType(), type) << name;
        EXPECT_EQ(hostChannel.getPropertyValue<std::string>("ChannelId"), id) << name;
    }
    // A numeric read without samples gives the NaN that the channel was made with.
    EXPECT_TRUE(std::isnan(ask(channel("Raw 1").get(), &IChannel::getCurrentSample)));
}

TEST_F(TreeTest, DeviceProperties) {
    build({std::make_shared<TestDevice>()});
    const auto device = folder("Bench 8");
    expectOrder(device, {"SerialNumber", "RevisionCounter", "Manufacturer", "Model", "DeviceManual", "DeviceRevision",
                         "SoftwareRevision", "HardwareRevision", "DeviceHealth", "SampleRate", "MinSampleRate",
                         "MaxSampleRate", "CheckRate", "IOCtl", "BaseClock"});
    for (const auto& [name, value] : std::vector<std::pair<const char*, std::string>>{{"SerialNumber", "SN-17"},
                                                                                      {"RevisionCounter", "3"},
                                                                                      {"Manufacturer", "Maker"},
                                                                                      {"Model", "Bench 8"},
                                                                                      {"DeviceManual", "manual.pdf"},
                                                                                      {"DeviceRevision", "B"},
                                                                                      {"SoftwareRevision", "1.2"},
                                                                                      {"HardwareRevision", "4"}}) {
        // Whatever is written, a read-only property shows its fixed value.
        device.setPropertyValue(name, "77");
        EXPECT_EQ(device.getPropertyValue<std::string>(name), value) << name;
        EXPECT_EQ(device.getPropertyInfo(name).isHidden(), std::string(name) == "RevisionCounter");
    }
    EXPECT_EQ(device.getPropertyInfo("DeviceHealth").getValuesAsList().getCount(), 5u);
    EXPECT_EQ(device.getPropertyValue<int>("DeviceHealth"), 2);
    device.setPropertyValue("DeviceHealth", 0);
    EXPECT_EQ(device.getPropertyValue<int>("DeviceHealth"), 0);

    EXPECT_EQ(rateOf(device), 1000);
    EXPECT_EQ(rateOf(device, "MinSampleRate"), 10);
    EXPECT_EQ(rateOf(device, "MaxSampleRate"), 15000000);
    EXPECT_EQ(fromValue<int>(device.getPropertyInfo("SampleRate").getMinValue()), 10);
    EXPECT_EQ(fromValue<int>(device.getPropertyInfo("SampleRate").getMaxValue()), 15000000);
    EXPECT_EQ(fromValue<int>(device.getPropertyEnum("BaseClock")), 15000000);
}

TEST_F(TreeTest, ChannelProperties) {
    build({std::make_shared<TestDevice>()});
    const auto filtered = channel("Filtered 1");
    EXPECT_EQ(filtered.getUnit(), StringPtr("V"));
    EXPECT_EQ(filtered.getMinValue(), -10.0);
    EXPECT_EQ(filtered.getMaxValue(), 10.0);
    EXPECT_EQ(filtered.getPropertyValue<int>("BufferSizeIsMultipleOf"), 32);
    EXPECT_TRUE(filtered.getUsed());
    EXPECT_EQ(rateOf(filtered), 1000);
    EXPECT_EQ(rateOf(filtered, "MaxSampleRate"), 15000000);
    EXPECT_TRUE(filtered.getPropertyValue<bool>("Enabled"));
    EXPECT_EQ(filtered.getPropertyValue<int>("PhaseDelay"), 7);
    expectOrder(filtered, {"MinSampleRate", "MaxSampleRate", "CheckRate", "Enabled", "PhaseDelay"});
    filtered.setPropertyValue("MinSampleRate", Ratio{1, 1});
    EXPECT_EQ(rateOf(filtered, "MinSampleRate"), 5);

    EXPECT_FALSE(channel("Single").getUsed());
    EXPECT_FALSE(channel("Single").getPropertyValue<bool>("Enabled"));
    EXPECT_FALSE(channel("Async in").getPropertyValue<bool>("IsControl"));
    EXPECT_TRUE(channel("Async out").getPropertyValue<bool>("IsControl"));
    EXPECT_EQ(rateOf(channel("Async in")), 8);
}

TEST_F(TreeTest, DataModuleProperties) {
    build({std::make_shared<TestDevice>()});
    expectOrder(dataModule, {"SampleRate", "MinSampleRate", "MaxSampleRate", "CheckSampleRate", "BeforeStart",
                             "SynchronizationOptions", "Synchronization"});
    EXPECT_EQ(rateOf(dataModule), 1000);
    EXPECT_EQ(rateOf(dataModule, "MinSampleRate"), 10);
    EXPECT_EQ(rateOf(dataModule, "MaxSampleRate"), 15000000);
    for (const char* name : {"CycleRate", "CheckCycleRate", "CheckCycleRateBasedOnDeviceSampleRates"}) {
        EXPECT_FALSE(dataModule.hasProperty(name)) << name;
    }

    Bench empty;
    empty.build({});
    EXPECT_EQ(rateOf(empty.dataModule, "MinSampleRate"), 1);
    EXPECT_EQ(rateOf(empty.dataModule, "MaxSampleRate"), 10);
    EXPECT_EQ(rateOf(empty.dataModule), empty.controller->sampleRate);
    EXPECT_TRUE(empty.dataModule.getRootFolder().getChildren().empty());
}

TEST_F(TreeTest, Functions) {
    auto device = std::make_shared<TestDevice>();
    build({device});
    const auto deviceFolder = folder("Bench 8");
    const auto deviceCheck = functionOf(deviceFolder, "CheckRate");
    const std::tuple<ObjectPtr<IFuncObject>, BasePtr, int> rows[] = {
        {functionOf(dataModule, "CheckSampleRate"), rate(48000), 46875},
        {functionOf(dataModule, "CheckSampleRate"), rate(1 << 30), 15000000},
        {deviceCheck, rates(1000, 300), 250},
        {deviceCheck, rates(12, 11), -1},
        {functionOf(channel("Filtered 1"), "CheckRate"), rates(1000, 300), 250},
        {functionOf(channel("Async in"), "CheckRate"), rates(1000, 300), 300}};
    for (const auto& [function, argument, expected] : rows) {
        EXPECT_EQ(fromValue<Ratio>(executeFunc(function, argument)), (Ratio{expected, 1}));
    }
    // Nothing has changed.
    EXPECT_EQ(controller->sampleRate, 1000);
    EXPECT_EQ(device->getRate(), 1000);
    // Arguments that are none.
    IBaseObject* result = nullptr;
    for (const BasePtr& wrong : {rate(5), asBase(ListPtr::create({rate(5)})), BasePtr()}) {
        EXPECT_TRUE(failed(deviceCheck->execute(wrong.get(), &result)));
        EXPECT_EQ(result, nullptr);
    }

    const auto ioctl = functionOf(deviceFolder, "IOCtl");
    const auto arguments = [](int command) { return asBase(ListPtr::create({toValue(command), toValue("On")})); };
    ErrCode code = 7;
    EXPECT_EQ(fromValue<std::string>(executeFunc(ioctl, arguments(1), &code)), "On!");
    EXPECT_EQ(code, 0u);
    EXPECT_FALSE(executeFunc(ioctl, arguments(2), &code));
    EXPECT_EQ(code, 1u);
    EXPECT_EQ(ioctl->execute(arguments(99).get(), &result), Errors::GeneralError);
    EXPECT_EQ(takeErrorMessage(), "no such luck");
}

// What the host's tree holds of the module must fail softly when the module is gone, and mustn't keep it alive.
TEST_F(TreeTest, FunctionsOutliveTheBridge) {
    TestDevice::destroyed = 0;
    build({std::make_shared<TestDevice>()});
    devicesToFind().clear();
    const auto hostChannel = channel("Raw 1");
    const auto deviceFolder = folder("Bench 8");
    const auto handlers = [event = hostChannel.getOnPropertyValueChanged()] {
        return ask(event.get(), &IEvent::getHandlerCount);
    };
    EXPECT_EQ(handlers(), 1u);
    controller.reset();
    structure.reset();
    EXPECT_EQ(TestDevice::destroyed, 1);
    EXPECT_EQ(handlers(), 0u);

    IBaseObject* result = nullptr;
    for (const auto& function : {functionOf(hostChannel, "CheckRate"), functionOf(deviceFolder, "CheckRate"),
                                 functionOf(deviceFolder, "IOCtl"), functionOf(dataModule, "CheckSampleRate")}) {
        EXPECT_EQ(function->execute(rates(1, 1).get(), &result), Errors::InvalidState);
    }
    EXPECT_EQ(dataModule.getPropertyValue("BeforeStart").asPtr<IProcObject>()->dispatch(nullptr), Errors::InvalidState);
    // Writes meet no handler and are kept.
    dataModule.setPropertyValue("SampleRate", Ratio{48000, 1});
    deviceFolder.setPropertyValue("SampleRate", Ratio{48000, 1});
    deviceFolder.setPropertyValue("BaseClock", 5);
    EXPECT_EQ(rateOf(dataModule), 48000);
    EXPECT_TRUE(log.take().empty());
}

}  // namespace
