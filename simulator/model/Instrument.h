#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/model/CanBus.h"
#include "simulator/model/CanCommands.h"
#include "simulator/model/PtpDaemon.h"
#include "simulator/model/Scenario.h"

// The whole simulated instrument behind its doors. Plain C++ without any interposition: the preload library brings
// the module's system calls here, tests call it directly. All operations are thread-safe and never block for longer
// than stated. Results follow the kernel's way: a count or 0, or a negative errno.
namespace kestrixsim {

struct I2cMessage {
    uint16_t address;
    bool read;
    uint8_t* data;
    size_t size;
};

enum class Stream { Raw, Filtered };

// What a test may want to know and the module cannot see.
struct StreamStatistics {
    bool started = false;
    int descriptorSize = 0;         // bytes
    uint64_t samplesDelivered = 0;  // since START
    uint64_t samplesDropped = 0;    // ring full, nobody read; since START
    uint64_t reads = 0;             // successful ones, since START
};

// What is in force in an amplifier; numbers are those of the frames.
struct AmplifierState {
    bool present = false;
    int measurement = 0;
    int range = 0;
    int lpFilter = 0;
    int coupling = 0;
    int inputType = 0;
    float excitation = 0.0F;  // V or mA
    int excitationType = 0;
    bool shortOn = false;
    float scale = 1.0F;   // as reported
    float offset = 0.0F;  // thousandths of the range's unit, as reported
};

// How the clock stands; what the module cannot see.
struct TimingState {
    uint16_t controlWord = 0;
    double oscillatorPpm = 0.0;    // off the nominal frequency
    double phaseSeconds = 0.0;     // internal second against the selected reference's without jitter; positive: early
    uint64_t records = 0;          // made by the driver
    uint64_t recordsReplaced = 0;  // by a newer one before they were read
    bool reference = false;        // pulses of the selected one come
    double nextSecond = 0.0;       // s until the internal second's next pulse
};

class Instrument {
public:
    explicit Instrument(Scenario scenario);
    ~Instrument();
    Instrument(const Instrument&) = delete;
    Instrument& operator=(const Instrument&) = delete;

    // ---- Doors (called by the preload library) -------------------------------------------------------------------

    // Physical memory. A page is handed out as a snapshot and taken back with what changed in it.
    int memOpen();                                               // 0 or -errno
    int memMap(uint64_t physicalAddress);                        // 0 or -errno: whether this mmap works
    bool hasBlock(uint64_t physicalAddress, size_t size) const;  // whether anything answers there
    void readPage(uint64_t physicalAddress, uint32_t* words, size_t count);
    void storeWord(uint64_t physicalAddress, uint32_t before, uint32_t after);  // only the bits that differ count

    // I2C bus 1. `slave` is what I2C_SLAVE selected.
    int i2cOpen();
    int i2cSelect();  // 0 or -errno: whether I2C_SLAVE works
    ssize_t i2cWrite(int slave, const uint8_t* data, size_t size);
    ssize_t i2cRead(int slave, uint8_t* data, size_t size);
    int i2cTransfer(I2cMessage* messages, size_t count);  // I2C_RDWR: number of messages or -errno

    // Amplifier UART.
    int uartOpen();
    int uartConfigure();  // 0 or -errno: whether attributes can be had
    ssize_t uartWrite(const uint8_t* data, size_t size);
    // Waits at most `timeoutMs` for the first byte; 0 when none came, -EIO as a fault.
    ssize_t uartRead(uint8_t* data, size_t size, int timeoutMs);
    void uartFlush();  // what has arrived and was not read is gone

    // DMA streams, one for each (module, stream) pair that the board has.
    int dmaOpen(int module, Stream stream);  // 0, -ENOENT for a node that is not there
    int dmaIoctl(int module, Stream stream, unsigned long request, unsigned long argument);
    ssize_t dmaRead(int module, Stream stream, void* buffer, size_t size);  // -EAGAIN when no descriptor is ready

