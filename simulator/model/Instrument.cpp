#include "simulator/model/Instrument.h"

#include <array>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "simulator/model/AmplifierLink.h"
#include "simulator/model/Clock.h"
#include "simulator/model/DmaStream.h"
#include "simulator/model/Faults.h"
#include "simulator/model/Fpga.h"
#include "simulator/model/Hash.h"
#include "simulator/model/I2cBus.h"
#include "simulator/model/Journal.h"
#include "simulator/model/Oscillator.h"
#include "simulator/model/RootFolder.h"
#include "simulator/model/Scripts.h"
#include "simulator/model/Signal.h"
#include "simulator/model/Thermals.h"
#include "simulator/model/WavFile.h"

namespace kestrixsim {

namespace {

constexpr int slotCount = 8;
constexpr uint64_t converterEnable = 0xA0200000;

struct StreamPair {
    DmaStream raw;
    DmaStream filtered;

    StreamPair(const Oscillator& clock, bool unthrottled)
        : raw(clock, Stream::Raw, unthrottled), filtered(clock, Stream::Filtered, unthrottled) {}
};

void checkSlot(int slot) {
    if (slot < 0 || slot >= slotCount) {
        throw std::out_of_range("The instrument has no slot " + std::to_string(slot));
    }
}

}  // namespace

class Instrument::Implementation {
public:
    Implementation(Scenario wanted, std::function<double()> now, bool served)
        : scenario(std::move(wanted)),
          clock(scenario, std::move(now), served),
          faults(clock),
          thermals(scenario, clock, faults),
          oscillator(clock, scenario),
          timing(clock, oscillator, faults, scenario),
          link(clock, faults, [this](int slot, const FrontEnd& frontEnd) { setFrontEnd(slot, frontEnd); }),
          bus(
              scenario, faults, thermals, [this](int slot) { link.select(slot); },
              [this](uint16_t word) { timing.setWord(word); }),
          streams(makeStreams()),
          fpga(clock, oscillator, timing, faults, journal, pointers(), scenario,
               [this](uint8_t before, uint8_t after) { supply(before, after); }),
          ptp(clock, faults, scenario.ptp, bus.eeprom().data() + 0xFA, realTimeNs()),
          scripts(
              faults, [this](int megahertz) { fpga.setOscillator(megahertz); },
              [this](const std::string& role) { ptp.start(role); }),
          can(clock, faults, scenario),
          canCommands(can, faults) {
        for (const Fault& fault : scenario.faults) {
            faults.add(fault);
        }
        for (const ModuleScenario& module : scenario.modules) {
            plug(module);
        }
        // The supply word switches nothing on the two-slot board: its modules are always on.
        if (scenario.supplyOn || !switchable()) {
            link.supply(0, 0xFF, true);
        }
    }

    bool switchable() const { return scenario.boardType != 1; }

    void supply(uint8_t before, uint8_t after) {
        if (switchable()) {
            link.supply(before, after, false);
            thermals.setSupplied(std::popcount(after));
        }
    }

    void plug(const ModuleScenario& module) {
        checkSlot(module.slot);
        const uint64_t made = (mix(scenario.seed + static_cast<uint64_t>(module.slot)) & 0xFFFF) | 0x4B580000;
        auto firmware = std::make_unique<Firmware>(module, module.serial != 0 ? module.serial : made, scenario.seed);
        setWaveform(module.slot, module.waveform);
        link.plug(module.slot, std::move(firmware));
    }

    void unplug(int slot) {
        checkSlot(slot);
        link.plug(slot, nullptr);
        Waveform open;
        open.kind = WaveformKind::Constant;
        setWaveform(slot, open);
    }

    void setWaveform(int slot, const Waveform& waveform) {
        checkSlot(slot);
        std::shared_ptr<const std::vector<int16_t>> recording;
        if (waveform.kind == WaveformKind::Wav) {
            recording = std::make_shared<const std::vector<int16_t>>(readWavFile(waveform.file));
        }
        const std::lock_guard lock(sourceMutex);
        SignalSource& source = sources[static_cast<size_t>(slot)];
        source.waveform = waveform;
        source.seed = mix(scenario.seed ^ static_cast<uint64_t>(slot + 1) << 56);
        source.recording = std::move(recording);
        play(slot);
    }

