#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "modules/daq/can/CanSocketSubDevice.h"
#include "modules/daq/objectmodel/CANChannel.h"
#include "modules/daq/objectmodel/CanMessage.h"
#include "modules/daq/objectmodel/DaqClock.h"
#include "modules/daq/objectmodel/DaqDevice.h"
#include "modules/daq/objectmodel/DaqException.h"

namespace Harvane::Test {

// The master clock, which the test lets run as it likes.
struct TestClock : RT::Modules::Daq::DaqClock {
    double getCurrentTime(bool) override {
        if (fails) {
            throw RT::Modules::Daq::DaqException("no clock");
        }
        return time();
    }
    std::function<double()> time = [] { return -1.0; };
    bool fails = false;
};

struct CanInstrument : RT::Modules::Daq::DaqDevice {
    explicit CanInstrument(std::uint16_t mask) : mask(mask) {}
    std::shared_ptr<RT::Modules::Daq::DaqClock> createDaqClock() override {
        return clock = std::make_shared<TestClock>();
    }
    std::shared_ptr<RT::Modules::Daq::CANDevice> createCANDevice() override {
        return can = std::make_shared<RT::Modules::Daq::CanSocketSubDevice>(mask);
    }

    // Up to the channels, each in use and all ports for sending.
    static std::shared_ptr<CanInstrument> broughtUp(std::uint16_t mask = 0xFFFF) {
        auto device = std::make_shared<CanInstrument>(mask);
        device->initialize();
        device->initializeHardware();
        device->buildChannelView();
        for (const auto& channel : device->can->channels) {
            channel->used = true;
            dynamic_cast<RT::Modules::Daq::CANChannel&>(*channel).writeEnable = 1;
        }
        device->setOperationMode(2);
        return device;
    }
    static RT::Modules::Daq::CanMessage messageAt(const RT::Modules::Daq::Channel& channel, std::uint64_t number) {
        return *static_cast<const RT::Modules::Daq::CanMessage*>(
            channel.buffer->getSample(number % channel.buffer->getCapacity()));
    }

    const std::uint16_t mask;
    std::shared_ptr<TestClock> clock;
    std::shared_ptr<RT::Modules::Daq::CanSocketSubDevice> can;
};

}  // namespace Harvane::Test
