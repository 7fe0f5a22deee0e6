#pragma once

#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <zorn/structure/channel.h>
#include <zorn/structure/module.h>

#include "modules/daq/amplifier/Amplifier.h"

namespace Harvane::RT::Modules::Daq {
class AIDevice;
}

namespace Harvane::RT::Modules::Daq::Test {

// A folder of its own, gone with the object.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string write(const std::string& name, const std::string& text) const;
    std::filesystem::path path;
};

// What happened, in order, from several threads.
class Journal {
public:
    void add(const std::string& entry);
    std::vector<std::string> take();

private:
    std::mutex mutex_;
    std::vector<std::string> entries_;
};

// Says what is asked of it and answers as told.
class TestAmplifier : public Amplifier {
public:
    bool update() override;
    int getModuleType() override { return 7; }
    int getHwCapabilities() override { return 8; }
    int getFwCapabilities() override { return 9; }
    int getConnectorType() override { return 10; }
    double getScale() override;
    double getOffset() override { return offsetIsBridgeOffset ? Amplifier::getOffset() : 0.0; }
    int getSensorStatus() override;
    int readTeds(unsigned char* data) override;
    int resetTedsCustom() override;
    int writeTedsCustom(unsigned char* data, unsigned long length) override;
    int readTedsCustom(unsigned char* data, unsigned long length) override;
    int finalizeTedsCustom() override;
    void notifyEnterChSetup() override;
    void notifyLeaveChSetup() override;
    void updateDeviceRangeDuringAcquisition(int index) override;
    void updateCalibrationFactorsDuringAcquisition() override;

    Journal journal;
    std::function<void(TestAmplifier&)> onUpdate;  // the hardware changes settings
    std::function<void()> onScale;
    bool updateResult = true;
    int answer = 0;
    std::deque<double> scales;  // one for each question, then 1.0
    bool offsetIsBridgeOffset = false;
};

// A device with the pair of channels (raw, filtered) that share the amplifier, whose ring holds some samples.
std::shared_ptr<AIDevice> makePair(const std::shared_ptr<Amplifier>& amplifier, const std::vector<float>& samples);

// A definition as a file of a folder "amplifiers" holds it. `properties` follow the identifier, each with its comma in
// front.
std::string definition(const std::string& name, const std::string& id, const std::string& properties = "");

Core::ChannelPtr<> makeHostChannel();
// Runs a function or procedure of a channel and gives the code; takes the error's text.
Core::ErrCode runProcedure(const Core::ChannelPtr<>& channel, const char* name, const Core::BasePtr& argument = {});
Core::ErrCode runFunction(const Core::ChannelPtr<>& channel, const char* name, const Core::BasePtr& argument,
                          Core::BasePtr& result);
std::vector<int> integers(const Core::BasePtr& list);
Core::BasePtr listOf(const std::vector<int>& numbers);
// False when it isn't so within ten seconds.
bool eventually(const std::function<bool()>& condition);

}