    void setFrontEnd(int slot, const FrontEnd& frontEnd) {
        const std::lock_guard lock(sourceMutex);
        SignalSource& source = sources[static_cast<size_t>(slot)];
        source.frontEnd = frontEnd;
        if (source.waveform.unit == WaveformUnit::Physical) {
            play(slot);
        }
    }

    DmaStream* stream(int module, Stream kind) {
        if (module < 0 || static_cast<size_t>(module) >= streams.size()) {
            return nullptr;
        }
        StreamPair& pair = *streams[static_cast<size_t>(module)];
        return kind == Stream::Raw ? &pair.raw : &pair.filtered;
    }

    std::string networkAddress() const {
        const auto bytes = bus.eeprom();
        char text[18];
        std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0xFA], bytes[0xFB], bytes[0xFC],
                      bytes[0xFD], bytes[0xFE], bytes[0xFF]);
        return text;
    }

    const Scenario scenario;
    Clock clock;
    Faults faults;
    Thermals thermals;
    Oscillator oscillator;
    TimingCore timing;
    Journal journal;
    AmplifierLink link;
    I2cBus bus;
    std::vector<std::unique_ptr<StreamPair>> streams;
    Fpga fpga;
    PtpDaemon ptp;
    Scripts scripts;
    CanBus can;
    CanCommands canCommands;
    std::mutex sourceMutex;  // taken behind the amplifiers' and in front of the streams'
    std::array<SignalSource, slotCount> sources;

private:
    static int64_t realTimeNs() {
        const auto since = std::chrono::system_clock::now().time_since_epoch();
        return std::chrono::duration_cast<std::chrono::nanoseconds>(since).count();
    }

    void play(int slot) {
        const auto index = static_cast<size_t>(slot);
        if (index < streams.size()) {
            streams[index]->raw.setSource(sources[index]);
            streams[index]->filtered.setSource(sources[index]);
        }
    }

    std::vector<std::unique_ptr<StreamPair>> makeStreams() {
        std::vector<std::unique_ptr<StreamPair>> result;
        const size_t modules = scenario.boardType == 1 ? 2 : slotCount;
        for (size_t m = 0; m < modules; ++m) {
            result.push_back(std::make_unique<StreamPair>(oscillator, scenario.unthrottled));
        }
        return result;
    }

    std::vector<std::array<DmaStream*, 2>> pointers() {
        std::vector<std::array<DmaStream*, 2>> result;
        for (const auto& pair : streams) {
            result.push_back({&pair->raw, &pair->filtered});
        }
        return result;
    }
};

Instrument::Instrument(Scenario scenario) : Instrument(std::move(scenario), {}) {}

Instrument::Instrument(Scenario scenario, std::function<double()> now, bool served)
    : implementation_(std::make_unique<Implementation>(std::move(scenario), std::move(now), served)) {}

Instrument::~Instrument() = default;

int Instrument::memOpen() {
    return openFault(implementation_->faults.hit(FaultKind::MemOpen));
}

int Instrument::memMap(uint64_t physicalAddress) {
    return implementation_->faults.hit(FaultKind::MemMap, -1, static_cast<uint32_t>(physicalAddress)) ? -EPERM : 0;
}

bool Instrument::hasBlock(uint64_t physicalAddress, size_t size) const {
    return implementation_->fpga.hasBlock(physicalAddress, size);
}

void Instrument::readPage(uint64_t physicalAddress, uint32_t* words, size_t count) {
    implementation_->fpga.readWords(physicalAddress, words, count);
}

void Instrument::storeWord(uint64_t physicalAddress, uint32_t before, uint32_t after) {
    implementation_->fpga.storeWord(physicalAddress, before, after);
    if (physicalAddress == converterEnable) {
        implementation_->thermals.setConverting((registerWord(physicalAddress) & 1) != 0);
    }
}

int Instrument::i2cOpen() {
    return openFault(implementation_->faults.hit(FaultKind::I2cOpen));
}

int Instrument::i2cSelect() {
    return implementation_->faults.hit(FaultKind::I2cSlave) ? -EBUSY : 0;
}

ssize_t Instrument::i2cWrite(int slave, const uint8_t* data, size_t size) {
    return implementation_->bus.write(slave, data, size);
}

ssize_t Instrument::i2cRead(int slave, uint8_t* data, size_t size) {
    return implementation_->bus.read(slave, data, size);
}

int Instrument::i2cTransfer(I2cMessage* messages, size_t count) {
    return implementation_->bus.transfer(messages, count);
}

