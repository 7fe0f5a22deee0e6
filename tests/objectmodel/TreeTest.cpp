#include <gtest/gtest.h>

#include "RecordingDevice.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/AIDevice.h"
#include "modules/daq/objectmodel/Amplifier.h"
#include "modules/daq/objectmodel/CANDevice.h"
#include "modules/daq/objectmodel/ChannelFolder.h"
#include "modules/daq/objectmodel/DaqUtils.h"
#include "modules/daq/objectmodel/FixedInterfacePort.h"
#include "modules/daq/objectmodel/GenericInterface.h"
#include "modules/daq/objectmodel/Interfaces.h"
#include "modules/daq/objectmodel/StatusDevice.h"

using namespace Harvane::RT::Modules::Daq;
using recording::Recorded;
using recording::RecordedChannel;
using recording::Steps;
using FixedInterface = GenericInterface<FixedInterfaceHelper, FixedInterfacePort>;

TEST(DaqObject, NamesItsClassAndHoldsItsParentWeakly) {
    auto child = std::make_shared<AIDevice>();
    EXPECT_EQ(child->getClassName(), "AIDevice");
    EXPECT_EQ(FixedInterface().getClassName(), "FixedInterfacePort>");
    EXPECT_EQ(DaqUtils::getClassName("no mangled name"), "no mangled name");
    EXPECT_EQ(child->getClassId(), AIDevice().getClassId());
    EXPECT_NE(child->getClassId(), SystemDevice().getClassId());
    auto parent = std::make_shared<SystemDevice>();
    child->setParent(parent);
    EXPECT_EQ(child->getDevice(), parent);
    EXPECT_FALSE(child->getParent<DaqDevice>());
    parent.reset();
    EXPECT_FALSE(child->getDevice());
}

TEST(TopologyElement, IdentifierIsNameAndPlaceAmongTheParentsChildren) {
    auto root = std::make_shared<SystemDevice>();
    auto box = std::make_shared<DaqDevice>();
    auto part = std::make_shared<AIDevice>();
    auto stranger = std::make_shared<Device>();
    root->push_back(std::make_shared<Device>());
    root->push_back(box);
    box->push_back(part);
    root->initialize();
    stranger->setParent(root);
    EXPECT_EQ(root->getElementId(), "Measurement system");
    EXPECT_EQ(box->getElementId(), "DaqDevice 1");
    box->model = "Box";
    EXPECT_EQ(box->getElementId(), "Box 1");
    EXPECT_EQ(part->getElementId(), "Analog inputs");
    EXPECT_EQ(stranger->getElementId(), "Device -1");
}

TEST(Interfaces, ScanBuildsOneConnectionPointAPort) {
    std::shared_ptr<InterfacePort> port;
    {
        Interfaces interfaces;
        auto fixed = std::make_shared<FixedInterface>();
        interfaces.push_back(fixed);
        interfaces.initialize();
        interfaces.scan();
        interfaces.scan();
        ASSERT_EQ(fixed->size(), 100u);
        EXPECT_EQ(fixed->back()->name, "ID_99");
        port = (*fixed)[10];
        EXPECT_EQ(port->getParent<Interface>(), fixed);
        ASSERT_EQ(port->size(), 1u);
        auto point = port->front();
        EXPECT_EQ(point->name, "ID_10");
        EXPECT_EQ(point->getParent<InterfacePort>(), port);
        EXPECT_TRUE(port->connected && point->connected);
        unsigned char byte = 0;
        EXPECT_EQ(point->readData(0, &byte, 1, 0), static_cast<unsigned long>(-1));
        EXPECT_EQ(point->writeData(0, &byte, 1, 0), static_cast<unsigned long>(-1));
    }
    EXPECT_FALSE(port->connected || port->front()->connected);
}

namespace {

struct SpyHelper : StaticInterfaceHelper {
    SpyHelper() : StaticInterfaceHelper("Spy", {}) {}
    void sendCommand(const std::string& id, int command, const unsigned char*, unsigned long length,
                     unsigned char* answer, unsigned long& answerLength, int timeout) override {
        seen = {id, command, length, answer, answerLength, timeout};
    }
    std::tuple<std::string, int, unsigned long, const void*, unsigned long, int> seen;
};

}  // namespace

TEST(ProtocolStack, CommandsOfTheLowestLayerReachTheConnectionPoint) {
    auto helper = std::make_shared<SpyHelper>();
    auto low = std::make_shared<ProtocolLayer>();
    auto high = std::make_shared<ProtocolLayer>();
    auto device = std::make_shared<Device>();
    device->protocolStack.layers = {low, high};
    device->initialize();
    EXPECT_FALSE(low->sendCommand);  // no connection point, nothing to send to
    device->connectionPoint = std::make_shared<GenericConnectionPoint<SpyHelper>>("here", helper);
    device->initialize();
    const unsigned char data[3] = {};
    unsigned char answer = 0;
    unsigned long answerLength = 1;
    low->sendCommand(7, data, 2, &answer, answerLength, 40);
    EXPECT_EQ(helper->seen, (std::tuple{"here", 7, 2ul, &answer, 1ul, 40}));
    device->connectionPoint->sendCommand(42, data, 3, 50);
    EXPECT_EQ(helper->seen, (std::tuple{"here", 42, 3ul, nullptr, 0ul, 50}));
    EXPECT_FALSE(high->sendCommand);
    EXPECT_EQ(high->deviceId, device->getDeviceId());
    EXPECT_EQ(high->connectionPoint, device->connectionPoint);
}

