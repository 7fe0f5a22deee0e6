#pragma once

#include <deque>
#include <filesystem>
#include <mutex>

#include "modules/daq/objectmodel/Amplifier.h"
#include "tests/bridge/Bench.h"

namespace Harvane::RT::Modules::Daq {
class AIDevice;
}

namespace Harvane::RT::Modules::Daq::Test {

// A folder of its own, gone with the object.
struct TempFolder {
    TempFolder();
    ~TempFolder() { std::filesystem::remove_all(path); }
    std::string write(const std::string& name, const std::string& text) const;
    std::filesystem::path path;
};

// What happened, in order, from several threads.
class Journal {
public:
    void add(const std::string& entry) {
        const std::lock_guard lock(mutex_);
        entries_.push_back(entry);
    }
    Texts take() {
        const std::lock_guard lock(mutex_);
        return std::exchange(entries_, {});
    }

private:
    std::mutex mutex_;
    Texts entries_;
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
    int getSensorStatus() override { return answered("getSensorStatus"); }
    int readTeds(unsigned char* data) override;
    int resetTedsCustom() override { return answered("resetTedsCustom"); }
    int writeTedsCustom(unsigned char* data, unsigned long length) override;
    int readTedsCustom(unsigned char* data, unsigned long length) override;
    int finalizeTedsCustom() override { return answered("finalizeTedsCustom"); }
    void notifyEnterChSetup() override { journal.add("notifyEnterChSetup"); }
    void notifyLeaveChSetup() override { journal.add("notifyLeaveChSetup"); }
    void updateDeviceRangeDuringAcquisition(int index) override;
    using Amplifier::setFailure;
    void updateCalibrationFactorsDuringAcquisition() override { journal.add("calibration"); }

    Journal journal;
    std::function<void(TestAmplifier&)> onUpdate;  // the hardware changes settings
    std::function<void()> onScale;
    std::function<void()> onRange;
    bool updateResult = true;
    int answer = 0;
    std::deque<double> scales;  // one for each question, then 1.0
    bool offsetIsBridgeOffset = false;

private:
    int answered(const std::string& question);
};

// A device with the pair of channels (raw, filtered) that share the amplifier, whose ring holds some samples.
std::shared_ptr<AIDevice> makePair(const std::shared_ptr<Amplifier>& amplifier, const std::vector<float>& samples);

// A class with these properties.
std::string definitionOf(const std::string& name, const std::string& properties);
// A definition as a file of a folder "amplifiers" holds it. `properties` follow the identifier, each with its comma in
// front, as those below have it.
std::string definition(const std::string& name, const std::string& id, const std::string& properties = "");
std::string choice(const char* name, const char* values);
std::string plain(const char* name, const char* type, const char* defaultValue);
std::string slot(const char* name, const char* type);
inline const std::string balanceSlots =
    slot("StartSensorBalance", "proc") + slot("GetSensorBalanceStatus", "func") + slot("ResetSensorBalance", "proc");
// A measuring range of +-20 mV/V and one from -2 to 3 mV/V.
inline const std::string rangeList = R"(, {"name": "Range", "type": "int", "selection": true, "default": 0,
    "unit": "mV/V", "values": [
        {"className": "RangeItem", "propValues": {"DisplayName": "20", "Min": -20.0, "Max": 20.0}},
        {"className": "RangeItem", "propValues": {"DisplayName": "2", "Min": -2.0, "Max": 3.0}}]})";

Core::ChannelPtr<> makeHostChannel();
// Runs a procedure of a channel and gives the code.
Core::ErrCode runProcedure(const Core::ChannelPtr<>& channel, const char* name, const Core::BasePtr& argument = {});
// False when it isn't so within ten seconds.
bool eventually(const std::function<bool()>& condition);

}  // namespace Harvane::RT::Modules::Daq::Test