    // Timing driver: a record of 12 bytes for each pulse of the selected reference, and each second without one.
    int timingOpen();                                // 0 or -errno
    ssize_t timingRead(uint8_t* data, size_t size);  // bytes, -EAGAIN without a record, or -errno
    bool timingReady();

    // The computer's clock on the instrument: real time in nanoseconds since 1970, and seconds since it was made.
    int64_t realtime() const;
    int64_t realtimeSteps() const;             // what is in it by steps, ns
    int64_t realtimeAt(double seconds) const;  // what they were when the instrument was that old
    int64_t realtimeStepsAt(double seconds) const;
    double seconds() const;

    // Platform scripts and the commands of CAN: whether the command line is one of the instrument's, and what it does.
    bool ownsCommand(const std::string& commandLine) const;
    int startCommand(const std::string& commandLine);  // 0 or -errno: whether popen or system works
    CommandResult finishCommand(const std::string& commandLine);
    std::string runCommand(const std::string& commandLine) { return finishCommand(commandLine).output; }

    // The PTP daemon's socket: what stands at its path, what comes in there and what goes out.
    PtpSocketState ptpSocket() const;
    void ptpReceive(const std::string& client, const uint8_t* bytes, size_t size);
    std::vector<PtpDatagram> ptpDue();  // replies whose time has come
    bool ptpPending() const;            // whether there will be more

    // The CAN ports: doors and what a test uses.
    CanBus& can();
    const CanBus& can() const;

    // Fills a folder with the plain files of the instrument (sysfs trees, scripts as real shell files).
    void populateRoot(const std::string& folder) const;

    // Files of sensors and of the lines that detect a cable, by their paths: see Thermals.
    static bool ownsSensor(std::string_view path);
    int sensorAccess(std::string_view path) const;
    int sensorOpen(std::string_view path, std::optional<std::string>& text);

    // ---- For tests and tools ---------------------------------------------------------------------------------------

    const Scenario& scenario() const;
    void plug(const ModuleScenario& module);  // replaces what is in the slot; boots if the slot has supply
    void unplug(int slot);
    void setWaveform(int slot, const Waveform& waveform);  // from the next read of the slot's streams on
    void inject(const Fault& fault);
    void clearFaults();
    void stepRealtime(double microseconds);
    void setReference(ReferenceKind kind, const ReferenceScenario& reference);
    TimingState timingState() const;
    double processorCelsius() const;
    double boardCelsius() const;

    void setPtpNetwork(const PtpScenario& network);
    void restartPtpDaemon();                                // in the role that it has
    void crashPtpDaemon();                                  // its socket's name stays; until the next restart
    void hangPtpDaemon(bool on);                            // it lives and reads nothing; until the next restart
    std::vector<std::vector<uint8_t>> ptpRequests() const;  // the last 64 datagrams that it was sent

    uint32_t registerWord(uint64_t physicalAddress) const;  // as the hardware has it now
    StreamStatistics statistics(int module, Stream stream) const;
    std::vector<std::string> commandsRun() const;  // every command line that was the instrument's, in order
    // Every request frame that an amplifier took, as "slot: A5 01 67 5A", in order.
    std::vector<std::string> framesReceived() const;
    uint64_t supplySwitches() const;  // changes of EI
    // What changed in the hardware, in order:
    //   "supply 255"                               EI
    //   "oscillator 10", "pll 1"                   what each was told; with " under supply" while EI isn't 0
    //   "clear 0"                                  the DSP chain of module 0
    //   "raw 0 on", "filtered 0 off"               its streams
    //   "size r0 248", "start r0", "stop r0"       the driver's requests that succeeded; f0 is the filtered stream
    //   "converters on"
    std::vector<std::string> journal() const;
    bool ledOn(int slot) const;
    AmplifierState amplifierState(int slot) const;  // std::out_of_range for a slot that cannot be

    // The same instrument with its own source of time: `now` gives steady seconds and may be called by any thread.
    // `served`: programs are shown the instrument's clocks, so that what they wait for passes as fast as its time.
    Instrument(Scenario scenario, std::function<double()> now, bool served = false);

private:
    class Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace kestrixsim
