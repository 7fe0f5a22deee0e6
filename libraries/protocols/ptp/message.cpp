#include "libraries/protocols/ptp/message.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <mutex>
#include <new>

namespace Harvane::Ptp {

namespace {

constexpr size_t headerSize = 34;
constexpr size_t managementSize = 48;
constexpr size_t tlvHeaderSize = 4;

// Objects that wait for their next use. Clients of one process share it, each under a lock of its own, so it has one.
template <typename T>
class Pool {
public:
    T* take() {
        const std::lock_guard lock(mutex_);
        T* object = free_;
        if (object != nullptr) {
            free_ = object->next;
        }
        return object;
    }

    void giveBack(T* object) {
        const std::lock_guard lock(mutex_);
        object->next = free_;
        free_ = object;
    }

    void clear() {
        while (T* object = take()) {
            delete object;
        }
    }

private:
    std::mutex mutex_;
    T* free_ = nullptr;
};

constinit Pool<ptp_message> messages;
constinit Pool<tlv_extra> extras;

template <typename T>
T* allocate(Pool<T>& pool) {
    T* object = pool.take();
    if (object == nullptr) {
        return new (std::nothrow) T{};
    }
    *object = T{};
    return object;
}

uint16_t read16(const uint8_t* bytes) {
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

void write16(uint8_t* bytes, uint16_t value) {
    bytes[0] = static_cast<uint8_t>(value >> 8);
    bytes[1] = static_cast<uint8_t>(value);
}

PortIdentity readPort(const uint8_t* bytes) {
    PortIdentity port;
    std::copy_n(bytes, port.clock.size(), port.clock.begin());
    port.port = read16(bytes + 8);
    return port;
}

void writePort(uint8_t* bytes, const PortIdentity& port) {
    std::copy(port.clock.begin(), port.clock.end(), bytes);
    write16(bytes + 8, port.port);
}

Header readHeader(const uint8_t* wire) {
    Header header;
    header.transportSpecific = wire[0] & 0xF0;
    header.messageType = wire[0] & 0x0F;
    header.version = wire[1] & 0x0F;
    header.messageLength = read16(wire + 2);
    header.domainNumber = wire[4];
    header.source = readPort(wire + 20);
    header.sequenceId = read16(wire + 30);
    header.control = wire[32];
    header.logMessageInterval = wire[33];
    return header;
}

Management readManagement(const uint8_t* wire) {
    Management management;
    management.target = readPort(wire + 34);
    management.startingBoundaryHops = wire[44];
    management.boundaryHops = wire[45];
    management.action = wire[46] & 0x0F;
    return management;
}

// The TLVs between the management fields and the end of what arrived. Fewer bytes than a TLV's own head are padding.
int readTlvs(ptp_message& message, size_t count) {
    for (size_t at = managementSize; at + tlvHeaderSize <= count;) {
        const uint8_t* bytes = message.wire.data() + at;
        const uint16_t type = read16(bytes);
        const uint16_t length = read16(bytes + 2);
        at += tlvHeaderSize;
        if (length % 2 != 0 || length > count - at || (type == tlv_management && length < 2)) {
            return -EBADMSG;
        }
        tlv_extra* extra = tlv_extra_alloc();
        if (extra == nullptr) {
            return -ENOMEM;
        }
        msg_tlv_attach(&message, extra);
        extra->type = type;
        extra->length = length;
        const size_t idSize = type == tlv_management ? 2 : 0;
        extra->managementId = idSize != 0 ? read16(bytes + tlvHeaderSize) : 0;
        extra->data = bytes + tlvHeaderSize + idSize;
        extra->size = length - idSize;
        if (const int result = tlv_post_recv(*extra); result != 0) {
            return result;
        }
        at += length;
    }
    return 0;
}

}  // namespace

std::string cid2str(const ClockIdentity& clock) {
    char text[32];
    std::snprintf(text, sizeof text, "%02x%02x%02x.%02x%02x.%02x%02x%02x", clock[0], clock[1], clock[2], clock[3],
                  clock[4], clock[5], clock[6], clock[7]);
    return text;
}

std::string pid2str(const PortIdentity& port) {
    return cid2str(port.clock) + "-" + std::to_string(port.port);
}

ptp_message* msg_allocate() {
    ptp_message* message = allocate(messages);
    if (message != nullptr) {
        message->references = 1;
    }
    return message;
}

void msg_put(ptp_message* message) {
    if (message == nullptr || --message->references > 0) {
        return;
    }
    while (tlv_extra* extra = message->firstTlv) {
        message->firstTlv = extra->next;
        tlv_extra_recycle(extra);
    }
    messages.giveBack(message);
}

void msg_cleanup() {
    messages.clear();
    tlv_extra_cleanup();
}

tlv_extra* tlv_extra_alloc() {
    return allocate(extras);
}

void tlv_extra_recycle(tlv_extra* extra) {
    extras.giveBack(extra);
}

void tlv_extra_cleanup() {
    extras.clear();
}

void msg_tlv_attach(ptp_message* message, tlv_extra* extra) {
    extra->next = nullptr;
    (message->lastTlv != nullptr ? message->lastTlv->next : message->firstTlv) = extra;
    message->lastTlv = extra;
}

int msg_pre_send(ptp_message* message) {
    Header& header = message->header;
    uint8_t* wire = message->wire.data();
    size_t at = managementSize;
    for (const tlv_extra* extra = message->firstTlv; extra != nullptr; extra = extra->next) {
        const size_t idSize = extra->type == tlv_management ? 2 : 0;
        if (message->wire.size() - at < tlvHeaderSize + idSize + extra->size) {
            return -1;
        }
        write16(wire + at, extra->type);
        write16(wire + at + 2, static_cast<uint16_t>(idSize + extra->size));
        at += tlvHeaderSize;
        if (idSize != 0) {
            write16(wire + at, extra->managementId);
        }
        std::copy_n(extra->data, extra->size, wire + at + idSize);
        at += idSize + extra->size;
    }
    header.messageLength = static_cast<uint16_t>(at);
    std::fill_n(wire, managementSize, uint8_t{0});
    wire[0] = static_cast<uint8_t>((header.transportSpecific & 0xF0) | (header.messageType & 0x0F));
    wire[1] = header.version;
    write16(wire + 2, header.messageLength);
    wire[4] = header.domainNumber;
    writePort(wire + 20, header.source);
    write16(wire + 30, header.sequenceId);
    wire[32] = header.control;
    wire[33] = header.logMessageInterval;
    writePort(wire + 34, message->management.target);
    wire[44] = message->management.startingBoundaryHops;
    wire[45] = message->management.boundaryHops;
    wire[46] = message->management.action;
    return 0;
}

int msg_post_recv(ptp_message* message, ssize_t count) {
    if (count < static_cast<ssize_t>(headerSize) || count > static_cast<ssize_t>(message->wire.size())) {
        return -EBADMSG;
    }
    const auto size = static_cast<size_t>(count);
    message->header = readHeader(message->wire.data());
    if (message->header.version != version_ptp) {
        return -EPROTO;
    }
    if (message->header.messageType != message_type_management) {
        return 0;  // nobody looks further into it
    }
    if (size < managementSize) {
        return -EBADMSG;
    }
    message->management = readManagement(message->wire.data());
    return readTlvs(*message, size);
}

int tlv_post_recv(const tlv_extra& extra) {
    if (extra.type != tlv_management || extra.size == 0) {
        return 0;
    }
    const size_t wanted = extra.managementId == id_port_data_set    ? port_data_set_size
                          : extra.managementId == id_time_status_np ? time_status_size
                                                                    : extra.size;
    return extra.size == wanted ? 0 : -EBADMSG;
}

}  // namespace Harvane::Ptp
