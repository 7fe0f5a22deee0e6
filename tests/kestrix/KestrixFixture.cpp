#include "tests/kestrix/KestrixFixture.h"

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
#include "modules/daq/objectmodel/SystemDevice.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"

namespace Harvane::RT::Modules::Daq {

namespace RegistersAddress = Shared::Kestrix::RegistersAddress;

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
    RegistersAddress::baseClock = 15000000;
    RegistersAddress::maxAIModules = 8;
    RegistersAddress::maxAIChannels = 16;
    RegistersAddress::deviceType = 0;
}

KestrixFixture::~KestrixFixture() {
    tearDown();
}

kestrixsim::Scenario KestrixFixture::warmScenario(int modules) {
    kestrixsim::Scenario scenario = kestrixsim::Scenario::counters(modules);
    scenario.slots = modules;
    scenario.supplyOn = true;
    return scenario;
}

void KestrixFixture::bringUp(const kestrixsim::Scenario& scenario) {
    tearDown();
    kestrixsim::reset(scenario);
    controller = std::make_unique<DaqController>();
    controller->operationMode = 2;
    controller->initialize();
    controller->scan();
    controller->initializeHardware();
}

void KestrixFixture::prepare() {
    controller->applySynchronization();
    controller->prepareAcquisition();
    controller->initializeAcquisition();
}

void KestrixFixture::start() {
    prepare();
    controller->startAcquisition();
}

void KestrixFixture::stop() {
    controller->stopAcquisition();
}

void KestrixFixture::tearDown() {
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

}  // namespace Harvane::RT::Modules::Daq
