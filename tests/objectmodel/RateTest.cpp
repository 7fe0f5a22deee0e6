#include <gtest/gtest.h>

#include "RecordingDevice.h"
#include "modules/daq/DaqController.h"

using namespace Harvane::RT::Modules::Daq;

namespace {

/// Runs at whole fractions of its clock only and knows nothing below 10 Hz, like the instrument's analog part.
class FractionDevice : public DaqDevice {
public:
    using Device::checkRate;
    explicit FractionDevice(int clock) : clock(clock) {
        minRate = 1;
        maxRate = clock;
    }
    int checkRate(int requested) const override {
        for (int rate = std::min(requested, clock); rate > 10; --rate) {
            if (clock % rate == 0) {
                return rate;
            }
        }
        return 10;
    }
    int clock;
};

std::shared_ptr<DaqDevice> rangeDevice(int minRate, int maxRate) {
    auto device = std::make_shared<DaqDevice>();
    device->minRate = minRate;
    device->maxRate = maxRate;
    return device;
}

}

TEST(DeviceRate, ClampsToItsOwnAndItsChildrensLimits) {
    auto parent = rangeDevice(100, 5000);
    parent->push_back(rangeDevice(0, 2000));
    for (const auto& [request, rate] : {std::pair{50, 100}, {100, 100}, {1500, 1500}, {2500, 2000}, {99999, 2000},
                                        {0, 100}, {-7, 100}}) {
        EXPECT_EQ(parent->checkRate(request), rate) << request;
    }
}

TEST(DeviceRate, DividedRateIsAWholeFractionOfTheBase) {
    struct Case {
        int minRate, maxRate, base, requested, rate;
    };
    for (const auto& c : {
             Case{100, 5000, 1000, 10, 100}, Case{2000, 5000, 1000, 10, 2000}, Case{1, 500, 1000, 1000, 500},
             // Divisors below the minimum are clamped away: no divider at all.
             Case{100, 5000, 125, 110, -1}, Case{100, 5000, 150, 110, -1}, Case{100, 5000, 46875, 110, -1},
             // Nothing to divide by.
             Case{0, 5000, 1000, 0, -1}, Case{0, 5000, 0, 0, -1}, Case{-5, 5000, 1000, -5, -1},
             Case{0, 5000, 0, 7, 7}, Case{0, Device::noMaxRate, 2147483647, 2147483647, 2147483647},
             // The last divider isn't tried, so 1 Hz of 1 Hz has none.
             Case{0, 5000, 1, 1, -1}, Case{0, 5000, 2, 1, -1}, Case{0, 5000, 3, 1, -1}}) {
        EXPECT_EQ(rangeDevice(c.minRate, c.maxRate)->checkRate(c.base, c.requested), c.rate)
            << c.base << " " << c.requested;
    }
}

TEST(DeviceRate, DividedRateAgreesWithTryingEveryDivider) {
    const FractionDevice fractions(15000);
    const auto limited = rangeDevice(100, 5000);
    for (const Device* device : {static_cast<const Device*>(&fractions), static_cast<const Device*>(limited.get())}) {
        for (int base : {17, 96, 125, 1000, 3600, 15000}) {
            for (int requested : {3, 10, 110, 128, 999, 1000, 4000}) {
                const int own = device->checkRate(requested);
                int expected = own > base ? own : -1;
                for (int k = (own + base - 1) / own; expected == -1 && k < base; ++k) {
                    const int candidate = base / k;
                    if (device->checkRate(candidate) == candidate && base % candidate == 0) {
                        expected = candidate;
                    }
                }
                EXPECT_EQ(device->checkRate(base, requested), expected) << base << " " << requested;
            }
        }
    }
}

TEST(DeviceRate, ChannelRateIsAWholeFractionWithinTheChannelsLimits) {
    auto device = rangeDevice(0, 100000);
    auto channel = recording::syncChannel(*device);
    channel->minRate = 5;
    channel->maxRate = 1000;
    for (const auto& [request, rate] : {std::pair{150, 142}, {1000, 1000}, {5000, 1000}, {1, 5}, {0, 5}, {600, 500}}) {
        EXPECT_EQ(device->checkChannelRate(0, 1000, request), rate) << request;
    }
    EXPECT_EQ(device->checkChannelRate(0, 100, 1000), 100);
    channel->minRate = 0;
    EXPECT_EQ(device->checkChannelRate(0, 1000, 0), 1);
    EXPECT_EQ(device->checkChannelRate(0, 0, 10), 0);
    channel->sampleType = SampleType::Async;
    EXPECT_EQ(device->checkChannelRate(0, 1000, 777), 777);
    EXPECT_THROW(device->checkChannelRate(1, 1000, 1), std::out_of_range);
}

