#include "modules/daq/daqdevices/kestrix/src/KestrixStatus.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "libraries/utils/FaultReport.h"
#include "libraries/utils/TimerThread.h"
#include "modules/daq/daqdevices/kestrix/src/GpioInterfaceSysfs.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDaqTiming.h"
#include "modules/daq/daqdevices/kestrix/src/TemperatureReaders.h"
#include "modules/daq/objectmodel/DaqClock.h"
#include "modules/daq/objectmodel/DaqDevice.h"
#include "modules/daq/objectmodel/Log.h"
#include "modules/daq/objectmodel/LossCount.h"
#include "modules/daq/objectmodel/StatusChannel.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"

namespace Harvane::RT::Modules::Daq {

namespace RegistersAddress = Shared::Kestrix::RegistersAddress;
using ZornLib::Devices::Embedded::IRegisterAccess;
using Clock = std::chrono::steady_clock;
using Type = StatusChannelType;

namespace {

constexpr int readerPeriodMs = 2500;
constexpr auto temperatureInterval = std::chrono::milliseconds(2500);
constexpr double phaseCountsPerSecond = 1.5e8;
constexpr int gpioBase = 496;
constexpr std::uint64_t boardSensors[] = {0x48, 0x49};
constexpr std::uint64_t thirdBoardSensor = 0x4A;  // of the 8-channel board

struct CableLine {
    Type type;
    const char* name;
    int pin;
};

constexpr CableLine cableLines[] = {{Type::CableDetect1, "Cable detect 1", 0},
                                    {Type::CableDetect2, "Cable detect 2", 1}};

constexpr LossCount::Words overflowed{"SamplesOverflowed", "has lost", "samples in this run: it has no room for them",
                                      "samples in this run; its samples are passed on again"};
constexpr LossCount::Words refused{"SamplesRefused", "has lost", "samples in this run: it doesn't take such samples",
                                   "samples in this run; its samples are passed on again"};
constexpr LossCount::Words failedReads{"FailedReads", "has failed to read", "times in this run: its line can't be read",
                                       "times in this run; its line can be read again"};

bool fileExistsAndReadable(const char* path) {
    if (::access(path, R_OK) == 0) {
        return true;
    }
    if (errno != EACCES) {
        KESTRIX_LOG(5, "unable to check if file exists {} {}", path, std::strerror(errno));
    }
    return false;
}

bool exists(int pin) {
    return ::access(GpioInterfaceSysfs::path(gpioBase, pin).c_str(), F_OK) == 0;
}

using Readers = std::vector<std::unique_ptr<TemperatureReader>>;

template <class Reader>
void addIfReadable(Readers& readers, const char* group, const char* name, const char* path) {
    if (fileExistsAndReadable(path)) {
        readers.push_back(std::make_unique<Reader>(group, name, path));
    }
}

// The highest; what stands for none where there is no sensor.
float hottestOf(const Readers& readers) {
    if (readers.empty()) {
        return -std::numeric_limits<float>::infinity();
    }
    double highest = std::numeric_limits<double>::lowest();
    for (const auto& reader : readers) {
        highest = std::max(highest, reader->take());
    }
    return static_cast<float>(highest);
}

}  // namespace

class KestrixStatus::Pimpl {
public:
    Pimpl(KestrixStatus& owner, const std::shared_ptr<IRegisterAccess>& i2cAccess)
        : owner_(owner),
          readerThread_(
              readerPeriodMs, [this] { readDataInBackground(); }, readerPeriodMs,
              Utils::Threading::TimerMode::FromCallbackEnd, "temperatures") {
        chooseSensors(i2cAccess);
        readerThread_.start();
    }
    ~Pimpl() { readerThread_.stop(); }

    bool hasCableReader() const { return cableReader_ != nullptr; }
    // After the channels are made.
    void adoptChannels();
    void beginRun();
    void acquireData() noexcept;
    HealthState state();

private:
    // A channel, and what is counted of its samples in a run.
    struct Output {
        std::shared_ptr<StatusChannel> channel;
        std::shared_ptr<LossCount> overflowed;
        std::shared_ptr<LossCount> refused;
        std::shared_ptr<LossCount> failedReads;  // null for a channel without a line
        bool flowed = false;                     // in this pass
    };

    void chooseSensors(const std::shared_ptr<IRegisterAccess>& i2cAccess);
    template <class Call>
    void forEachReader(Call&& call) const;
    void readDataInBackground() const;

    void publishTemperatures();
    void publish(Output& output);
    void publishLine(Output& output, int pin);
    template <class T>
    void add(Output& output, T value);
    double now() const { return clock_->getCurrentTime(true); }
    void tell(const std::string& failure);

    KestrixStatus& owner_;
    Clock::time_point lastTemperatureTime_{};  // of the last publication
    Readers cpuReaders_;
    Readers boardReaders_;
    std::unique_ptr<CableTemperatureReader> cableReader_;

