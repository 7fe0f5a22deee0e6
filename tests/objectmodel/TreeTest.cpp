#include <gtest/gtest.h>

#include "RecordingDevice.h"
#include "modules/daq/amplifier/Amplifier.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/AIDevice.h"
#include "modules/daq/objectmodel/CANDevice.h"
#include "modules/daq/objectmodel/ChannelFolder.h"
#include "modules/daq/objectmodel/DaqUtils.h"
#include "modules/daq/objectmodel/Interfaces.h"
#include "modules/daq/objectmodel/DaqLoop.h"
#include "modules/daq/objectmodel/FixedInterfacePort.h"
#include "modules/daq/objectmodel/GenericInterface.h"
#include "modules/daq/objectmodel/GroupDevice.h"
#include "modules/daq/objectmodel/StatusDevice.h"
#include "modules/daq/synchronization/GenericDaqClock.h"

using namespace Harvane::RT::Modules::Daq;
using recording::Recorded;
using recording::RecordedChannel;
using recording::Steps;
using FixedInterface = GenericInterface<FixedInterfaceHelper, FixedInterfacePort>;

namespace {

class Node : public TopologyElement {
public:
    explicit Node(const std::string& name) : name(name) {}
    std::string getDisplayName() const override { return name; }
    std::string name;
};

template <class Parent, class Child>
void adopt(const std::shared_ptr<Parent>& parent, const std::shared_ptr<Child>& child) {
    child->setParent(parent);
    parent->push_back(child);
}

}

TEST(DaqObject, NamesAndIdentifiersOfClasses) {
    auto first = std::make_shared<AIDevice>();
    auto second = std::make_shared<AIDevice>();
    EXPECT_EQ(first->getClassName(), "AIDevice");
    EXPECT_EQ(FixedInterface().getClassName(), "FixedInterfacePort>");
    EXPECT_EQ(first->getClassId(), second->getClassId());
    EXPECT_NE(first->getClassId(), SystemDevice().getClassId());
    EXPECT_EQ(DaqUtils::getClassName("no mangled name"), "no mangled name");
}

TEST(DaqObject, ParentIsWeakAndTyped) {
    auto child = std::make_shared<Device>();
    EXPECT_FALSE(child->getParent<Device>());
    auto parent = std::make_shared<SystemDevice>();
    child->setParent(parent);
    EXPECT_EQ(child->getParent<SystemDevice>(), parent);
    EXPECT_FALSE(child->getParent<GroupDevice>());
    parent.reset();
    EXPECT_FALSE(child->getParent<Device>());
}

TEST(TopologyElement, IdentifierIsNameAndPlaceAndTextShowsTheDepth) {
    auto root = std::make_shared<Node>("Root");
    auto foo = std::make_shared<Node>("Foo");
    auto bar = std::make_shared<Node>("Bar");
    adopt(root, foo);
    adopt(root, std::make_shared<Node>("Other"));
    adopt(foo, bar);
    EXPECT_EQ(root->getElementId(), "Root");
    EXPECT_EQ(foo->getElementId(), "Foo 0");
    EXPECT_EQ((*root)[1]->getElementId(), "Other 1");
    EXPECT_EQ(root->toString(), "Root\n+Foo\n++Bar\n+Other");
    auto stranger = std::make_shared<Node>("Stranger");
    stranger->setParent(root);
    EXPECT_EQ(stranger->getElementId(), "Stranger -1");
}

TEST(DaqVector, DeletesTheFirstEqualElement) {
    DaqVector<int> list{1, 2, 1, 3};
    list.deleteElement(1);
    list.deleteElement(9);
    EXPECT_EQ(list, (DaqVector<int>{2, 1, 3}));
}

TEST(Interfaces, ScanBuildsOneConnectionPointAPort) {
    std::shared_ptr<InterfacePort> port;
    {
        Interfaces interfaces;
        auto fixed = std::make_shared<FixedInterface>();
        interfaces.push_back(fixed);
        interfaces.initialize();
        EXPECT_TRUE(fixed->initialized);
        interfaces.scan();
        interfaces.scan();
        EXPECT_EQ(fixed->getInterfaceName(), "FixedInterface");
        ASSERT_EQ(fixed->size(), 100u);
        EXPECT_EQ(fixed->back()->name, "ID_99");
        port = (*fixed)[10];
        EXPECT_EQ(port->getParent<Interface>(), fixed);
        EXPECT_TRUE(port->connected);
        ASSERT_EQ(port->size(), 1u);
        auto point = port->front();
        EXPECT_EQ(point->name, "ID_10");
        EXPECT_EQ(point->index, 0);
        EXPECT_TRUE(point->connected);
        EXPECT_EQ(point->getParent<InterfacePort>(), port);
        unsigned char byte = 0;
        EXPECT_EQ(point->readData(0, &byte, 1, 0), static_cast<unsigned long>(-1));
        EXPECT_EQ(point->writeData(0, &byte, 1, 0), static_cast<unsigned long>(-1));
        EXPECT_NO_THROW(point->sendCommand(1, &byte, 1, 0));
    }
    EXPECT_FALSE(port->connected);
    EXPECT_FALSE(port->front()->connected);
}

