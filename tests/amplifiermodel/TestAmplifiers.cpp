#include "tests/amplifiermodel/TestAmplifiers.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <numeric>
#include <thread>

#include "modules/daq/objectmodel/AIChannel.h"

namespace Harvane::RT::Modules::Daq::Test {

using namespace Core;

TempFolder::TempFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "amplifiers-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no temporary folder");
    }
    path = name;
}

std::string TempFolder::write(const std::string& name, const std::string& text) const {
    const auto file = path / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
    return file.string();
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

void TestAmplifier::updateDeviceRangeDuringAcquisition(int index) {
    journal.add("range " + std::to_string(index));
    if (onRange) {
        onRange();
    }
}

int TestAmplifier::answered(const std::string& question) {
    journal.add(question);
    return answer;
}

int TestAmplifier::readTeds(unsigned char* data) {
    if (answer >= 0) {
        std::iota(data, data + 8, static_cast<unsigned char>(250));
    }
    return answered("readTeds");
}

int TestAmplifier::writeTedsCustom(unsigned char* data, unsigned long length) {
    return answered("writeTedsCustom " + std::to_string(length) + ": " +
                    textOf(listOf(std::vector<int>(data, data + length))));
}

int TestAmplifier::readTedsCustom(unsigned char* data, unsigned long length) {
    std::memset(data, 0xA5, length);
    return answered("readTedsCustom " + std::to_string(length));
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

std::string definitionOf(const std::string& name, const std::string& properties) {
    return R"({"__type": "PropertyObjectClass", "name": ")" + name + R"(", "properties": [)" + properties + "]}";
}

std::string definition(const std::string& name, const std::string& id, const std::string& properties) {
    return definitionOf(name, R"({"name": "AmplifierID", "type": "string", "default": "", "readOnly": true,)"
                              R"( "readOnlyValue": ")" +
                                  id + "\"}" + properties);
}

std::string choice(const char* name, const char* values) {
    return std::string(R"(, {"name": ")") + name + R"(", "type": "int", "selection": true, "default": 0, "values": [)" +
           values + "]}";
}

std::string plain(const char* name, const char* type, const char* defaultValue) {
    return std::string(R"(, {"name": ")") + name + R"(", "type": ")" + type + R"(", "default": )" + defaultValue + "}";
}

std::string slot(const char* name, const char* type) {
    return std::string(R"(, {"name": ")") + name + R"(", "type": ")" + type + "\"}";
}

ChannelPtr<> makeHostChannel() {
    return made<IChannel>(createSyncChannel, StringPtr("0").get(), static_cast<int>(SampleDataType::Int16), 0.0);
}

ErrCode runProcedure(const ChannelPtr<>& channel, const char* name, const BasePtr& argument) {
    return channel.getPropertyValue(name).asPtr<IProcObject>()->dispatch(argument.get());
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

}  // namespace Harvane::RT::Modules::Daq::Test
