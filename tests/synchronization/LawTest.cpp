#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "modules/daq/synchronization/TimeSyncController.h"
#include "modules/daq/synchronization/TimeSyncVcxoLinear.h"
#include "tests/synchronization/Silence.h"

namespace {

using namespace Harvane::RT::Modules::Daq;

// The instrument's oscillator; its gradient is -28.2368 Hz per step at 512 and -25.1825 at 573.
const TimeSyncVcxoLmk61e2 oscillator(150e6, 1023, 506.0, 200.0);

TEST(TimeSyncVcxo, gradientsAndRange) {
    EXPECT_NEAR(oscillator.getGradient(0), -238.936308, 1e-9);
    EXPECT_NEAR(oscillator.getGradient(506), -28.555072960241883, 1e-9);
    EXPECT_NEAR(oscillator.getGradient(1023), -22.541338059737193, 1e-9);
    EXPECT_EQ(oscillator.getFrequencyErrorRange(), 30'000u);
    EXPECT_EQ(TimeSyncVcxo(10e6, 255, 128.0, 0.19).getFrequencyErrorRange(), 1u);
    EXPECT_EQ(TimeSyncVcxo(150e6, 1023, 506.0, 200.0).getGradient(700), 1.0);
    EXPECT_EQ(TimeSyncVcxoLinear(150e6, 1023, 506.0, 200.0, -30.5).getGradient(700), -30.5);
}

struct Law {
    TimeSyncControllerMaxErrors maxErrors{150e6, 60'000, 150};
    TimeSyncController controller{1.0, oscillator, maxErrors};
    std::atomic<bool> error = false;
    bool tracking = false;

    long pulse(unsigned long pwm, std::int64_t phaseError, std::int64_t frequencyError) {
        const Silence silence;
        return controller.getNextPwmAfterPps(pwm, phaseError, frequencyError, error, tracking);
    }
    // Locked at control word 573 exactly, with the equilibrium there, and the resynchronisation done.
    void lockAt573() {
        pulse(573, 0, 0);
        pulse(573, 0, 0);
        error = false;
    }
};

// One life of the law, pulse by pulse: what goes in and all that comes out.
TEST(TimeSyncController, pulseByPulse) {
    enum Owner { Nothing, ClearsError, SetsError, AllowsMore, Resets };
    struct Step {
        const char* what;
        Owner owner;
        unsigned long pwm;
        std::int64_t phaseError, frequencyError;
        long next;
        bool error, tracking;
        double equilibrium;
    };
    const Step steps[] = {
        {"far off: not averaged", Nothing, 512, 31'200'000, 1630, 570, false, false, 506.0},
        {"at the limit of the average", Nothing, 512, 0, 300, 523, false, false, 506.0},
        {"and on the other side", Nothing, 512, 0, -300, 501, false, false, 506.0},
        {"inside: the calibrated word counts for nothing", Nothing, 512, 0, 299, 523, false, false, 522.5890167710611},
        {"the mean of two", Nothing, 512, 0, -299, 501, false, false, 512.0},
        {"one good pulse", Nothing, 512, 0, 149, 517, false, false, 513.7589333},
        {"at the limit of lock: from the start again", Nothing, 512, 0, 150, 517, false, false, 514.6472539},
        {"below it", Nothing, 512, 0, -149, 507, false, false, 513.0624429},
        {"at the limit on the other side", Nothing, 512, 0, -150, 507, false, false, 512.0},
        {"good", Nothing, 512, 0, 0, 512, false, false, 512.0},
        {"good again: lock, and resynchronisation wanted", Nothing, 512, 0, 0, 512, true, true, 512.0},
        {"wanted: still by frequency, whatever the phase", Nothing, 512, 59'000, 0, 512, true, true, 512.0},
        {"bad: no longer tracking, still wanted", Nothing, 512, 0, 300, 523, true, false, 512.0},
        {"one good pulse after it takes the wish back", Nothing, 512, 0, 0, 512, false, false, 512.0},
        {"two bring it back", Nothing, 512, 0, 0, 512, true, true, 512.0},
        {"done: half of the phase error goes", ClearsError, 512, 1000, 0, 530, false, true, 512.0},
        {"by the gradient in force, about the equilibrium", Nothing, 573, -1000, 400, 492, false, true, 512.0},
        {"as large as may be: above the range", Nothing, 512, 59'999, 400, 1574, false, true, 512.0},
        {"below 0", Nothing, 512, -59'999, 400, -550, false, true, 512.0},
        {"too large: asks, at the equilibrium", Nothing, 573, 60'000, 400, 512, true, true, 512.0},
        {"too large on the other side", ClearsError, 573, -60'000, 400, 512, true, true, 512.0},
        {"the owner allows more", AllowsMore, 512, -60'000, 400, -550, false, true, 512.0},
        {"the owner found the clock wrong: by frequency, tracking", SetsError, 512, 1000, 0, 512, true, true, 512.0},
        {"anew, tracking or not: by frequency, one good pulse", Resets, 512, 1000, 0, 512, false, false, 512.0},
        {"two", Nothing, 512, 1000, 0, 512, true, true, 512.0},
    };
    Law law;
    for (const Step& step : steps) {
        SCOPED_TRACE(step.what);
        if (step.owner == SetsError) {
            law.error = true;
        } else if (step.owner != Nothing) {
            law.error = false;
        }
        if (step.owner == AllowsMore) {
            law.maxErrors.setMaxPhaseError(1'500'000);
        } else if (step.owner == Resets) {
            law.controller.reset();
            EXPECT_EQ(law.controller.getEquilibriumPwm(), 506.0);
        }
        EXPECT_EQ(law.pulse(step.pwm, step.phaseError, step.frequencyError), step.next);
        EXPECT_EQ(law.error, step.error);
        EXPECT_EQ(law.tracking, step.tracking);
        EXPECT_NEAR(law.controller.getEquilibriumPwm(), step.equilibrium, 1e-6);
    }
    // What no counter delivers still has a size.
    law.error = false;
    law.pulse(512, INT64_MIN, INT64_MIN);
}

TEST(TimeSyncController, equilibriumIsTheMeanOfTwentyThenFollows) {
    Law law;
    for (int i = 0; i < 19; ++i) {
        law.pulse(500, 0, 0);
    }
    law.pulse(540, 0, 0);
    EXPECT_NEAR(law.controller.getEquilibriumPwm(), 502.0, 1e-9);
    law.pulse(552, 0, 0);
    EXPECT_NEAR(law.controller.getEquilibriumPwm(), 0.2 * 552 + 0.8 * 502, 1e-9);
    law.controller.reset();
    law.pulse(400, 0, 0);
    EXPECT_EQ(law.controller.getEquilibriumPwm(), 400.0);
}

TEST(TimeSyncController, halvesGoAwayFromZeroAndALossChangesNothing) {
    Law law;
    law.pulse(573, 0, 0);
    law.pulse(574, 0, 0);
    law.error = false;
    EXPECT_EQ(law.controller.getNextPwmAfterSignalLost(), 574);
    EXPECT_EQ(law.controller.getNextPwmAfterSignalLost(), 574);
    EXPECT_EQ(law.controller.getEquilibriumPwm(), 573.5);
    EXPECT_EQ(law.pulse(573, 0, 400), 574);
    EXPECT_EQ(law.pulse(573, 60'000, 400), 574);
}

TEST(TimeSyncController, saysWhatItDoes) {
    Law law;
    const auto said = [&law](unsigned long pwm, std::int64_t phaseError, std::int64_t frequencyError) {
        testing::internal::CaptureStdout();
        law.controller.getNextPwmAfterPps(pwm, phaseError, frequencyError, law.error, law.tracking);
        return testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ(said(512, 0, 1630), "Daqtime sync ERROR 0\nMAY RESYNC\nGradient -57.726078\nFrequency fix 569.726078\n");
    EXPECT_EQ(said(573, 0, 0),
              "Gradient -0.000000\nFrequency fix 573.000000\nSAMPLES Equilibrium PWM: 573.000000\n"
              "Daqtime sync ERROR 0\nMAY RESYNC\nGradient -0.000000\nFrequency fix 573.000000\n");
    law.lockAt573();
    EXPECT_EQ(said(573, 1000, 400), "Daqtime sync ERROR 0\nGradient -39.710114\n");
    EXPECT_EQ(said(573, 60'000, 400), "Daqtime sync ERROR 0\nPERIOD MATCH NEEDS RESYNC\n");
    EXPECT_EQ(said(573, 0, 400), "Daqtime sync ERROR 1\nMAY RESYNC\nGradient -15.884046\nFrequency fix 588.884046\n");
    for (int i = 0; i < 17; ++i) {
        law.pulse(573, 0, 0);
    }
    EXPECT_EQ(said(573, 0, 0),
              "Gradient -0.000000\nFrequency fix 573.000000\nEquilibrium PWM: 573.000000\n"
              "Daqtime sync ERROR 1\nMAY RESYNC\nGradient -0.000000\nFrequency fix 573.000000\n");
}

// For the thread sanitizer; an average of 500s, or a fresh 506, is all that may ever be seen. Each of the others does
// one thing only: what orders one access would hide that another has no order.
TEST(TimeSyncController, othersResetAndAskWhilePulsesCome) {
    Law law;
    std::atomic<bool> stop = false;
    const auto untilStopped = [&stop](auto work) {
        return std::thread([&stop, work] {
            while (!stop.load(std::memory_order_relaxed)) {
                work();
            }
        });
    };
    std::thread others[] = {
        untilStopped([&law] { law.controller.reset(); }),
        untilStopped([&law] { law.maxErrors.setMaxPhaseError(1'500'000); }),
        untilStopped([&law] {
            const double equilibrium = law.controller.getEquilibriumPwm();
            EXPECT_TRUE(equilibrium == 500.0 || equilibrium == 506.0) << equilibrium;
        }),
    };
    {
        const Silence silence;
        for (int i = 0; i < 20'000; ++i) {
            law.controller.getNextPwmAfterPps(500, 0, 0, law.error, law.tracking);
            law.error = false;
        }
    }
    stop = true;
    for (std::thread& other : others) {
        other.join();
    }
}

}  // namespace