int Instrument::uartOpen() {
    return openFault(implementation_->faults.hit(FaultKind::UartOpen));
}

int Instrument::uartConfigure() {
    return implementation_->faults.hit(FaultKind::UartAttributes) ? -EIO : 0;
}

ssize_t Instrument::uartWrite(const uint8_t* data, size_t size) {
    return implementation_->link.write(data, size);
}

ssize_t Instrument::uartRead(uint8_t* data, size_t size, int timeoutMs) {
    return implementation_->link.read(data, size, timeoutMs);
}

void Instrument::uartFlush() {
    implementation_->link.flush();
}

namespace {

int channelOf(int module, Stream stream) {
    return 2 * module + (stream == Stream::Filtered ? 1 : 0);
}

void noteRequest(Journal& journal, const std::string& node, unsigned long request, unsigned long argument) {
    switch (static_cast<DriverRequest>(request)) {
        case DriverRequest::SetDescriptorSize:
            journal.note("size " + node + " " + std::to_string(argument));
            break;
        case DriverRequest::StartTransfer:
        case DriverRequest::StartTransferUsb:
            journal.note("start " + node);
            break;
        case DriverRequest::StopTransfer:
        case DriverRequest::StopTransferUsb:
            journal.note("stop " + node);
            break;
        default:
            break;
    }
}

}  // namespace

int Instrument::dmaOpen(int module, Stream stream) {
    if (implementation_->stream(module, stream) == nullptr) {
        return -ENOENT;
    }
    return openFault(implementation_->faults.hit(FaultKind::DmaOpen, channelOf(module, stream)));
}

int Instrument::dmaIoctl(int module, Stream stream, unsigned long request, unsigned long argument) {
    DmaStream* target = implementation_->stream(module, stream);
    if (target == nullptr) {
        return -ENODEV;
    }
    if (implementation_->faults.hit(FaultKind::DmaIoctl, channelOf(module, stream), static_cast<uint32_t>(request))) {
        return -EIO;
    }
    const int result = target->control(request, argument);
    if (result == 0) {
        noteRequest(implementation_->journal, (stream == Stream::Raw ? "r" : "f") + std::to_string(module), request,
                    argument);
    }
    return result;
}

ssize_t Instrument::dmaRead(int module, Stream stream, void* buffer, size_t size) {
    DmaStream* target = implementation_->stream(module, stream);
    if (target == nullptr) {
        return -ENODEV;
    }
    Faults& faults = implementation_->faults;
    const int channel = channelOf(module, stream);
    if (const auto fault = faults.hit(FaultKind::DmaRead, channel)) {
        return fault->code == 0 ? -EIO : -fault->code;
    }
    if (faults.hit(FaultKind::DmaStall, channel)) {
        return -EAGAIN;
    }
    return target->read(buffer, size, [&faults, channel] {
        const auto fault = faults.hit(FaultKind::DmaShortRead, channel);
        if (!fault) {
            return DmaStream::ReadFault::None;
        }
        return fault->code == 1 ? DmaStream::ReadFault::PartOfDescriptor : DmaStream::ReadFault::OneDescriptorLess;
    });
}

int Instrument::timingOpen() {
    return implementation_->timing.open();
}

ssize_t Instrument::timingRead(uint8_t* data, size_t size) {
    return implementation_->timing.read(data, size);
}

bool Instrument::timingReady() {
    return implementation_->timing.ready();
}

int64_t Instrument::realtime() const {
    return implementation_->clock.realtime();
}

int64_t Instrument::realtimeSteps() const {
    return implementation_->clock.realtimeSteps();
}

int64_t Instrument::realtimeAt(double seconds) const {
    return implementation_->clock.realtimeAt(seconds);
}

int64_t Instrument::realtimeStepsAt(double seconds) const {
    return implementation_->clock.realtimeStepsAt(seconds);
}

double Instrument::seconds() const {
    return implementation_->clock.seconds();
}

void Instrument::stepRealtime(double microseconds) {
    implementation_->clock.stepRealtime(microseconds);
}

void Instrument::setReference(ReferenceKind kind, const ReferenceScenario& reference) {
    implementation_->timing.setReference(kind, reference);
}

TimingState Instrument::timingState() const {
    return implementation_->timing.state();
}

bool Instrument::ownsCommand(const std::string& commandLine) const {
    return Scripts::owns(commandLine) || implementation_->canCommands.owns(commandLine);
}