namespace {

struct SeenCommand {
    std::string id;
    int command = 0;
    unsigned long length = 0;
    const void* answer = &command;
    unsigned long answerLength = 99;
    int timeout = 0;
};

class SpyHelper : public StaticInterfaceHelper {
public:
    SpyHelper() : StaticInterfaceHelper("Spy", {}) {}
    void sendCommand(const std::string& id, int command, const unsigned char*, unsigned long length,
                     unsigned char* answer, unsigned long& answerLength, int timeout) override {
        seen = {id, command, length, answer, answerLength, timeout};
    }
    SeenCommand seen;
};

}

TEST(ConnectionPoint, ShortCommandHasNoAnswer) {
    auto helper = std::make_shared<SpyHelper>();
    GenericConnectionPoint<SpyHelper> point("here", helper);
    const unsigned char data[3] = {};
    static_cast<ConnectionPoint&>(point).sendCommand(42, data, 3, 50);
    EXPECT_EQ(helper->seen.id, "here");
    EXPECT_EQ(helper->seen.command, 42);
    EXPECT_EQ(helper->seen.length, 3u);
    EXPECT_EQ(helper->seen.answer, nullptr);
    EXPECT_EQ(helper->seen.answerLength, 0u);
    EXPECT_EQ(helper->seen.timeout, 50);
}

TEST(Interface, WithoutPortsIsNoError) {
    using SpyPort = GenericInterfacePort<SpyHelper, GenericConnectionPoint<SpyHelper>>;
    auto empty = std::make_shared<GenericInterface<SpyHelper, SpyPort>>();
    empty->scan();
    EXPECT_TRUE(empty->empty());
}

TEST(ProtocolStack, BindsTheLowestLayerToTheConnectionPoint) {
    auto helper = std::make_shared<SpyHelper>();
    auto device = std::make_shared<DaqDevice>();
    device->connectionPoint = std::make_shared<GenericConnectionPoint<SpyHelper>>("cp", helper);
    auto low = std::make_shared<ProtocolLayer>();
    auto high = std::make_shared<ProtocolLayer>();
    device->protocolStack.layers = {low, high};
    device->initialize();
    unsigned long answerLength = 5;
    low->sendCommand(7, nullptr, 0, nullptr, answerLength, 1);
    EXPECT_EQ(helper->seen.command, 7);
    EXPECT_EQ(helper->seen.answerLength, 5u);
    EXPECT_FALSE(high->sendCommand);
    EXPECT_EQ(high->deviceId, device->getDeviceId());
    EXPECT_EQ(high->connectionPoint, device->connectionPoint);
}

TEST(Device, NamesOfTheClasses) {
    Device device;
    EXPECT_EQ(device.getDisplayName(), "Device");
    device.model = "Box";
    EXPECT_EQ(device.getDisplayName(), "Box");
    EXPECT_EQ(SystemDevice().getDisplayName(), "Measurement system");
    GroupDevice group;
    EXPECT_EQ(group.getDisplayName(), "Device Group");
    group.setGroupName("Two boxes");
    EXPECT_EQ(group.getDisplayName(), "Two boxes");
    auto parent = std::make_shared<SystemDevice>();
    auto part = std::make_shared<AIDevice>();
    adopt(parent, part);
    EXPECT_EQ(part->getElementId(), "Analog inputs");
    EXPECT_EQ(part->getDevice(), parent);
}

TEST(Device, ChildInheritsMissingLimits) {
    struct Case {
        int minRate, maxRate, expectedMin, expectedMax;
    };
    for (const auto& c : {Case{0, Device::noMaxRate, 100, 500}, Case{50, Device::noMaxRate, 50, 500},
                          Case{0, 900, 100, 900}}) {
        auto parent = std::make_shared<SystemDevice>();
        auto child = std::make_shared<Device>();
        parent->minRate = 100;
        parent->maxRate = 500;
        child->minRate = c.minRate;
        child->maxRate = c.maxRate;
        parent->push_back(child);
        EXPECT_EQ(child->hasDeviceRate(), c.minRate != 0 || c.maxRate != Device::noMaxRate);
        parent->initialize();
        EXPECT_EQ(child->minRate, c.expectedMin);
        EXPECT_EQ(child->maxRate, c.expectedMax);
        EXPECT_EQ(child->getParent<Device>(), parent);
    }
}

