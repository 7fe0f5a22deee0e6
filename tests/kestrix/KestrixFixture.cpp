#include "tests/kestrix/KestrixFixture.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "modules/daq/daqdevices/kestrix/src/KestrixDeviceFactory_CP.h"
#include "modules/daq/objectmodel/Channel.h"
#include "modules/daq/objectmodel/DaqObjectFactory.h"
#include "modules/daq/objectmodel/DaqObjectFactoryManager.h"
#include "modules/daq/objectmodel/FixedInterfaceHelper.h"
#include "modules/daq/objectmodel/FixedInterfacePort.h"
#include "modules/daq/objectmodel/GenericDeviceFactory.h"
#include "modules/daq/objectmodel/GenericInterface.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

#if defined(__SANITIZE_THREAD__)
// The simulated daemon works inside its clients' poll and sendto, where the run time sees no locks. Nor does it see
// that a page of registers is mapped: one that lies where a ring was would count as that ring still.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "race:kestrixsim::PtpDaemon\nrace:kestrixsim::Mappings\n";
}
#endif

namespace Harvane::RT::Modules::Daq {

namespace {

void registerClasses() {
    static DaqObjectFactory<GenericInterface<FixedInterfaceHelper, FixedInterfacePort>, DaqObjectFactoryType::Interface>
        interfaceFactory;
    static DaqObjectFactory<GenericDeviceFactory<KestrixDevice, KestrixDeviceFactory_CP>,
                            DaqObjectFactoryType::DeviceFactory>
        deviceFactory;
    DaqObjectFactoryManager::registerObjectFactory(&interfaceFactory);
    DaqObjectFactoryManager::registerObjectFactory(&deviceFactory);
}

// The hardware layer's log goes to the host, which these tests do without.
class SilentLog : public testing::Environment {
    void SetUp() override { Shared::Kestrix::KestrixLogger::get_logger().setLevel(7); }
};

[[maybe_unused]] const testing::Environment* const silentLog = testing::AddGlobalTestEnvironment(new SilentLog);

}  // namespace

KestrixFixture::KestrixFixture() {
    registerClasses();
}

KestrixFixture::~KestrixFixture() {
    takeDown();
}

kestrixsim::Scenario KestrixFixture::warmScenario(int modules) {
    kestrixsim::Scenario scenario = kestrixsim::Scenario::counters(modules);
    scenario.slots = modules;
    scenario.supplyOn = true;
    return scenario;
}

void KestrixFixture::bringUp(const kestrixsim::Scenario& scenario) {
    takeDown();
    kestrixsim::reset(scenario);
    journalTaken_ = 0;
    framesTaken_ = 0;
    controller = std::make_unique<DaqController>();
    controller->operationMode = 2;
    controller->initialize();
    controller->scan();
    controller->initializeHardware();
}

void KestrixFixture::prepare() {
    Device& tree = *controller->systemDevice;
    tree.applySynchronization();
    tree.setOperationMode(controller->operationMode);
    tree.prepareAcquisition(true);
    setUpRun();
}

void KestrixFixture::setUpRun() {
    controller->systemDevice->initializeAcquisition(true);
    controller->acquisitionChannels = controller->allChannels.getActiveChannels();
}

void KestrixFixture::start() {
    prepare();
    controller->systemDevice->startAcquisition(true);
}

void KestrixFixture::stop() {
    controller->systemDevice->stopAcquisition(true);
    controller->systemDevice->finalizeAcquisition(true);
}

void KestrixFixture::takeDown() {
    controller.reset();
}

KestrixDevice& KestrixFixture::device() const {
    return dynamic_cast<KestrixDevice&>(*controller->daqDevices.at(0));
}

KestrixAI& KestrixFixture::ai() const {
    return dynamic_cast<KestrixAI&>(*device().aiDevice);
}

Channel& KestrixFixture::channel(int number) const {
    return *ai().channels.at(static_cast<size_t>(number));
}

void KestrixFixture::use(std::initializer_list<int> numbers) const {
    for (const auto& each : ai().channels) {
        each->used = false;
    }
    for (const int number : numbers) {
        channel(number).used = true;
    }
}

void KestrixFixture::acquire(const Channel& channel, uint64_t samples) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (channel.samplesAcquired < samples) {
        controller->acquireData();
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << channel.samplesAcquired;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void KestrixFixture::expectCounting(Channel& channel, uint64_t& seen) {
    const uint64_t capacity = channel.buffer->getCapacity();
    const bool filtered = channel.buffer->getSampleSize() == 4;
    ASSERT_LT(channel.samplesAcquired - seen, capacity);
    for (; seen < channel.samplesAcquired; ++seen) {
        const double value = channel.buffer->getSampleInDouble(seen % capacity);
        const double expected = filtered ? static_cast<int32_t>(static_cast<uint32_t>(seen))
                                         : static_cast<int16_t>(static_cast<uint16_t>(seen));
        ASSERT_EQ(value, expected) << channel.name << " sample " << seen;
    }
}

void KestrixFixture::acquireCounting(std::initializer_list<int> numbers, uint64_t samples) {
    std::vector<uint64_t> seen(ai().channels.size(), 0);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (bool complete = false; !complete;) {
        controller->acquireData();
        complete = true;
        for (const int number : numbers) {
            ASSERT_NO_FATAL_FAILURE(expectCounting(channel(number), seen[static_cast<size_t>(number)]));
            complete = complete && channel(number).samplesAcquired >= samples;
        }
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

std::string KestrixFixture::whatIsOn() {
    std::string on;
    const auto add = [&](bool is, const std::string& what) { on += is ? (on.empty() ? "" : ", ") + what : ""; };
    add((word(0xA0200000) & 1) != 0, "converters");
    add((word(0xA0200004) & 0xFFFF) != 0, "triggers");
    for (int module = 0; module < kestrixsim::instrument().scenario().slots; ++module) {
        const std::string number = std::to_string(module);
        add((word(0xA0000124 + (static_cast<uint64_t>(module) << 16)) & 3) != 0, "chain " + number);
        add(kestrixsim::instrument().statistics(module, kestrixsim::Stream::Raw).started, "r" + number);
        add(kestrixsim::instrument().statistics(module, kestrixsim::Stream::Filtered).started, "f" + number);
    }
    return on;
}

std::vector<std::string> KestrixFixture::takeJournal() {
    const std::vector<std::string> lines = kestrixsim::instrument().journal();
    std::vector<std::string> fresh(lines.begin() + static_cast<std::ptrdiff_t>(journalTaken_), lines.end());
    journalTaken_ = lines.size();
    fresh.erase(std::unique(fresh.begin(), fresh.end()), fresh.end());
    return fresh;
}

std::vector<std::string> KestrixFixture::takeFrames() {
    const std::vector<std::string> frames = kestrixsim::instrument().framesReceived();
    std::vector<std::string> fresh;
    for (; framesTaken_ < frames.size(); ++framesTaken_) {
        fresh.push_back(frames[framesTaken_].substr(6, frames[framesTaken_].size() - 9));
    }
    return fresh;
}

}  // namespace Harvane::RT::Modules::Daq
