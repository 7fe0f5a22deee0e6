#include "tests/amplifiermodel/TestAmplifiers.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/AIDevice.h"

namespace Harvane::RT::Modules::Daq::Test {

using namespace Core;

TempFolder::TempFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "amplifiers-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no temporary folder");
    }
    path = name;
}

TempFolder::~TempFolder() {
    std::error_code error;
    std::filesystem::remove_all(path, error);
}

std::string TempFolder::write(const std::string& name, const std::string& text) const {
    const auto file = path / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
    return file.string();
}

void Journal::add(const std::string& entry) {
    const std::lock_guard lock(mutex_);
    entries_.push_back(entry);
}

std::vector<std::string> Journal::take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(entries_, {});
}

bool TestAmplifier::update() {
    journal.add("update");
    if (onUpdate) {
        onUpdate(*this);
    }
    return updateResult;
}

double TestAmplifier::getScale() {
    if (onScale) {
        onScale();
    }
    if (scales.empty()) {
        return 1.0;
    }
    const double scale = scales.front();
    scales.pop_front();
    return scale;
}

int TestAmplifier::getSensorStatus() {
    journal.add("getSensorStatus");
    return answer;
}

int TestAmplifier::readTeds(unsigned char* data) {
    journal.add("readTeds");
    if (answer >= 0) {
        for (int i = 0; i < 8; ++i) {
            data[i] = static_cast<unsigned char>(250 + i);
        }
    }
    return answer;
}

int TestAmplifier::resetTedsCustom() {
    journal.add("resetTedsCustom");
    return answer;
}

int TestAmplifier::writeTedsCustom(unsigned char* data, unsigned long length) {
    std::string entry = "writeTedsCustom " + std::to_string(length) + ":";
    for (unsigned long i = 0; i < length; ++i) {
        entry += " " + std::to_string(data[i]);
    }
    journal.add(entry);
    return answer;
}

int TestAmplifier::readTedsCustom(unsigned char* data, unsigned long length) {
    journal.add("readTedsCustom " + std::to_string(length));
    std::memset(data, 0xA5, length);
    return answer;
}

int TestAmplifier::finalizeTedsCustom() {
    journal.add("finalizeTedsCustom");
    return answer;
}

void TestAmplifier::notifyEnterChSetup() {
    journal.add("notifyEnterChSetup");
}

void TestAmplifier::notifyLeaveChSetup() {
    journal.add("notifyLeaveChSetup");
}

void TestAmplifier::updateDeviceRangeDuringAcquisition(int index) {
    journal.add("range " + std::to_string(index));
}

void TestAmplifier::updateCalibrationFactorsDuringAcquisition() {
    journal.add("calibration");
}

std::shared_ptr<AIDevice> makePair(const std::shared_ptr<Amplifier>& amplifier, const std::vector<float>& samples) {
    auto device = std::make_shared<AIDevice>();
    for (int i = 0; i < 2; ++i) {
        auto channel = std::make_shared<AIChannel>(i);
        channel->amplifier = amplifier;
        channel->active = true;
        channel->createChannelBuffer<float>();
        channel->buffer->setCapacity(4);
        for (const float sample : samples) {
            channel->buffer->addSample(&sample);
        }
        device->channels.push_back(channel);
    }
    device->acqRunning = true;
    amplifier->setParent(device);
    amplifier->index = 1;
    return device;
}

std::string definition(const std::string& name, const std::string& id, const std::string& properties) {
    return R"({"__type": "PropertyObjectClass", "name": ")" + name +
           R"(", "properties": [{"name": "AmplifierID", "type": "string", "default": "", "readOnly": true,)"
           R"( "readOnlyValue": ")" + id + "\"}" + properties + "]}";
}

ChannelPtr<> makeHostChannel() {
    IChannel* made = nullptr;
    checkErrorInfo(createSyncChannel(&made, StringPtr("0").get(), static_cast<int>(SampleDataType::Int16), 0.0));
    return ObjectPtr<IChannel>::take(made);
}

ErrCode runProcedure(const ChannelPtr<>& channel, const char* name, const BasePtr& argument) {
    const auto procedure = channel.getPropertyValue(name).asPtr<IProcObject>();
    return procedure->dispatch(argument.get());
}

ErrCode runFunction(const ChannelPtr<>& channel, const char* name, const BasePtr& argument, BasePtr& result) {
    const auto function = channel.getPropertyValue(name).asPtr<IFuncObject>();
    IBaseObject* raw = nullptr;
    const ErrCode code = function->execute(argument.get(), &raw);
    result = BasePtr::take(raw);
    return code;
}

std::vector<int> integers(const BasePtr& list) {
    std::vector<int> numbers;
    const ListPtr items = list.asPtr<IList>();
    for (size_t i = 0, count = items.getCount(); i < count; ++i) {
        int64_t value = 0;
        checkErrorInfo(items.getItemAt(i).asPtr<IIntObject>()->getValue(&value));
        numbers.push_back(static_cast<int>(value));
    }
    return numbers;
}

BasePtr listOf(const std::vector<int>& numbers) {
    const ListPtr list = ListPtr::create();
    for (const int number : numbers) {
        list.pushBack(toValue(number));
    }
    return asBase(list);
}

bool eventually(const std::function<bool()>& condition) {
    for (int i = 0; i < 2000; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

}
