#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "modules/daq/controller/DaqController.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixAI.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDevice.h"
#include "modules/daq/objectmodel/SystemDevice.h"
#include "shared/libraries/kestrix/src/AmplifierCommunication.h"
#include "simulator/preload/Control.h"

namespace Harvane::RT::Modules::Daq {

// A test of the instrument's classes on a simulated instrument. The board-wide values are those of the test before.
class KestrixFixture : public testing::Test {
protected:
    KestrixFixture();
    ~KestrixFixture() override;

    // Eight slots as they come, with the supply up already: switching it on takes 0.3 s a slot.
    static kestrixsim::Scenario warmScenario(int modules);

    // Discovery up to the channels, as the module does it.
    void bringUp(const kestrixsim::Scenario& scenario);
    // The walks of a run, step by step and in any order: the controller's phases have no say here.
    void setUpRun();
    void prepare();  // up to the start of the acquisition
    void start();    // prepare and start
    void stop();
    void takeDown();  // the tree goes, the instrument stays

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
    // The same over all the channels given, on counter waveforms: every sample has its own number as its value, and
    // each of them is looked at. Fails the test after twenty seconds.
    void acquireCounting(std::initializer_list<int> numbers, uint64_t samples);
    // Checks what came since the last call.
    static void expectCounting(Channel& channel, uint64_t& seen);

    // What the instrument has on of an acquisition, such as "converters, r0"; empty when it rests.
    static std::string whatIsOn();
    // Changes in the hardware since the last call, from bringUp() on. A chain empties itself anew when the report of
    // its clear is taken back: lines that repeat themselves count once.
    std::vector<std::string> takeJournal();

    // Frames that amplifiers took since the last call, without slot, key and end.
    std::vector<std::string> takeFrames();

    std::unique_ptr<DaqController> controller;

private:
    size_t framesTaken_ = 0;
    size_t journalTaken_ = 0;
};

}  // namespace Harvane::RT::Modules::Daq
