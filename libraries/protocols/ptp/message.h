#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

// Management messages of IEEE 1588-2008 (chapters 13 and 15): what stands on the wire and what is made of it. The wire
// is only ever touched byte by byte, so that no processor minds where a field lies.
namespace Harvane::Ptp {

using ClockIdentity = std::array<uint8_t, 8>;

struct PortIdentity {
    ClockIdentity clock{};
    uint16_t port = 0;
};

std::string cid2str(const ClockIdentity& clock);  // "02a0b1.fffe.c2d3e4"
std::string pid2str(const PortIdentity& port);    // "02a0b1.fffe.c2d3e4-1"

inline constexpr uint8_t message_type_management = 13;
inline constexpr uint8_t version_ptp = 2;
inline constexpr uint16_t tlv_management = 1;
inline constexpr uint16_t id_port_data_set = 0x2004;
inline constexpr uint16_t id_time_status_np = 0xC000;  // of the daemon's own
inline constexpr size_t port_data_set_size = 26;
inline constexpr size_t time_status_size = 50;

// What is told apart of a header, in host order. What it hasn't is sent as 0 and not looked at in a reply.
struct Header {
    uint8_t transportSpecific = 0;  // in the upper four bits, as on the wire
    uint8_t messageType = 0;
    uint8_t version = 0;
    uint16_t messageLength = 0;  // what the sender says; what arrived is what counts
    uint8_t domainNumber = 0;
    PortIdentity source;
    uint16_t sequenceId = 0;
    uint8_t control = 0;
    uint8_t logMessageInterval = 0;
};

// What a management message has behind the header.
struct Management {
    PortIdentity target;
    uint8_t startingBoundaryHops = 0;
    uint8_t boundaryHops = 0;
    uint8_t action = 0;
};

// A TLV of a message. Its data lies in the message, as on the wire.
struct tlv_extra {
    uint16_t type = 0;
    uint16_t length = 0;        // of what follows this field, in bytes
    uint16_t managementId = 0;  // 0 where the type isn't management
    const uint8_t* data = nullptr;
    size_t size = 0;
    tlv_extra* next = nullptr;
};

struct ptp_message {
    std::array<uint8_t, 1500> wire;
    Header header;
    Management management;
    tlv_extra* firstTlv = nullptr;
    tlv_extra* lastTlv = nullptr;
    int references = 0;
    ptp_message* next = nullptr;  // in the pool
};

// A cleared message with one reference, from the pool or new; null without memory. A message belongs to one thread at a
// time. The pools are the process's and have a lock each.
ptp_message* msg_allocate();
// Drops a reference; the last one returns the message and its TLVs to the pools. Null is nothing.
void msg_put(ptp_message* message);
// Frees what lies in the pools. Messages in use stay good.
void msg_cleanup();

tlv_extra* tlv_extra_alloc();  // null without memory
void tlv_extra_recycle(tlv_extra* extra);
void tlv_extra_cleanup();
void msg_tlv_attach(ptp_message* message, tlv_extra* extra);

// Writes a management message to its wire, in network order, and its length to the header. 0, or -1 when it doesn't
// fit.
int msg_pre_send(ptp_message* message);

// Reads what arrived: `count` bytes, of which the wire holds as many as it has room for. 0; -EBADMSG for what is no
// message or is longer than the wire; -EPROTO for one of another version, which isn't ours to judge.
int msg_post_recv(ptp_message* message, ssize_t count);

// 0; -EBADMSG for a management TLV whose data has the wrong length for its id.
int tlv_post_recv(const tlv_extra& extra);

}  // namespace Harvane::Ptp
