#include <gtest/gtest.h>

#include "RecordingDevice.h"
#include "modules/daq/objectmodel/GenericDaqClock.h"

using namespace Harvane::RT::Modules::Daq;

namespace {

// A device with the generic clock and one part that has the channels.
struct Clock : testing::Test {
    Clock() {
        device->push_back(part);
        device->initialize();
        device->rate = 1000;
        device->setOperationMode(1);
    }
    std::shared_ptr<Channel> channel(int divider, bool used, SampleType type = SampleType::Sync) {
        auto made = recording::syncChannel(*part);
        made->sampleType = type;
        made->srDiv = divider;
        made->used = used;
        return made;
    }
    double now() { return device->daqClock->getCurrentTime(true); }

    std::shared_ptr<DaqDevice> device = std::make_shared<DaqDevice>();
    std::shared_ptr<SubDevice> part = std::make_shared<SubDevice>();
};

}  // namespace

TEST_F(Clock, CountsTheSamplesOfTheFastestActiveChannel) {
    auto full = channel(1, true);
    auto quarter = channel(4, true);
    auto unused = channel(1, false);
    device->initializeAcquisition(true);
    device->startAcquisition(true);
    EXPECT_EQ(now(), -1.0);
    full->samplesAcquired = 2000;
    quarter->samplesAcquired = 500;
    unused->samplesAcquired = 90000;
    EXPECT_EQ(now(), 2.0);
    quarter->samplesAcquired = 501;
    EXPECT_EQ(now(), 2.004);
    device->initializeAcquisition(true);
    EXPECT_EQ(now(), -1.0);
}

TEST_F(Clock, RunsOnTheSteadyClockWithoutSynchronousChannels) {
    channel(1, false);
    auto async = channel(1, true, SampleType::Async);
    device->initializeAcquisition(true);
    async->samplesAcquired = 5;
    EXPECT_EQ(now(), -1.0);
    device->startAcquisition(true);
    const double first = now();
    EXPECT_GE(first, 0.0);
    double later = first;
    while (later <= first) {
        later = now();
    }
    EXPECT_LT(later, 60.0);
    device->initializeAcquisition(true);
    EXPECT_EQ(now(), -1.0);
}
