#include <gtest/gtest.h>

#include <tuple>

#include "RecordingDevice.h"
#include "modules/daq/controller/DaqController.h"

using namespace Harvane::RT::Modules::Daq;

namespace {

// Runs at whole fractions of its clock only and knows nothing below 10 Hz, like the instrument's analog part.
struct FractionDevice : DaqDevice {
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

}  // namespace

TEST(DeviceRate, ClampsToItsOwnAndItsChildrensLimits) {
    auto parent = rangeDevice(100, 5000);
    parent->push_back(rangeDevice(0, 2000));
    for (const auto& [request, rate] :
         {std::pair{50, 100}, {100, 100}, {1500, 1500}, {2500, 2000}, {99999, 2000}, {0, 100}, {-7, 100}}) {
        EXPECT_EQ(parent->checkRate(request), rate) << request;
    }
}

TEST(DeviceRate, DividedRateIsAWholeFractionOfTheBase) {
    for (const auto& [minRate, maxRate, base, requested, rate] :
         {std::tuple{100, 5000, 1000, 10, 100},
          {2000, 5000, 1000, 10, 2000},
          {1, 500, 1000, 1000, 500},
          // Many dividers in a row give a quotient that is no divisor.
          {100, 5000, 15000, 128, 125},
          {100, 5000, 3600, 999, 900},
          {100, 5000, 46875, 4000, 3125},
          {1, 15000, 15000, 11, 10},
          {1, 15000, 3600, 7, 6},
          {1, 5000, 17, 10, 1},
          {1, 5000, 96, 5, 4},
          // Divisors below the minimum are clamped away: no divider at all.
          {100, 5000, 125, 110, -1},
          {100, 5000, 150, 110, -1},
          {100, 5000, 46875, 110, -1},
          // Nothing to divide by.
          {0, 5000, 1000, 0, -1},
          {0, 5000, 0, 0, -1},
          {-5, 5000, 1000, -5, -1},
          {0, 5000, 0, 7, 7},
          {0, Device::noMaxRate, 2147483647, 2147483647, 2147483647},
          // The last divider isn't tried, so 1 Hz of 1 Hz has none.
          {0, 5000, 1, 1, -1},
          {0, 5000, 2, 1, -1},
          {0, 5000, 3, 1, -1}}) {
        EXPECT_EQ(rangeDevice(minRate, maxRate)->checkRate(base, requested), rate) << base << " " << requested;
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
    using Devices = std::vector<std::shared_ptr<DaqDevice>>;
    for (const auto& [devices, request, rate] :
         {std::tuple{Devices{std::make_shared<DaqDevice>()}, 1000, 10},
          {{std::make_shared<DaqDevice>()}, 0, 1},
          {{rangeDevice(100, 500)}, 1000, 500},
          {{rangeDevice(100, 500)}, 7, 100},
          {{rangeDevice(100, 500)}, 333, 333},
          {{fractions(15000000)}, 48000, 46875},
          {{fractions(15000000)}, 20000000, 15000000},
          {{fractions(15000000)}, 7, 10},
          // 46875 divides only the first clock; the second device runs at a third of it.
          {{fractions(15000000), fractions(10000000)}, 48000, 46875},
          // 16 Hz suits the first clock only: the walk goes on to the next rate below.
          {{fractions(48), fractions(36)}, 17, 12},
          // 7 Hz divides no rate of the faster device: the search ends with that one's own rate.
          {{fractions(15000000), rangeDevice(7, 7)}, 1000, 1000}}) {
        DaqController controller;
        controller.daqDevices.assign(devices.begin(), devices.end());
        EXPECT_EQ(controller.checkSampleRate(request), rate) << request;
    }
}