TEST(Device, ListsOwnBeforeChildrenAndPassesOverOtherElements) {
    auto root = std::make_shared<SystemDevice>();
    auto child = std::make_shared<Device>();
    auto grandchild = std::make_shared<SubDevice>();
    root->push_back(std::make_shared<ChannelFolder>("no device", false));
    root->push_back(child);
    child->push_back(grandchild);
    root->initialize();
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
    EXPECT_EQ(grandchild->operationMode, 2);
    EXPECT_TRUE(grandchild->acqRunning && grandchild->acqStopping);
    root->buildChannelView();
    EXPECT_EQ(root->channelView->getDisplayName(), "Default channel view");
    EXPECT_FALSE(root->channelView->sharedInputs);
    EXPECT_EQ(root->channelView->channels, (std::vector<std::shared_ptr<Channel>>{a}));
    EXPECT_EQ(grandchild->channelView->channels, (std::vector<std::shared_ptr<Channel>>{c}));
}

namespace {

/// parent -> child, each with one channel.
template <class Base>
class Walk {
public:
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

}

TEST(Device, ChannelsComeFirstOnTheWayInAndLastOnTheWayOut) {
    Walk<Device> walk;
    walk.parent->prepareAcquisition(true);
    EXPECT_EQ(walk.take(), (Steps{"p.prepare(true)", "pc.prepare", "c.prepare(true)", "cc.prepare"}));
    walk.parent->initializeAcquisition(true);
    EXPECT_EQ(walk.take(), (Steps{"p.initialize(true)", "pc.initialize active", "c.initialize(true)",
                                  "cc.initialize active"}));
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
    EXPECT_EQ(device.take(), (Steps{"p.prepare(false)", "pc.prepare", "p.initialize(false)", "pc.initialize active",
                                    "p.start(false)", "p.stop(false)", "p.used(false)", "p.finalize(false)",
                                    "pc.finalize"}));
    Walk<DaqDevice> daqDevice;
    daqDevice.parent->stopAcquisition(false);
    daqDevice.parent->finalizeAcquisition(false);
    EXPECT_EQ(daqDevice.take(), (Steps{"p.stop(false)", "p.finalize(false)", "c.finalize(true)", "cc.finalize",
                                       "pc.finalize"}));
    Walk<SubDevice> subDevice;
    subDevice.parent->startAcquisition(false);
    subDevice.parent->stopAcquisition(false);
    subDevice.parent->finalizeAcquisition(false);
    EXPECT_EQ(subDevice.take(), (Steps{"p.start(false)", "p.stop(false)", "c.stop(true)", "p.finalize(false)",
                                       "c.finalize(true)", "cc.finalize", "pc.finalize"}));
}

TEST(Device, CheckHardwareAnswersWithTheFirstFaultyChild) {
    Steps steps;
    auto root = std::make_shared<SystemDevice>();
    auto first = std::make_shared<Recorded<Device>>(steps, "a");
    auto second = std::make_shared<Recorded<Device>>(steps, "b");
    root->push_back(std::make_shared<Device>());
    root->push_back(first);
    root->push_back(second);
    EXPECT_TRUE(root->checkHardware().empty());
    second->faults = {"no supply"};
    EXPECT_EQ(root->checkHardware(), (std::vector<std::string>{"no supply"}));
    first->faults = {"hot", "old"};
    EXPECT_EQ(root->checkHardware(), (std::vector<std::string>{"hot", "old"}));
}

namespace {

class PlainTiming : public DaqTiming {
public:
    std::int64_t getStartTime() override { return -1; }
    std::int64_t getCurrentTime(bool&, bool&) override { return -1; }
};
class PlainCan : public CANDevice {};
class PlainStatus : public StatusDevice {};
class PlainLoop : public DaqLoop {
public:
    int checkCycleRate(int requested) const override { return requested; }
    int checkCycleRate(int requested, const std::vector<int>&) const override { return requested; }
    void setCycleFunction(const std::function<void()>&) override {}
};

/// Has every part, and each part's creation sees the parts before it.
class FullDevice : public DaqDevice {
public:
    std::shared_ptr<DaqTiming> createDaqTiming() override { return note(std::make_shared<PlainTiming>(), daqClock); }
    std::shared_ptr<StatusDevice> createStatusDevice() override {
        return note(std::make_shared<PlainStatus>(), daqTiming);
    }
    std::shared_ptr<AIDevice> createAIDevice() override { return note(std::make_shared<AIDevice>(), statusDevice); }
    std::shared_ptr<SubDevice> createAODevice() override { return note(std::make_shared<SubDevice>(), aiDevice); }
    std::shared_ptr<CANDevice> createCANDevice() override { return note(std::make_shared<PlainCan>(), aoDevice); }
    std::shared_ptr<SubDevice> createCntDevice() override { return note(std::make_shared<SubDevice>(), canDevice); }
    std::shared_ptr<DaqLoop> createDaqLoop() override { return note(std::make_shared<PlainLoop>(), cntDevice); }