int Instrument::startCommand(const std::string& commandLine) {
    if (Scripts::owns(commandLine)) {
        return implementation_->faults.hit(FaultKind::ScriptFails) ? -ENOMEM : 0;
    }
    const auto fault = implementation_->faults.hit(FaultKind::CanCommandFails);
    return !fault ? 0 : fault->code != 0 ? -fault->code : -ENOMEM;
}

CommandResult Instrument::finishCommand(const std::string& commandLine) {
    if (Scripts::owns(commandLine)) {
        return {implementation_->scripts.run(commandLine)};
    }
    implementation_->scripts.note(commandLine);
    return implementation_->canCommands.run(commandLine);
}

CanBus& Instrument::can() {
    return implementation_->can;
}

const CanBus& Instrument::can() const {
    return implementation_->can;
}

PtpSocketState Instrument::ptpSocket() const {
    return implementation_->ptp.socket();
}

void Instrument::ptpReceive(const std::string& client, const uint8_t* bytes, size_t size) {
    implementation_->ptp.receive(client, bytes, size);
}

std::vector<PtpDatagram> Instrument::ptpDue() {
    return implementation_->ptp.due();
}

bool Instrument::ptpPending() const {
    return implementation_->ptp.pending();
}

void Instrument::setPtpNetwork(const PtpScenario& network) {
    implementation_->ptp.setNetwork(network);
}

void Instrument::restartPtpDaemon() {
    implementation_->ptp.restart();
}

void Instrument::crashPtpDaemon() {
    implementation_->ptp.crash();
}

void Instrument::hangPtpDaemon(bool on) {
    implementation_->ptp.hang(on);
}

std::vector<std::vector<uint8_t>> Instrument::ptpRequests() const {
    return implementation_->ptp.requests();
}

void Instrument::populateRoot(const std::string& folder) const {
    std::vector<std::string> interfaces;
    if (!can().served()) {
        interfaces = machineCanInterfaces();
    }
    for (int port = 0; can().served() && port < can().ports(); ++port) {
        if (const CanPortState state = can().state(port); state.exists) {
            interfaces.push_back(state.name);
        }
    }
    populateRootFolder(folder, implementation_->scenario, implementation_->networkAddress(), interfaces,
                       [this](const std::string& path) { return implementation_->thermals.textOf(path); });
}

bool Instrument::ownsSensor(std::string_view path) {
    return Thermals::owns(path);
}

int Instrument::sensorAccess(std::string_view path) const {
    return implementation_->thermals.fileAccess(path);
}

int Instrument::sensorOpen(std::string_view path, std::optional<std::string>& text) {
    return implementation_->thermals.fileOpen(path, text);
}

double Instrument::processorCelsius() const {
    return implementation_->thermals.processorCelsius();
}

double Instrument::boardCelsius() const {
    return implementation_->thermals.boardCelsius();
}

const Scenario& Instrument::scenario() const {
    return implementation_->scenario;
}

void Instrument::plug(const ModuleScenario& module) {
    implementation_->plug(module);
}

void Instrument::unplug(int slot) {
    implementation_->unplug(slot);
}

void Instrument::setWaveform(int slot, const Waveform& waveform) {
    implementation_->setWaveform(slot, waveform);
}

void Instrument::inject(const Fault& fault) {
    implementation_->faults.add(fault);
}

void Instrument::clearFaults() {
    implementation_->faults.clear();
}

uint32_t Instrument::registerWord(uint64_t physicalAddress) const {
    uint32_t word = 0;
    implementation_->fpga.readWords(physicalAddress, &word, 1);
    return word;
}

StreamStatistics Instrument::statistics(int module, Stream stream) const {
    DmaStream* target = implementation_->stream(module, stream);
    return target != nullptr ? target->statistics() : StreamStatistics{};
}

std::vector<std::string> Instrument::commandsRun() const {
    return implementation_->scripts.commandsRun();
}

std::vector<std::string> Instrument::framesReceived() const {
    return implementation_->link.framesReceived();
}

bool Instrument::ledOn(int slot) const {
    checkSlot(slot);
    return implementation_->link.ledOn(slot);
}

AmplifierState Instrument::amplifierState(int slot) const {
    checkSlot(slot);
    return implementation_->link.state(slot);
}

std::vector<std::string> Instrument::journal() const {
    return implementation_->journal.lines();
}

uint64_t Instrument::supplySwitches() const {
    return implementation_->fpga.supplySwitches();
}

}  // namespace kestrixsim
