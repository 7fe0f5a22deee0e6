#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "simulator/model/CanFrame.h"

// What is plugged into the simulated instrument and what happens to it. Plain data: the JSON form is read by
// ScenarioJson, the instrument takes a copy.
namespace kestrixsim {

enum class WaveformKind {
    Constant,  // offset
    Sine,      // offset + amplitude * sin(2 pi frequencyHz t + phaseRadians)
    Square,    // offset +- amplitude
    Ramp,      // saw tooth from offset - amplitude up to offset + amplitude, once a period
    Noise,     // white, uniform in offset +- amplitude, reproducible from the seed
    Wav,       // the samples of a 16-bit PCM mono or stereo file, one file sample for each channel sample; loops;
               // physical: a full-scale sample is amplitude, shifted by offset
    Counter,   // sample n of each stream has the value n: n mod 2^16 as int16 on the raw stream, n mod 2^32 as
               // int32 on the filtered one; no filter, no delay: it proves the way of a sample bit by bit
};

enum class WaveformUnit {
    Counts,    // at the converter: no setting of the amplifier matters. Counts of 16 bits (-32768..32767, fractions
               // allowed); the filtered stream has 65536 times as many
    Physical,  // at the amplifier's input, in the unit of the range in force: V, mV/V, %. The amplifier's filters,
               // range and calibration make counts of it
};

// The signal of a module.
struct Waveform {
    WaveformKind kind = WaveformKind::Sine;
    double frequencyHz = 50.0;
    double amplitude = 16000.0;
    double offset = 0.0;
    double phaseRadians = 0.0;
    std::string file;                          // Wav only
    WaveformUnit unit = WaveformUnit::Counts;  // Counter has counts whatever stands here
};

enum class AmplifierKind {
    Voltage,      // fast voltage, identity 1.0.1.1
    Bridge,       // bridge and strain gauge, identity 2.1.3.2, with TEDS and a custom TEDS area
    Iepe,         // constant-current sensors with its own excitation, identity 3.0.3.1, with a TEDS chip
    HighVoltage,  // identity 4.2.1.4
    Unknown,      // identity 9.9.9.9, which no definition file names; one range of +-10 V, without any error
};

// What hangs at an amplifier that watches its sensor (bridge, IEPE). The others have no use for it.
enum class Sensor {
    Ok,
    Open,     // broken wire: reads full scale as long as it is excited
    Shorted,  // reads 0
};

struct ModuleScenario {
    int slot = 0;  // 0 to 7
    AmplifierKind kind = AmplifierKind::Voltage;
    Waveform waveform;
    uint64_t serial = 0;  // 0: made from the seed and the slot
    Sensor sensor = Sensor::Ok;
    bool tedsChip = true;  // the sensor names itself, where the amplifier can read that
};

// Something that goes wrong. `afterCount` accesses of the kind named pass unharmed once `atSeconds` of the
// instrument's time have gone by; then `times` of them are hit (-1: all that follow).
enum class FaultKind {
    EepromSilent,        // no chip at 0x50: ENXIO
    EepromShortRead,     // a read of the EEPROM delivers one byte less than asked for
    MemOpen,             // open of /dev/mem fails with `code` as errno (0: ENOENT)
    MemMap,              // mmap of the page `code` of /dev/mem (0: any) fails (EPERM)
    I2cOpen,             // open of /dev/i2c-1 fails, likewise
    UartOpen,            // open of /dev/ttyPS1 fails, likewise
    UartAttributes,      // tcgetattr or tcsetattr of the port fails (EIO)
    UartRead,            // read of the port fails (EIO)
    UartWrite,           // write to the port fails (EIO)
    I2cSlave,            // I2C_SLAVE fails (EBUSY)
    DmaOpen,             // open of a stream's node fails, likewise; `target` is the AI channel, -1 any
    DmaIoctl,            // an ioctl of a stream fails (EIO); `target` is the AI channel, `code` the request, 0 any
    DmaRead,             // read of a stream fails with `code` as errno (0: EIO); `target` is the AI channel
    DmaShortRead,        // read delivers one descriptor less than it could (not in whole descriptors if `code` is 1)
    DmaStall,            // a stream delivers nothing
    AmplifierSilent,     // `target` slot: requests are not answered
    AmplifierGarbage,    // bytes of noise in front of the reply
    AmplifierBadStatus,  // status `code` (0: 3) in place of the answer
    AmplifierHalfFrame,  // the reply stops half-way
    AmplifierLate,       // the reply comes `code` ms late
    AmplifierNan,        // the scale or offset asked for is not a number
    MuxAgain,            // I2C_RDWR fails with EAGAIN
    MuxError,            // I2C_RDWR fails with EIO
    MuxReadsBack,        // the multiplexer at address `code` (0: 0x4D) reads back 0
    ScriptRefuses,       // platform scripts answer "ERR:fault" instead of "OK:"
    ScriptSilent,        // platform scripts print nothing
    ScriptUnheard,       // platform scripts do their work and print nothing
    ScriptFails,         // popen of a platform script fails (ENOMEM)
    ScriptsMissing,      // there are no platform scripts: running one prints nothing
    ClearLate,           // CLRST of module `target` (-1 all) is set `code` ms late
    ClearNever,          // CLRST of module `target` (-1 all) is never set
    PllBusy,             // the PLL stays busy
    SysfsMissing,        // files below the LED and GPIO folders are missing
    TimingOpen,          // open of /dev/tolvn_timing fails with `code` as errno (0: ENOENT)
    TimingSilent,        // the timing driver has no records
    TimingRead,          // read of a record fails with `code` as errno (0: EIO)
    TimingShortRead,     // read of a record delivers 8 bytes
    SyncHeld,            // the request for a new internal pulse is never taken
    OscillatorSilent,    // no chip at 0x58: ENXIO
    PtpLost,             // the PTP daemon doesn't reply
    PtpLate,             // its reply comes `code` ms late
    PtpGarbled,          // the reply's TLV is noise, and its length is odd
    PtpWrongId,          // another management id
    PtpOversized,        // `code` bytes long (0: 2000)
    PtpTwice,            // the same reply comes twice
    PtpErrorStatus,      // a refusal with the error `code` (0: 0xFFFE) instead of the record
    PtpBadVersion,       // version `code` (0: 1) of the protocol
    // CAN: `target` is the port, `code` the errno where there is a number in brackets.
    CanErrorFrame,     // a frame that the port hears is destroyed and sent again; its sockets read an error frame of
                       // class `code` (0: 0x88), whether they asked for those or not
    CanBusOff,         // the port goes off the bus at a frame that it hears or sends
    CanUp,             // `ip link set up` fails, exit status 2
    CanCommandFails,   // system or popen of a CAN command fails (ENOMEM)
    CanCommandStatus,  // `ip` does nothing and ends with status `code` (0: 2)
    CanCommandSilent,  // the command that counts the ports prints nothing
    CanSocket,         // socket fails (EAFNOSUPPORT)
    CanIndex,          // if_nametoindex fails (ENODEV)
    CanFlags,          // fcntl(F_SETFL) fails (EPERM)
    CanBind,           // bind fails (ENODEV)
    CanOption,         // setsockopt fails (ENOBUFS)
    CanWait,           // select or poll fails (ENOMEM)
    CanRead,           // read fails (EIO)
    CanShortRead,      // read delivers 8 bytes of a frame
    CanWrite,          // write fails (EIO)
    CanShortWrite,     // write takes 8 bytes of a frame and sends nothing
    CanStamp,          // the time of a frame cannot be had (ENOENT)
    // Sensors: `target` is the number of one in the table of Thermals.
    SensorMissing,  // its file is not there (ENOENT), its chip doesn't answer (ENXIO)
    SensorDenied,   // its file may not be read (EACCES)
    SensorRubbish,  // its file holds no number
    SensorSlow,     // it takes `code` ms of the instrument's time; of a chip 1000 at most, then ETIMEDOUT
};

struct Fault {
    FaultKind kind = FaultKind::DmaRead;
    int target = -1;
    int code = 0;
    double atSeconds = 0.0;
    uint64_t afterCount = 0;
    int64_t times = 1;
    int command = 0;            // of an amplifier: the code that is meant, 0 any
    double untilSeconds = 0.0;  // no access is hit from then on; 0: there is no such time
};

// The oscillator of 150 MHz that everything of the FPGA runs on: converters, clock counter, timing core. Its frequency
// follows the control word (0 to 1023, falling); at word 506 and without an error of its own it is exact.
struct OscillatorScenario {
    int word = 506;        // at power-on
    double slope = 1.0;    // of the curve, against the usual chip's
    double bendPpm = 0.0;  // added at a distance of 512 words from 506, square in between
    double driftPpmPerHour = 0.0;
    double temperaturePpm = 0.0;  // amplitude of a sine
    double temperaturePeriodSeconds = 1800.0;
    double noisePpb = 0.0;  // rms, white, a new value each second
};

enum class ReferenceKind {
    Irig,  // decoder of the IRIG input: pulses two seconds after the signal is there
    Pps,   // pulse input
    Ptp,   // pulse of the network card
};

// One pulse a second, on the whole seconds of real time (as it was before any step of realtimeSteps) plus
// `offsetSeconds`.
struct ReferenceScenario {
    struct Outage {
        double from;  // seconds of the instrument's time
        double until;
    };
    struct Shift {
        double at;  // seconds of the instrument's time
        double byMicroseconds;
    };