    bool inOrder = true;

private:
    template <class T, class Before>
    std::shared_ptr<T> note(std::shared_ptr<T> part, const Before& before) {
        inOrder = inOrder && before;
        return part;
    }
};

}

TEST(DaqDevice, MakesItsPartsInOrder) {
    auto device = std::make_shared<FullDevice>();
    auto root = std::make_shared<SystemDevice>();
    device->minRate = 100;
    root->push_back(device);
    root->initialize();
    EXPECT_TRUE(device->inOrder);
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

}

TEST(DaqDevice, TheTreeDiesWithItsRoot) {
    auto root = std::make_shared<SystemDevice>();
    root->push_back(std::make_shared<FullDevice>());
    root->initialize();
    std::weak_ptr<Device> part = std::static_pointer_cast<FullDevice>(root->front())->aiDevice;
    EXPECT_FALSE(part.expired());
    root.reset();
    EXPECT_TRUE(part.expired());
}

TEST(DaqDevice, BareDeviceRunsWithoutConnectionPointAndParts) {
    auto device = std::make_shared<DaqDevice>();
    device->initialize();
    EXPECT_TRUE(device->empty());
    EXPECT_TRUE(std::dynamic_pointer_cast<GenericDaqClock>(device->daqClock));
    EXPECT_TRUE(device->getDaqDevicesWithSR().empty());
    std::string result;
    EXPECT_FALSE(device->ioctl(1, "On", result));
    EXPECT_NO_THROW(device->initializeAcquisition(true));
    EXPECT_NO_THROW(device->startAcquisition(true));
    EXPECT_NO_THROW(device->finalizeAcquisition(true));

    auto helper = std::make_shared<FixedInterfaceHelper>();
    device->connectionPoint = std::make_shared<FixedConnectionPoint>("ID_1", helper);
    device->initializeAcquisition(true);
    EXPECT_TRUE(device->connectionPoint->dataConnected);
    device->finalizeAcquisition(true);
    EXPECT_FALSE(device->connectionPoint->dataConnected);
}

namespace {

class PairedAI : public AIDevice {
public:
    std::shared_ptr<Amplifier> createAmplifier(int index) override {
        return index % 2 ? getAIChannel(index - 1)->amplifier : std::make_shared<Amplifier>();
    }
    void onBaseClockChanged() override { ++clockChanges; }
    int clockChanges = 0;
};

class AIOnly : public DaqDevice {
public:
    std::shared_ptr<AIDevice> createAIDevice() override { return std::make_shared<PairedAI>(); }
};

}

TEST(AIDevice, ChannelPairSharesOneAmplifierWithOneRange) {
    auto device = std::make_shared<AIOnly>();
    device->minRate = 100;
    device->maxRate = 20000;
    device->initialize();
    auto ai = device->aiDevice;
    ai->setMaxChannelsCount(4);
    device->initializeHardware();
    ASSERT_EQ(ai->channels.size(), 4u);
    auto odd = ai->getAIChannel(3);
    auto even = ai->getAIChannel(2);
    EXPECT_EQ(odd->name, "AI 4");
    EXPECT_EQ(odd->minRate, 100);
    EXPECT_EQ(odd->maxRate, 20000);
    EXPECT_EQ(odd->amplifier, even->amplifier);
    EXPECT_EQ(odd->amplifier->index, 3);
    EXPECT_EQ(odd->amplifier->getAIChannel(), odd);
    EXPECT_EQ(odd->amplifier->ranges, (std::vector<std::string>{"10"}));
    EXPECT_EQ(odd->amplifier->minValues, (std::vector<double>{-1.0}));
    EXPECT_EQ(odd->amplifier->maxValues, (std::vector<double>{10.0}));
    EXPECT_THROW(ai->getAIChannel(4), std::out_of_range);
    EXPECT_THROW(ai->getAIChannel(-1), std::out_of_range);
    auto amplifier = odd->amplifier;
    ai.reset();
    device.reset();
    EXPECT_FALSE(amplifier->getAIChannel());
}

TEST(AIDevice, TakesOnlyANewClockOfItsList) {
    PairedAI ai;
    for (int clock : {0, -1, 12000000, 15000000}) {
        ai.setBaseClock(clock);
        EXPECT_EQ(ai.baseClock, 15000000);
    }
    EXPECT_EQ(ai.clockChanges, 0);
    ai.setBaseClock(10000000);
    EXPECT_EQ(ai.clockChanges, 1);
    EXPECT_EQ(ai.getBaseClockForSampleRate(48000), 10000000);
}
