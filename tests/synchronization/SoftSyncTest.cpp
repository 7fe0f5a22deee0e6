#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <random>
#include <thread>

#include "modules/daq/synchronization/SoftSyncAlgorithm.h"

namespace {

using Harvane::Utils::Synchronization::SoftSyncAlgorithm;

TEST(SoftSync, firstPairsGiveTheOffsetAndTheThirdTheSlope) {
    SoftSyncAlgorithm sync;
    sync.setDeviceRate(0.5);
    sync.initiate();
    EXPECT_EQ(sync.masterTimeAt(5.0), -1.0);
    EXPECT_EQ(sync.slaveTimeAt(5.0), -1.0);
    sync.setDeviceTime(10.0, 4.0);  // the slope is 1 / rate = 2: offset 2
    EXPECT_NEAR(sync.readSystemTimeD(5.0), 12.0, 1e-12);
    EXPECT_NEAR(sync.slaveTimeAt(12.0), 5.0, 1e-12);
    sync.synchronizeClocks(13.0, 5.0);  // offsets 2 and 3, the older one half as heavy
    EXPECT_NEAR(sync.masterTimeAt(0.0), 8.0 / 3.0, 1e-12);
    // Weights 1/4, 1/2, 1: means 11.5 / 1.75 of the slave and 30 / 1.75 of the master, slope 187 / 69.
    sync.synchronizeClocks(21.0, 8.0);
    EXPECT_NEAR(sync.masterTimeAt(1.0) - sync.masterTimeAt(0.0), 187.0 / 69.0, 1e-12);
    EXPECT_NEAR(sync.masterTimeAt(11.5 / 1.75), 30.0 / 1.75, 1e-12);
    EXPECT_NEAR(sync.slaveTimeAt(30.0 / 1.75), 11.5 / 1.75, 1e-12);

    sync.deInit();
    EXPECT_NEAR(sync.getDeviceRate(), 69.0 / 187.0, 1e-12);
    sync.reset();
    EXPECT_EQ(sync.masterTimeAt(5.0), -1.0);
    EXPECT_EQ(sync.slaveTimeAt(5.0), -1.0);
    sync.synchronizeClocks(1.0, 1.0);  // forgets the pairs, not the slope
    EXPECT_NEAR(sync.masterTimeAt(2.0), 1.0 + 187.0 / 69.0, 1e-12);
    sync.setDeviceRate(-1.0);
    sync.initiate();
    sync.synchronizeClocks(1.0, 1.0);
    sync.deInit();  // too few pairs to tell a rate
    EXPECT_EQ(sync.getDeviceRate(), -1.0);
    EXPECT_NEAR(sync.masterTimeAt(2.0), 2.0, 1e-12);
}

TEST(SoftSync, pairsThatAreNone) {
    const double none = std::numeric_limits<double>::quiet_NaN();
    const double endless = std::numeric_limits<double>::infinity();
    struct Case {
        const char* what;
        double master, slave;
        bool taken;
    };
    // After (101, 101), (102, 102), (103, 103).
    const Case cases[] = {
        {"at 0", 0.0, 104.0, false},
        {"slave at 0", 104.0, 0.0, false},
        {"below 0", 104.0, -104.0, false},
        {"no number", none, 104.0, false},
        {"no slave", 104.0, none, false},
        {"endless", endless, 104.0, false},
        {"both older", 101.5, 101.5, false},
        {"both much older", 1.0, 3.0, false},
        {"master a little back", 102.0, 104.0, false},
        {"slave a little back", 104.0, 102.0, false},
        {"the same again", 103.0, 103.0, true},
        {"newer", 104.25, 104.0, true},
        {"master set back", 51.5, 103.5, true},
        {"slave set back", 104.0, 7.0, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        SoftSyncAlgorithm sync;
        sync.initiate();
        for (const double time : {101.0, 102.0, 103.0}) {
            sync.synchronizeClocks(time, time);
        }
        const bool setBack = c.taken && (c.master < 103.0 || c.slave < 103.0);
        EXPECT_EQ(sync.validTimeStamp(c.master, c.slave), c.master >= 103.0 && c.slave >= 103.0);
        sync.synchronizeClocks(c.master, c.slave);
        if (!c.taken) {
            EXPECT_NEAR(sync.masterTimeAt(50.0), 50.0, 1e-9);
        } else if (setBack) {
            EXPECT_NEAR(sync.masterTimeAt(c.slave + 2.0), c.master + 2.0, 1e-9);
            // And its own slope after two more.
            sync.synchronizeClocks(c.master + 1.5, c.slave + 1.0);
            sync.synchronizeClocks(c.master + 3.0, c.slave + 2.0);
            EXPECT_NEAR(sync.masterTimeAt(c.slave + 4.0), c.master + 6.0, 1e-9);
        } else {
            EXPECT_NEAR(sync.masterTimeAt(c.slave), c.master, 0.05);
            EXPECT_TRUE(c.master == 103.0 || sync.masterTimeAt(50.0) < 50.0);
        }
    }
}

TEST(SoftSync, clocksThatStandStill) {
    SoftSyncAlgorithm sync;
    sync.initiate();
    for (const double master : {10.0, 11.0, 12.0, 13.0}) {
        sync.synchronizeClocks(master, 5.0);
    }
    EXPECT_NEAR(sync.masterTimeAt(6.0) - sync.masterTimeAt(5.0), 1.0, 1e-12);
    SoftSyncAlgorithm standing;
    standing.initiate();
    for (const double slave : {10.0, 11.0, 12.0, 13.0}) {
        standing.synchronizeClocks(5.0, slave);
    }
    EXPECT_EQ(standing.masterTimeAt(99.0), 5.0);
    EXPECT_EQ(standing.slaveTimeAt(5.0), -1.0);
    standing.deInit();
    EXPECT_EQ(standing.getDeviceRate(), 1.0);
}

// Pairs each 100 ms on clocks that drift and jitter, begun anew now and then, on computers that have been up for long,
// and in recordings that last for long.
TEST(SoftSync, recoversSlopeAndOffset) {
    struct Case {
        double uptime, jitter, slopeBound;
        // Pairs in one go, far apart when the recording is to last.
        double spacing;
        int pairs;
    };
    const Case cases[] = {
        {0.0, 0.0, 1e-9, 0.1, 300},        {0.0, 5e-6, 2e-3, 0.1, 300},     {1e6, 0.0, 1e-8, 0.1, 300},
        {1e6, 5e-6, 2e-3, 0.1, 300},       {1e6, 5e-6, 1e-6, 1000.0, 1000}, {1.7e9, 5e-6, 2e-3, 0.1, 300},
        {3e6, 5e-6, 2e-3, 0.1, 2'000'000},
    };
    for (const Case& c : cases) {
        for (unsigned seed = 1; seed <= (c.pairs > 1000 ? 1 : 50); ++seed) {
            SCOPED_TRACE(testing::Message()
                         << "up for " << c.uptime << " s, jitter " << c.jitter << " s, seed " << seed);
            std::mt19937 random(seed);
            std::uniform_real_distribution<double> uniform(-1.0, 1.0);
            SoftSyncAlgorithm sync;
            for (int run = 0; run < 3; ++run) {
                sync.initiate();
                // The master's time when the slave's is at the uptime, and the slope, which creeps.
                double master = c.uptime + 1.0 + 50.0 * std::abs(uniform(random));
                double slave = c.uptime + 1.0;
                double slope = 1.0 + 2e-4 * uniform(random);
                const double creep = 1e-9 * uniform(random);
                for (int pair = 0; pair < c.pairs; ++pair) {
                    slave += c.spacing;
                    master += c.spacing * slope;
                    slope += c.jitter > 0.0 ? creep * c.spacing / 1000.0 : 0.0;
                    sync.synchronizeClocks(master + c.jitter * uniform(random), slave);
                }
                const double resolution = 4.0 * master * std::numeric_limits<double>::epsilon();
                const double recovered = (sync.masterTimeAt(slave + 64.0) - sync.masterTimeAt(slave)) / 64.0;
                EXPECT_NEAR(recovered, slope, c.slopeBound + resolution / std::min(c.spacing, 64.0) * 4.0);
                EXPECT_NEAR(sync.masterTimeAt(slave), master, 3.0 * c.jitter + resolution + 1e-9);
                EXPECT_NEAR(sync.slaveTimeAt(master), slave, 3.0 * c.jitter + resolution + 1e-9);
                sync.deInit();
            }
        }
    }
}

// A reader never sees the slope of one line with the offset of another.
TEST(SoftSync, readersBesideTheWriter) {
    SoftSyncAlgorithm sync;
    sync.initiate();
    sync.synchronizeClocks(1000.0, 1000.0);
    std::atomic<int> reads = 0;
    std::thread reader([&] {
        while (reads < 5000) {
            EXPECT_NEAR(sync.masterTimeAt(0.0), 0.0, 1e-3);
            EXPECT_NEAR(sync.slaveTimeAt(500.0), 500.0, 1e-3);
            ++reads;
        }
    });
    for (double time = 1001.0; reads < 5000; time += 1.0) {
        sync.synchronizeClocks(time, time);
    }
    reader.join();
}

}  // namespace