TEST(Device, ChildInheritsMissingLimits) {
    auto parent = std::make_shared<SystemDevice>();
    auto bare = std::make_shared<Device>();
    auto own = std::make_shared<Device>();
    parent->minRate = 100;
    parent->maxRate = 500;
    own->minRate = 50;
    own->maxRate = 900;
    parent->push_back(bare);
    parent->push_back(own);
    EXPECT_FALSE(bare->hasDeviceRate());
    parent->initialize();
    EXPECT_TRUE(bare->hasDeviceRate());
    EXPECT_EQ(std::pair(bare->minRate, bare->maxRate), std::pair(100, 500));
    EXPECT_EQ(std::pair(own->minRate, own->maxRate), std::pair(50, 900));
}

TEST(Device, ListsOwnBeforeChildrenAndPassesOverOtherElements) {
    auto root = std::make_shared<SystemDevice>();
    auto child = std::make_shared<Device>();
    auto grandchild = std::make_shared<SubDevice>();
    root->push_back(std::make_shared<ChannelFolder>("no device", false));
    root->push_back(child);
    child->push_back(grandchild);
    auto c = recording::syncChannel(*grandchild);
    auto a = recording::syncChannel(*root);
    auto b = recording::syncChannel(*child);
    EXPECT_EQ(root->getAllChannels(), (Channels{a, b, c}));
    EXPECT_EQ(root->getAllDevices(), (DaqVector<std::shared_ptr<Device>>{root, child, grandchild}));
    EXPECT_TRUE(child->channelExists(b));
    EXPECT_FALSE(child->channelExists(c));
    root->setOperationMode(2);
    root->setAcqRunning(true);
    root->setAcqStopping(true);
    EXPECT_EQ(grandchild->channels.operationMode, 2);
    EXPECT_TRUE(grandchild->acqRunning && grandchild->acqStopping);
    root->buildChannelView();
    EXPECT_EQ(root->channelView->getDisplayName(), "Default channel view");
    EXPECT_EQ(grandchild->channelView->channels, (std::vector<std::shared_ptr<Channel>>{c}));
}

namespace {

// parent -> child, each with one channel.
template <class Base>
struct Walk {
    Walk()
        : parent(std::make_shared<Recorded<Base>>(steps, "p")), child(std::make_shared<Recorded<Device>>(steps, "c")) {
        parent->channels.push_back(std::make_shared<RecordedChannel>(steps, 0, "pc"));
        child->channels.push_back(std::make_shared<RecordedChannel>(steps, 0, "cc"));
        parent->push_back(child);
        parent->initialize();
    }
    Steps take() { return std::exchange(steps, {}); }

    Steps steps;
    std::shared_ptr<Recorded<Base>> parent;
    std::shared_ptr<Recorded<Device>> child;
};

}  // namespace

TEST(Device, ChannelsComeFirstOnTheWayInAndLastOnTheWayOut) {
    Walk<Device> walk;
    walk.parent->prepareAcquisition(true);
    EXPECT_EQ(walk.take(), (Steps{"p.prepare(true)", "pc.prepare", "c.prepare(true)", "cc.prepare"}));
    walk.parent->initializeAcquisition(true);
    EXPECT_EQ(walk.take(),
              (Steps{"p.initialize(true)", "pc.initialize active", "c.initialize(true)", "cc.initialize active"}));
    walk.parent->acquireData();
    EXPECT_EQ(walk.take(), (Steps{"p.acquire", "pc.before", "c.acquire", "cc.before", "cc.after", "pc.after"}));
    walk.parent->finalizeAcquisition(true);
    EXPECT_EQ(walk.take(), (Steps{"p.finalize(true)", "c.finalize(true)", "cc.finalize", "pc.finalize"}));
}

TEST(Device, StepsThatReachTheChildrenWithoutRecursion) {
    Walk<Device> device;
    device.parent->prepareAcquisition(false);
    device.parent->initializeAcquisition(false);
    device.parent->startAcquisition(false);
    device.parent->stopAcquisition(false);
    device.parent->setUsedChannels(false);
    device.parent->finalizeAcquisition(false);
    EXPECT_EQ(device.take(),
              (Steps{"p.prepare(false)", "pc.prepare", "p.initialize(false)", "pc.initialize active", "p.start(false)",
                     "p.stop(false)", "p.used(false)", "p.finalize(false)", "pc.finalize"}));
    Walk<DaqDevice> daqDevice;
    daqDevice.parent->stopAcquisition(false);
    daqDevice.parent->finalizeAcquisition(false);
    EXPECT_EQ(daqDevice.take(),
              (Steps{"p.stop(false)", "p.finalize(false)", "c.finalize(true)", "cc.finalize", "pc.finalize"}));
    Walk<SubDevice> subDevice;
    subDevice.parent->startAcquisition(false);
    subDevice.parent->stopAcquisition(false);
    subDevice.parent->finalizeAcquisition(false);
    EXPECT_EQ(subDevice.take(), (Steps{"p.start(false)", "p.stop(false)", "c.stop(true)", "p.finalize(false)",
                                       "c.finalize(true)", "cc.finalize", "pc.finalize"}));
}