    bool present = true;
    double offsetSeconds = 0.0;
    double jitterNs = 50.0;  // rms, white
    double wanderNs = 0.0;   // rms, of the step from pulse to pulse
    std::vector<Outage> outages{};
    std::vector<Shift> steps{};   // all pulses from then on
    std::vector<Shift> spikes{};  // the first pulse from then on
};

// The sampling PLLs as an earlier program left them; the oscillator fits the selection.
struct PllScenario {
    int selection = 0;  // 0: 15 MHz, 1: 10 MHz, 2 and 3: nothing that locks
    bool lock0 = true;  // false: no lock until the PLLs are told something
    bool lock1 = true;
};

// What the PTP daemon finds on the network, and who it is itself. Its role is the platform's script's business.
struct PtpScenario {
    uint64_t clockIdentity = 0;                    // of the instrument; 0: made from its network address
    uint64_t grandmaster = 0x0211'2233'FFFE'4455;  // of the clock that a slave follows
    bool masterPresent = true;                     // whether there is such a clock
    bool linkUp = true;                            // whether the cable is plugged in
    int64_t offsetNs = -37;                        // to the grandmaster, as a slave reports it
    double pathDelayNs = 1234.0;                   // to the next port
};

// A frame that a node repeats. It has one place for it: what could not be sent by the next time is replaced.
struct CanCyclicScenario {
    CanFrame frame{};
    double periodSeconds = 0.1;
    double firstSeconds = 0.0;  // of the instrument's time
    uint64_t count = 0;         // 0: without end
    bool counter = false;       // the first four bytes are the frame's number, from 0, lowest byte first
};

// A recording that a node plays, in the format of `candump -L`: frames keep their order, each is sent as early as its
// time and the bus allow. Times count from the earliest of the file.
struct CanLogScenario {
    std::string file{};        // empty: none
    std::string interface {};  // whose lines; empty: all
    double atSeconds = 0.0;    // the earliest time of the file in the instrument's
    bool repeat = false;       // again, a millisecond after its end
};

struct CanBusScenario {
    uint32_t bitrate = 500'000;  // of the nodes, 1/s
    bool acknowledged = true;    // a node acknowledges what ports send; false: the other ports have to
    std::vector<CanCyclicScenario> cyclic{};
    CanLogScenario log{};
};

struct CanInterfaceScenario {
    bool isVirtual() const { return virtualDevice || name.starts_with("vcan"); }