TEST(DeviceRate, SampleRateGoesDownTheTreeWithFittingDividers) {
    auto parent = rangeDevice(100, 100000);
    auto slow = rangeDevice(1, 300);
    parent->push_back(slow);
    auto full = recording::syncChannel(*parent);
    auto limited = recording::syncChannel(*parent);
    limited->maxRate = 100;
    auto below = recording::syncChannel(*slow);
    parent->setSampleRate(200);
    EXPECT_EQ(parent->getRate(), 200);
    EXPECT_EQ(full->getRate(), 200);
    EXPECT_EQ(limited->getRate(), 100);
    EXPECT_EQ(slow->rate, 200);
    EXPECT_EQ(below->deviceRate, 200);

    // The parent runs at 300 of 600 Hz because its child can do no more; the channels' dividers count from 600.
    parent->setSampleRate(600);
    EXPECT_EQ(parent->getRate(), 300);
    EXPECT_EQ(full->getRate(), 300);
    EXPECT_EQ(limited->srDiv, 6);
    EXPECT_EQ(slow->getRate(), 300);

    parent->setRate(150);
    EXPECT_EQ(parent->srDiv, 4);
    EXPECT_EQ(full->getRate(), 150);
    EXPECT_EQ(limited->getRate(), 75);
    EXPECT_EQ(slow->getRate(), 150);

    EXPECT_THROW(parent->setSampleRate(99), DaqException);
    EXPECT_EQ(parent->rate, 600);
}

TEST(DeviceRate, WhatNoDividerGivesKeepsTheRate) {
    auto parent = rangeDevice(1, 5000);
    auto child = rangeDevice(110, 5000);
    auto channel = recording::syncChannel(*parent);
    parent->push_back(child);
    parent->setSampleRate(150);
    ASSERT_EQ(child->checkRate(150, 75), -1);
    parent->setRate(75);
    for (int senseless : {0, -1, -1000}) {
        parent->setRate(senseless);
        parent->setSRDiv(senseless);
        EXPECT_EQ(parent->getRate(), 75) << senseless;
        EXPECT_EQ(channel->getRate(), 75) << senseless;
        EXPECT_EQ(child->getRate(), 150) << senseless;
    }
    parent->setRate(5000);
    EXPECT_EQ(parent->getRate(), 150);
}

TEST(ControllerRate, LimitsAndFastestOfTheDevicesWithARate) {
    DaqController controller;
    controller.daqDevices = {std::make_shared<DaqDevice>(), rangeDevice(100, 5000), rangeDevice(50, 8000),
                             rangeDevice(200, 8000)};
    EXPECT_EQ(controller.getMinSampleRate(), 50);
    EXPECT_EQ(controller.getMaxSampleRate(), 8000);
    EXPECT_EQ(controller.findDeviceWithMaxSR(), controller.daqDevices[2]);
    controller.setSampleRate(400);
    EXPECT_EQ(controller.daqDevices[3]->rate, 400);
    EXPECT_EQ(controller.daqDevices[0]->rate, 1000);
}

TEST(ControllerRate, NearestRateThatAllDevicesCanRunAt) {
    const auto fractions = [](int clock) { return std::make_shared<FractionDevice>(clock); };
    struct Case {
        std::vector<std::shared_ptr<DaqDevice>> devices;
        int request, rate;
    };
    for (const auto& c : {
             Case{{std::make_shared<DaqDevice>()}, 1000, 10}, Case{{std::make_shared<DaqDevice>()}, 0, 1},
             Case{{rangeDevice(100, 500)}, 1000, 500}, Case{{rangeDevice(100, 500)}, 7, 100},
             Case{{rangeDevice(100, 500)}, 333, 333}, Case{{fractions(15000000)}, 48000, 46875},
             Case{{fractions(15000000)}, 20000000, 15000000}, Case{{fractions(15000000)}, 7, 10},
             // 46875 divides only the first clock; the second device runs at a third of it.
             Case{{fractions(15000000), fractions(10000000)}, 48000, 46875},
             // 16 Hz suits the first clock only: the walk goes on to the next rate below.
             Case{{fractions(48), fractions(36)}, 17, 12},
             // 7 Hz divides no rate of the faster device: the search ends with that one's own rate.
             Case{{fractions(15000000), rangeDevice(7, 7)}, 1000, 1000}}) {
        DaqController controller;
        controller.daqDevices = c.devices;
        EXPECT_EQ(controller.checkSampleRate(c.request), c.rate) << c.request;
    }
}
