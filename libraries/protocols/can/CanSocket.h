#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "libraries/protocols/can/Commands.h"

namespace Harvane::ZornLib::Protocols::CAN {

// What the operations of a socket answer beside 0 and counts. errno is that of the call which failed.
namespace CanResult {
inline constexpr std::int32_t invalidParameters = -102;  // also a `send` of more than 8 bytes
inline constexpr std::int32_t notInitialised = -104;     // `stop` before `initialize`; `start` that couldn't configure
inline constexpr std::int32_t wrongState = -105;         // open where it must be closed, or the other way round
inline constexpr std::int32_t closed = -106;             // `send` and `receive`
inline constexpr std::int32_t socketFailed = -109;
inline constexpr std::int32_t noSuchInterface = -110;
inline constexpr std::int32_t bindFailed = -112;
inline constexpr std::int32_t writeFailed = -113;
inline constexpr std::int32_t readFailed = -114;
inline constexpr std::int32_t errorFrame = -115;
inline constexpr std::int32_t nothingToRead = -116;
inline constexpr std::int32_t notNonBlocking = -117;
inline constexpr std::int32_t wouldBlock = -118;
inline constexpr std::int32_t optionFailed = -119;
}  // namespace CanResult

// A frame as it was received.
struct CanSockFrameInfo {
    bool extendedFormat = false;  // 29-bit identifier
    bool remoteRequest = false;
    bool errorFrame = false;      // of the kernel's making
    std::uint64_t canId = 0;      // without flags
    std::uint8_t dataLength = 0;  // 0 to 8
    std::uint8_t data[8] = {};    // 0 beyond dataLength
    std::uint64_t timestamp = 0;  // microseconds since 1970: when the kernel got it
};

// The settings of a socket, and how it stands.
struct CanSockInfo {
    bool initialized = false;
    std::string interfaceName;
    int socketFd = 0;
    std::uint64_t bitrate = 0;  // bit/s
    std::uint64_t canId = 0;
    bool extendedFormat = false;
    std::uint64_t restartMs = 0;
    std::uint32_t queueLength = 0;        // frames
    std::uint32_t receiveBufferSize = 0;  // bytes
};

// One interface of SocketCAN (linux/Documentation/networking/can.rst): configures it with the `ip` tool and sends and
// receives classic frames on a raw socket. Owns its descriptor. One thread at a time. Results: 0 or more is success.
class CanSocket {
public:
    CanSocket();
    virtual ~CanSocket();
    CanSocket(const CanSocket&) = delete;
    CanSocket& operator=(const CanSocket&) = delete;
    // What has been moved from is closed and not initialised.
    CanSocket(CanSocket&& other) noexcept;
    CanSocket& operator=(CanSocket&& other) noexcept;

    // "can0" at 250 kbit/s, and closed.
    void setDefaults();
    std::int32_t validParameters() const;
    // Configures the interface, which takes some ten milliseconds. A tool that fails doesn't count, one that can't be
    // run does, and leaves the interface down.
    std::int32_t initialize();
    // Configures the interface and opens the socket.
    std::int32_t start();
    // Closes the socket. The interface stays as it is.
    std::int32_t stop();
    void closeSocket();

    // Classic frame with a 29-bit identifier, 0 to 8 bytes. Never blocks.
    std::int32_t send(const std::uint8_t* data, std::size_t length, std::uint32_t id);
    // The oldest frame that waits; the number of its data bytes, or an error. Never blocks.
    std::int32_t receive(CanSockFrameInfo& frame);

    std::int32_t getInfo(CanSockInfo& info) const;
    CanSockInfo getSocketInfo() const;
    // Takes the settings over. What the socket has open stays its own.
    void setSocketInfo(const CanSockInfo& info);
    std::int32_t getSocketFd() const;
    // These two bring an initialised interface down and up again.
    std::int32_t setBitrate(std::uint64_t bitsPerSecond);
    std::int32_t setQueueLength(std::uint32_t frames);
    std::int32_t restartCommand() const;
    bool getAutoRestart() const { return autoRestart_; }
    void setAutoRestart(bool on) { autoRestart_ = on; }
    const Commands& getCommands() const { return commands_; }

    // Frames that the kernel has dropped since the socket was opened because its buffer was full; -1 where the kernel
    // doesn't tell.
    std::int64_t getKernelDrops() const;

private:
    std::int32_t restart();
    std::int32_t failClosed(std::int32_t result);

    Commands commands_;
    bool autoRestart_ = true;
    bool initialized_ = false;
    std::string interfaceName_;
    int socketFd_ = -1;  // 0 or less: closed
    std::uint64_t bitrate_ = 0;
    std::uint64_t canId_ = 0;
    bool extendedFormat_ = true;
    std::uint64_t restartMs_ = 0;
    std::uint32_t queueLength_ = 0;
    std::uint32_t receiveBufferSize_ = 0;
};

}  // namespace Harvane::ZornLib::Protocols::CAN