namespace {

class PlainCan : public CANDevice {};
class PlainStatus : public StatusDevice {};

// Has every part, and each part's creation sees the parts before it.
class FullDevice : public DaqDevice {
public:
    std::shared_ptr<DaqTiming> createDaqTiming() override { return make<recording::PlainTiming>(daqClock); }
    std::shared_ptr<StatusDevice> createStatusDevice() override { return make<PlainStatus>(daqTiming); }
    std::shared_ptr<AIDevice> createAIDevice() override { return make<AIDevice>(statusDevice); }
    std::shared_ptr<SubDevice> createAODevice() override { return make<SubDevice>(aiDevice); }
    std::shared_ptr<CANDevice> createCANDevice() override { return make<PlainCan>(aoDevice); }
    std::shared_ptr<SubDevice> createCntDevice() override { return make<SubDevice>(canDevice); }
    std::shared_ptr<DaqLoop> createDaqLoop() override { return make<recording::PlainLoop>(cntDevice); }

private:
    template <class T, class Before>
    std::shared_ptr<T> make(const Before& before) {
        EXPECT_TRUE(before);
        return std::make_shared<T>();
    }
};

}  // namespace

TEST(DaqDevice, MakesItsPartsInOrderAndTheyDieWithTheRoot) {
    auto root = std::make_shared<SystemDevice>();
    auto device = std::make_shared<FullDevice>();
    device->minRate = 100;
    root->push_back(device);
    root->push_back(std::make_shared<DaqDevice>());
    root->initialize();
    using Children = DaqVector<std::shared_ptr<TopologyElement>>;
    const Children expected{device->daqTiming, device->statusDevice, device->aiDevice,
                            device->aoDevice,  device->canDevice,    device->cntDevice};
    EXPECT_EQ(static_cast<const Children&>(*device), expected);
    EXPECT_EQ(device->masterClock, device->daqClock);
    EXPECT_EQ(device->daqClock->getDaqDevice(), device);
    EXPECT_EQ(device->daqTiming->getDaqDevice(), device);
    EXPECT_EQ(device->daqLoop->getParent<DaqDevice>(), device);
    EXPECT_EQ(device->aiDevice->minRate, 100);
    EXPECT_EQ(device->getDaqDevicesWithSR(), (std::vector<std::shared_ptr<DaqDevice>>{device}));
    std::weak_ptr<Device> watched = device;
    device.reset();
    root.reset();
    EXPECT_TRUE(watched.expired());
}

TEST(DaqDevice, ConnectsDataWhereItStandsOnAConnectionPoint) {
    auto device = std::make_shared<DaqDevice>();
    device->initialize();
    EXPECT_TRUE(device->getDaqDevicesWithSR().empty());
    EXPECT_NO_THROW(device->initializeAcquisition(true));
    EXPECT_NO_THROW(device->finalizeAcquisition(true));
    device->connectionPoint = std::make_shared<FixedConnectionPoint>("ID_1", std::make_shared<FixedInterfaceHelper>());
    device->initializeAcquisition(true);
    EXPECT_TRUE(device->connectionPoint->dataConnected);
    device->finalizeAcquisition(true);
    EXPECT_FALSE(device->connectionPoint->dataConnected);
}

TEST(AIDevice, MakesChannelsWithTheirAmplifiers) {
    auto device = std::make_shared<FullDevice>();
    device->initialize();
    device->aiDevice->setMaxChannelsCount(2);
    device->initializeHardware();
    auto channel = device->aiDevice->getAIChannel(1);
    auto amplifier = channel->amplifier;
    EXPECT_EQ(channel->name, "AI 2");
    EXPECT_EQ(amplifier->getAIChannel(), channel);
    EXPECT_EQ(amplifier->getMinValue(), -1.0);
    EXPECT_EQ(amplifier->getMaxValue(), 10.0);
    EXPECT_THROW(device->aiDevice->getAIChannel(2), std::out_of_range);
    EXPECT_THROW(device->aiDevice->getAIChannel(-1), std::out_of_range);
    device.reset();
    EXPECT_FALSE(amplifier->getAIChannel());
}

TEST(AIDevice, TakesOnlyANewClockOfItsList) {
    struct ClockedAI : AIDevice {
        void onBaseClockChanged() override { changes.push_back(baseClock); }
        std::vector<int> changes;
    };
    ClockedAI ai;
    for (int clock : {0, -1, 12000000, 15000000, 10000000, 10000000}) {
        ai.setBaseClock(clock);
    }
    EXPECT_EQ(ai.changes, (std::vector<int>{10000000}));
}
