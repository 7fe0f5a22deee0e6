#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "modules/daq/controller/DaqController.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixAI.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDevice.h"
#include "shared/libraries/kestrix/src/AmplifierCommunication.h"
#include "simulator/preload/Control.h"

namespace Harvane::RT::Modules::Daq {

// A test of the instrument's classes on a simulated instrument. The board-wide values are those of a fresh process.
class KestrixFixture : public testing::Test {
protected:
    KestrixFixture();
    ~KestrixFixture() override;

    // Eight slots as they come, with the supply up already: switching it on takes 0.3 s a slot.
    static kestrixsim::Scenario warmScenario(int modules);

    // Discovery up to the channels, as the module does it.
    void bringUp(const kestrixsim::Scenario& scenario);
    void prepare();  // up to the start of the acquisition
    void start();    // prepare and start
    void stop();
    void tearDown();  // the tree goes, the instrument stays

    KestrixDevice& device() const;
    KestrixAI& ai() const;
    Channel& channel(int number) const;
    void use(std::initializer_list<int> numbers) const;

    static uint32_t word(uint64_t address) { return kestrixsim::instrument().registerWord(address); }
    static void inject(const kestrixsim::Fault& fault) { kestrixsim::instrument().inject(fault); }
    static void clearFaults() { kestrixsim::instrument().clearFaults(); }
    static bool isDetected(const KestrixAI& ai, int slot) {
        return ai.getAmplifierCommunication()->getAmplifier(slot)->isAmplifierDefined();
    }

    // Runs the cycle until the channel has so many samples. Fails the test after ten seconds.
    void acquire(const Channel& channel, uint64_t samples);

    std::unique_ptr<DaqController> controller;
};

}  // namespace Harvane::RT::Modules::Daq
