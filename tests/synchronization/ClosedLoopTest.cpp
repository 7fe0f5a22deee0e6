#include <gtest/gtest.h>

#include "tests/synchronization/ClockLoop.h"
#include "tests/synchronization/Silence.h"

namespace {

using ClockLoop::Reference;

struct Bounds {
    Reference reference;
    int pulsesToLock;
    // Counts of 6.67 ns. The spikes of a PTP reference are followed for a pulse, at most 2000 counts.
    double rms, max;
    // Counts a second when a hold begins. A step of the control word is up to 62.
    double holdFrequency;
    double phaseAfter;
};

// Pull-in, tracking, holds and steps on oscillators and references that no two seeds share.
TEST(ClosedLoop, staysWithinBoundsWhateverTheSeed) {
    const Bounds kinds[] = {
        {Reference::Pps, 35, 22.0, 75.0, 35.0, 40.0},
        {Reference::Irig, 70, 60.0, 240.0, 55.0, 100.0},
        {Reference::Ptp, 35, 130.0, 2300.0, 50.0, 300.0},
    };
    int beyondSteering = 0;
    for (const Bounds& bounds : kinds) {
        for (std::uint64_t seed = 1; seed <= 100; ++seed) {
            SCOPED_TRACE(testing::Message() << ClockLoop::nameOf(bounds.reference) << ", seed " << seed);
            ClockLoop::LawServo law;
            const ClockLoop::Figures figures = [&] {
                const Silence silence;
                return ClockLoop::measure(bounds.reference, seed, law);
            }();
            EXPECT_LE(figures.pulsesToLock, bounds.pulsesToLock);
            EXPECT_LE(figures.rms, bounds.rms);
            EXPECT_LE(figures.max, bounds.max);
            EXPECT_TRUE(figures.alwaysTracking);
            for (const ClockLoop::Hold& hold : figures.holds) {
                SCOPED_TRACE(testing::Message() << "without a reference for " << hold.seconds << " s");
                EXPECT_TRUE(hold.wordStood);
                EXPECT_LE(std::abs(hold.frequency), bounds.holdFrequency);
                // What comes to it is the oscillator's own drift, which grows with the square of the time.
                if (hold.seconds <= 100) {
                    EXPECT_LE(std::abs(hold.drift), (bounds.holdFrequency + 10.0) * hold.seconds);
                    EXPECT_FALSE(hold.resyncWanted);
                } else {
                    beyondSteering += hold.resyncWanted ? 1 : 0;
                }
                EXPECT_LE(hold.phaseAfter, bounds.phaseAfter);
            }
            EXPECT_LE(figures.stepPulses, 30);
            EXPECT_LE(figures.phaseAfterResync, bounds.phaseAfter);
        }
    }
    // An hour takes some of them beyond what can be steered back and some not; both ways back have been gone.
    EXPECT_GT(beyondSteering, 30);
    EXPECT_LT(beyondSteering, 270);
}

}  // namespace
