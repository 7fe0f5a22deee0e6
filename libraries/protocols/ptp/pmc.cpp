#include "libraries/protocols/ptp/pmc.h"

#include <strings.h>
#include <syslog.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "libraries/protocols/ptp/print.h"

namespace Harvane::Ptp {

struct pmc {
    uint16_t sequenceId = 0;
    uint8_t boundaryHops = 0;
    uint8_t domainNumber = 0;
    uint8_t transportSpecific = 0;
    PortIdentity port;
    PortIdentity target;
    uds transport;
    bool zeroDataLength = false;
};

namespace {

constexpr uint8_t actionGet = 0;
constexpr uint8_t controlManagement = 4;
constexpr uint8_t noLogInterval = 0x7F;

// What GET can ask for.
struct Identifier {
    const char* name;
    uint16_t id;
    size_t size;  // of the answer's data
};

constexpr Identifier identifiers[] = {
    {"PORT_DATA_SET", id_port_data_set, port_data_set_size},
    {"TIME_STATUS_NP", id_time_status_np, time_status_size},
};

bool startsWith(const char* name, const char* start) {
    return strncasecmp(name, start, std::strlen(start)) == 0;
}

// The identifier with this name, or else the only one that begins with it.
const Identifier* findIdentifier(const char* name) {
    const Identifier* found = nullptr;
    for (const Identifier& each : identifiers) {
        if (strcasecmp(each.name, name) == 0) {
            return &each;
        }
        if (startsWith(each.name, name)) {
            if (found != nullptr) {
                print(LOG_ERR, "id %s is too ambiguous\n", name);
                return nullptr;
            }
            found = &each;
        }
    }
    return found;
}

}  // namespace

pmc* pmc_create(const config* settings, transport_type type, const char* iface_name, uint8_t boundary_hops,
                uint8_t domain_number, uint8_t transport_specific, int zero_datalen) {
    std::unique_ptr<pmc> client(new (std::nothrow) pmc);
    if (client == nullptr || type != TRANS_UDS) {
        print(LOG_ERR, "failed to create transport");
        return nullptr;
    }
    client->boundaryHops = boundary_hops;
    client->domainNumber = domain_number;
    client->transportSpecific = transport_specific;
    client->port.port = 1;  // of a clock that has no identity
    client->target.clock.fill(0xFF);
    client->target.port = 0xFFFF;
    client->zeroDataLength = zero_datalen != 0;
    if (uds_open(client->transport, settings, iface_name) != 0) {
        print(LOG_ERR, "failed to open transport");
        return nullptr;
    }
    return client.release();
}

void pmc_destroy(pmc* client) {
    if (client != nullptr) {
        uds_close(client->transport);
        delete client;
    }
}

int pmc_get_transport_fd(const pmc* client) {
    return client->transport.fd;
}

int pmc_do_command(pmc* client, const char* text) {
    char action[11];
    char name[65];
    if (std::sscanf(text, " %10s %64s", action, name) != 2 || !startsWith("GET", action)) {
        return -1;
    }
    const Identifier* identifier = findIdentifier(name);
    return identifier != nullptr ? pmc_send_get_action(client, identifier->id) : -1;
}

int pmc_send_get_action(pmc* client, uint16_t id) {
    static constexpr std::array<uint8_t, time_status_size> zeros{};
    const std::unique_ptr<ptp_message, decltype(&msg_put)> message(msg_allocate(), &msg_put);
    tlv_extra* extra = message != nullptr ? tlv_extra_alloc() : nullptr;
    if (extra == nullptr) {
        print(LOG_ERR, "failed to allocate TLV descriptor");
        return -1;
    }
    Header& header = message->header;
    header.transportSpecific = client->transportSpecific;
    header.messageType = message_type_management;
    header.version = version_ptp;
    header.domainNumber = client->domainNumber;
    header.source = client->port;
    header.sequenceId = client->sequenceId++;
    header.control = controlManagement;
    header.logMessageInterval = noLogInterval;
    message->management = {client->target, client->boundaryHops, client->boundaryHops, actionGet};
    extra->type = tlv_management;
    extra->managementId = id;
    extra->data = zeros.data();
    for (const Identifier& each : identifiers) {
        extra->size = !client->zeroDataLength && each.id == id ? each.size : extra->size;
    }
    msg_tlv_attach(message.get(), extra);
    if (msg_pre_send(message.get()) != 0) {
        print(LOG_ERR, "msg_pre_send failed");
        return -1;
    }
    return uds_send(client->transport, message->wire.data(), header.messageLength) < 0 ? -1 : 0;
}

ptp_message* pmc_recv(pmc* client) {
    std::unique_ptr<ptp_message, decltype(&msg_put)> message(msg_allocate(), &msg_put);
    if (message == nullptr) {
        return nullptr;
    }
    const ssize_t count = uds_recv(client->transport, message->wire.data(), message->wire.size());
    if (count < 1) {
        print(LOG_ERR, "recv message failed");
        return nullptr;
    }
    const int result = msg_post_recv(message.get(), count);
    if (result != 0) {
        if (result != -EPROTO) {
            print(LOG_ERR, "bad message");
        }
        return nullptr;
    }
    return message.release();
}

void pmc_flush(pmc* client) {
    constexpr int most = 64;  // more than a socket queues, and no chance for somebody who floods it
    uint8_t byte = 0;
    for (int i = 0; i < most && uds_recv(client->transport, &byte, 1) >= 0; ++i) {
    }
}

}  // namespace Harvane::Ptp
