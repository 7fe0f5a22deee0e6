#pragma once

#include <memory>
#include <string>
#include <vector>

#include "modules/daq/objectmodel/Channel.h"
#include "modules/daq/objectmodel/DaqClock.h"
#include "modules/daq/objectmodel/DaqDevice.h"
#include "modules/daq/objectmodel/DaqLoop.h"
#include "modules/daq/objectmodel/DaqTiming.h"
#include "modules/daq/objectmodel/SubDevice.h"
#include "modules/daq/objectmodel/SystemDevice.h"

// Devices and channels that write down which step reached them, in one common list.
namespace recording {

using namespace Harvane::RT::Modules::Daq;
using Steps = std::vector<std::string>;

// Base is any device class that can be made without arguments.
template <class Base>
class Recorded : public Base {
public:
    Recorded(Steps& steps, const std::string& id) : steps(steps), id(id) { this->model = id; }

    void initializeHardware() override { note("hardware"), Base::initializeHardware(); }
    void applySynchronization() override { note("sync"), Base::applySynchronization(); }
    void prepareAcquisition(bool recursive) override {
        note("prepare", recursive), Base::prepareAcquisition(recursive);
    }
    void initializeAcquisition(bool recursive) override {
        note("initialize", recursive), Base::initializeAcquisition(recursive);
    }
    void startAcquisition(bool recursive) override { note("start", recursive), Base::startAcquisition(recursive); }
    void stopAcquisition(bool recursive) override { note("stop", recursive), Base::stopAcquisition(recursive); }
    void finalizeAcquisition(bool recursive) override {
        note("finalize", recursive), Base::finalizeAcquisition(recursive);
    }
    void setUsedChannels(bool recursive) override { note("used", recursive), Base::setUsedChannels(recursive); }
    void acquireData() override {
        note("acquire"), Base::acquireData();
        if (failing == "acquire") {
            throw std::runtime_error(id + " fails");
        }
    }
    void sendData() override { note("send"), Base::sendData(); }
    std::vector<std::string> checkHardware() override { return faults.empty() ? Base::checkHardware() : faults; }

    void abortAcquisition() noexcept override { ++aborts, Base::abortAcquisition(); }

    std::string failing;  // the step that throws
    int aborts = 0;
    std::vector<std::string> faults;

protected:
    void note(const std::string& step) { steps.push_back(id + "." + step); }
    void note(const std::string& step, bool recursive) {
        note(step + (recursive ? "(true)" : "(false)"));
        if (step == failing) {
            throw std::runtime_error(step + " fails");
        }
    }

    Steps& steps;
    std::string id;
};

class RecordedChannel : public Channel {
public:
    RecordedChannel(Steps& steps, int number, const std::string& id) : Channel(number), steps(steps), id(id) {
        sampleType = SampleType::Sync;
        createChannelBuffer<int>();
    }
    void prepareAcquisition() override { steps.push_back(id + ".prepare"), Channel::prepareAcquisition(); }
    void initializeAcquisition() override {
        steps.push_back(id + (active ? ".initialize active" : ".initialize")), Channel::initializeAcquisition();
    }
    void beforeAcquireData() override { steps.push_back(id + ".before"), Channel::beforeAcquireData(); }
    void afterAcquireData() override { steps.push_back(id + ".after"), Channel::afterAcquireData(); }
    bool hasCycleHooks() const override { return true; }
    void finalizeAcquisition() override { steps.push_back(id + ".finalize"), Channel::finalizeAcquisition(); }

private:
    Steps& steps;
    std::string id;
};

struct PlainTiming : DaqTiming {
    std::int64_t getStartTime() override { return -1; }
    std::int64_t getCurrentTime(bool&, bool&) override { return -1; }
};

struct PlainLoop : DaqLoop {
    int checkCycleRate(int requested) const override { return requested; }
    int checkCycleRate(int requested, const std::vector<int>&) const override { return requested; }
    void setCycleFunction(const std::function<void()>&) override {}
};

inline std::shared_ptr<Channel> syncChannel(Device& device) {
    auto channel = std::make_shared<Channel>(static_cast<int>(device.channels.size()));
    channel->sampleType = SampleType::Sync;
    channel->createChannelBuffer<int>();
    device.channels.push_back(channel);
    return channel;
}

}  // namespace recording