    std::vector<Output> outputs_;  // by place of the channel
    std::vector<Output*> used_;    // in this run
    std::shared_ptr<DaqClock> clock_;
    std::shared_ptr<KestrixDaqTiming> timing_;
    Utils::FaultReport faults_{"the status channels get no samples: ", "the status device"};

    Utils::Threading::TimerThread readerThread_;  // last: it uses the readers
};

void KestrixStatus::Pimpl::chooseSensors(const std::shared_ptr<IRegisterAccess>& i2cAccess) {
    if (fileExistsAndReadable(RegistersAddress::xlnxPsMainTemperatureHW)) {
        KESTRIX_LOG(3, "configuring hwmon board monitoring");
        using Reader = HWMonTemperatureReader;
        addIfReadable<Reader>(cpuReaders_, "CPU", "PS main", RegistersAddress::xlnxPsMainTemperatureHW);
        addIfReadable<Reader>(cpuReaders_, "CPU", "PS remote", RegistersAddress::xlnxPsRemoteTemperatureHW);
        addIfReadable<Reader>(cpuReaders_, "CPU", "PL", RegistersAddress::xlnxPlTemperatureHW);
        addIfReadable<Reader>(boardReaders_, "Board", "IP1", RegistersAddress::ip1TemperatureHW);
        addIfReadable<Reader>(boardReaders_, "Board", "FPGA", RegistersAddress::fpgaTemperatureHW);
    } else {
        KESTRIX_LOG(3, "configuring i2c board monitoring");
        using Reader = FPGATemperatureReader;
        addIfReadable<Reader>(cpuReaders_, "CPU", "PS remote", RegistersAddress::xlnxPsRemoteTemperature);
        addIfReadable<Reader>(cpuReaders_, "CPU", "PL", RegistersAddress::xlnxPlTemperature);
        addIfReadable<Reader>(cpuReaders_, "CPU", "PS main", RegistersAddress::xlnxPsMainTemperature);
        for (const auto address : boardSensors) {
            boardReaders_.push_back(std::make_unique<I2CTemperatureReader>("Board", i2cAccess, address));
        }
        if (RegistersAddress::deviceType == 0) {
            boardReaders_.push_back(std::make_unique<I2CTemperatureReader>("Board", i2cAccess, thirdBoardSensor));
        }
    }
    if (RegistersAddress::deviceType == 1 && fileExistsAndReadable(RegistersAddress::ain0Ain1DiffRaw) &&
        fileExistsAndReadable(RegistersAddress::ain1SingleRaw)) {
        KESTRIX_LOG(3, "configuring cable temperature monitoring");
        cableReader_ = std::make_unique<CableTemperatureReader>("Cable", RegistersAddress::ain0Ain1DiffRaw,
                                                                RegistersAddress::ain1SingleRaw);
    }
}

template <class Call>
void KestrixStatus::Pimpl::forEachReader(Call&& call) const {
    for (const auto* const readers : {&cpuReaders_, &boardReaders_}) {
        for (const auto& reader : *readers) {
            call(*reader);
        }
    }
    if (cableReader_) {
        call(*cableReader_);
    }
}

void KestrixStatus::Pimpl::readDataInBackground() const {
    KESTRIX_LOG(1, "begin reading temperature sensors");
    forEachReader([this](TemperatureReader& reader) {
        if (!readerThread_.getTerminated()) {
            reader.update();
        }
    });
    KESTRIX_LOG(1, "end of reading temperature sensors");
}

void KestrixStatus::Pimpl::adoptChannels() {
    used_.clear();
    outputs_.clear();
    for (int i = 0; i < owner_.channels.maxChannels; ++i) {
        Output output;
        output.channel = owner_.getStatusChannel(i);
        const std::string subject = "Channel \"" + output.channel->name + "\"";
        const auto count = [&](std::shared_ptr<LossCount>& made, const LossCount::Words& words) {
            made = std::make_shared<LossCount>(subject, words);
            output.channel->losses.push_back(made);
        };
        count(output.overflowed, overflowed);
        count(output.refused, refused);
        const Type type = output.channel->statusChannelType;
        if (type == Type::CableDetect1 || type == Type::CableDetect2) {
            count(output.failedReads, failedReads);
        }
        outputs_.push_back(std::move(output));
    }
}

void KestrixStatus::Pimpl::beginRun() {
    const auto device = std::dynamic_pointer_cast<DaqDevice>(owner_.getDevice());
    clock_ = device ? device->daqClock : nullptr;
    timing_ = device ? std::dynamic_pointer_cast<KestrixDaqTiming>(device->daqTiming) : nullptr;
    used_.clear();
    for (Output& output : outputs_) {
        for (const auto& count : output.channel->losses) {
            count->reset();
        }
        if (output.channel->active) {
            used_.push_back(&output);
        }
    }
}

void KestrixStatus::Pimpl::acquireData() noexcept {
    if (!clock_ || used_.empty()) {
        return;
    }
    try {
        std::string failure;
        try {
            publishTemperatures();
            for (Output* const output : used_) {
                publish(*output);
            }
        } catch (const std::exception& exception) {
            failure = textOf(exception);
        }
        for (Output* const output : used_) {
            const bool flowed = std::exchange(output->flowed, false);
            for (const auto& count : output->channel->losses) {
                count->endOfPass(flowed);
            }
        }
        if (!failure.empty() || faults_.isFailing()) {
            tell(failure);
        }
    } catch (...) {
        // No memory for words.
    }
}

void KestrixStatus::Pimpl::tell(const std::string& failure) {
    const std::string text = faults_.after(failure, Clock::now());
    if (!text.empty()) {
        LOG_(0, plog::error) << text;
    }
}

// The highest of the processor goes to the first channel and that of the board to the second, whichever channel of
// their type is in use.
void KestrixStatus::Pimpl::publishTemperatures() {
    const auto time = Clock::now();
    // A clock that doesn't run yet leaves the turn to the next cycle.
    if (lastTemperatureTime_ + temperatureInterval > time || now() < 0.0) {
        return;
    }
    lastTemperatureTime_ = time;
    for (Output* const output : used_) {
        const Type type = output->channel->statusChannelType;
        if (type == Type::CpuTemperature) {
            add(outputs_[0], hottestOf(cpuReaders_));
        } else if (type == Type::BoardTemperature) {
            add(outputs_[1], hottestOf(boardReaders_));
        } else if (type == Type::CableTemperature && cableReader_) {
            add(*output, static_cast<float>(cableReader_->take()));
        }
    }
}

void KestrixStatus::Pimpl::publish(Output& output) {
    const Type type = output.channel->statusChannelType;
    if (type == Type::PhaseError && timing_) {
        const auto counts = static_cast<double>(timing_->getSignedPhaseError());
        add(output, static_cast<float>(counts * 1e6 / phaseCountsPerSecond));
    } else if (type == Type::VcxoValue && timing_) {
        add(output, timing_->getVcxoValue());
    } else {
        for (const CableLine& line : cableLines) {
            if (line.type == type) {
                publishLine(output, line.pin);
            }
        }
    }
}

void KestrixStatus::Pimpl::publishLine(Output& output, int pin) {
    bool value = false;
    if (GpioInterfaceSysfs::tryGet(gpioBase, pin, value) == 0) {
        add(output, value);
    } else {
        output.failedReads->add(1);
    }
}

// The channel's own tests come here as questions: what has no place costs no exception.
template <class T>
void KestrixStatus::Pimpl::add(Output& output, T value) {
    StatusChannel& channel = *output.channel;
    const double time = now();
    if (!channel.active || time < 0.0) {
        return;
    }
    if (!channel.buffer || channel.buffer->getSampleSize() != sizeof(T) ||
        channel.isFloat != std::is_floating_point_v<T>) {
        output.refused->add(1);
    } else if (channel.samplesThisCycle + 1 > channel.buffer->getCapacity()) {
        output.overflowed->add(1);
    } else {
        channel.addSample(value, time);
        output.flowed = true;
    }
}

HealthState KestrixStatus::Pimpl::state() {
    HealthState state;
    forEachReader([&state](TemperatureReader& reader) {
        reader.want();
        state.sensors.push_back(reader.state());
    });
    for (const CableLine& line : cableLines) {
        if (std::none_of(outputs_.begin(), outputs_.end(),
                         [&line](const Output& output) { return output.channel->statusChannelType == line.type; })) {
            continue;
        }
        HealthState::Line& shown = state.lines.emplace_back();
        shown.name = line.name;
        shown.place = GpioInterfaceSysfs::path(gpioBase, line.pin);
        const int error = GpioInterfaceSysfs::tryGet(gpioBase, line.pin, shown.value);
        shown.reason = error == 0 ? "" : std::strerror(error);
    }
    return state;
}

KestrixStatus::KestrixStatus(const std::shared_ptr<IRegisterAccess>&, const std::shared_ptr<IRegisterAccess>& i2cAccess)
    : pimpl_(std::make_unique<Pimpl>(*this, i2cAccess)) {
    for (const Type type : {Type::CpuTemperature, Type::BoardTemperature, Type::PhaseError, Type::VcxoValue}) {
        addStatusChannel(type);
    }
    for (const CableLine& line : cableLines) {
        if (exists(line.pin)) {
            addStatusChannel(line.type);
        }
    }
    if (pimpl_->hasCableReader()) {
        addStatusChannel(Type::CableTemperature);
    }
}

KestrixStatus::~KestrixStatus() = default;

void KestrixStatus::initializeHardware() {
    StatusDevice::initializeHardware();
    pimpl_->adoptChannels();
}

void KestrixStatus::initializeAcquisition(bool recursive) {
    StatusDevice::initializeAcquisition(recursive);
    pimpl_->beginRun();
}

void KestrixStatus::acquireData() {
    StatusDevice::acquireData();
    pimpl_->acquireData();
}

HealthState KestrixStatus::getHealthState() {
    return pimpl_->state();
}

}  // namespace Harvane::RT::Modules::Daq