    std::string name{};  // "can0"
    int bus = 0;         // place in the list of buses; those beyond it have no traffic
    bool present = true;
    bool starts = true;  // false: `ip link set up` fails
    // Without a controller: no bit rate, no queue, and the other sockets have at once what one sends. "vcan..." always
    // is.
    bool virtualDevice = false;
};

struct CanScenario {
    // Empty: "can0" and so on, as many as canPorts has bits, each on a bus of its own.
    std::optional<std::vector<CanInterfaceScenario>> interfaces{};
    std::vector<CanBusScenario> buses{};
    // Whether frames are stamped from the start, because something else on the instrument wants stamps. False: only
    // once a program has asked for one; what came before reads the time of asking.
    bool stampsFromStart = true;
    // The CAN interfaces are the machine's own: sockets, names and commands for them go on to its kernel.
    bool kernel = false;
};

enum class SensorFamily {
    Monitors,  // hardware monitors for processor and board
    Chips,     // converter of the FPGA for the processor, I2C chips for the board
    Both,
    None,
};

// How warm it is. Processor and board strive for what the load makes of the ambient temperature.
struct ThermalScenario {
    SensorFamily sensors = SensorFamily::Monitors;
    double ambientCelsius = 25.0;
    double timeConstantSeconds = 300.0;  // of the board; the processor's is 40 s
    // Of the cable on a board of type 1.
    bool cableSensor = true;
    double cableCelsius = 22.0;  // -200 to 850
    // Lines that detect a cable: whether the board has them, and what they say at the start.
    bool cableLines = true;
    bool cable1 = false;
    bool cable2 = false;
};

struct Scenario {
    // Board and identity EEPROM.
    int boardType = 0;  // 0: eight slots, 1: two slots
    int slots = 8;      // as the EEPROM says; up to 255 for tests of nonsense
    uint64_t serialNumber = 0x4B53000000000001;
    uint32_t hardwareVersion = 0x00020301;  // shown as "1.3.2.0"
    uint16_t canPorts = 0xC000;
    bool eepromKeyValid = true;
    int eepromVersion = 1;
    bool supplyOn = false;  // true: the supply is already up when the module opens it (saves 2.4 s)
    PllScenario pll{};

    std::vector<ModuleScenario> modules;
    std::vector<Fault> faults;

    // Time. 1.0 is real time; unthrottled: every stream always has all its descriptors ready.
    double timeFactor = 1.0;
    bool unthrottled = false;
    double oscillatorErrorPpm = 0.0;
    OscillatorScenario oscillator{};
    ReferenceScenario irig{};
    ReferenceScenario pps{};
    ReferenceScenario ptpPulse{};
    // The computer's real-time clock: what it reads at the start, in seconds since 1970 (0: what it really reads), and
    // its steps. With either, and with a time factor, programs on the instrument are served its clocks.
    double realtimeAtStart = 0.0;
    std::vector<ReferenceScenario::Shift> realtimeSteps{};
    uint64_t seed = 1;

    PtpScenario ptp{};
    CanScenario can{};
    ThermalScenario thermals{};

    // Eight modules of all kinds with different sines in physical units: what one sees without a scenario file.
    static Scenario standard();
    // The same modules, every one with a Counter waveform.
    static Scenario counters(int modules = 8);
};

}  // namespace kestrixsim
