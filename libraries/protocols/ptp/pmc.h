#pragma once

#include <cstdint>

#include "libraries/protocols/ptp/config.h"
#include "libraries/protocols/ptp/message.h"
#include "libraries/protocols/ptp/transport.h"

namespace Harvane::Ptp {

// A client of the daemon's management interface. Belongs to one thread at a time.
struct pmc;

// `iface_name` is the path of the client's own socket. `transport_specific` stands in the upper four bits. With
// `zero_datalen` a request carries no data, else as many zeros as the answer will have bytes. The target is all ports
// of all clocks. Null when it can't be made.
pmc* pmc_create(const config* settings, transport_type type, const char* iface_name, uint8_t boundary_hops,
                uint8_t domain_number, uint8_t transport_specific, int zero_datalen);
void pmc_destroy(pmc* client);  // null is nothing

int pmc_get_transport_fd(const pmc* client);

// "ACTION ID", as in "GET PORT_DATA_SET". Case doesn't matter and words may be cut as long as they stay unique. The
// only action that is sent is GET. 0 or -1.
int pmc_do_command(pmc* client, const char* text);
int pmc_send_get_action(pmc* client, uint16_t id);  // 0 or -1

// What has arrived, to be given to msg_put; null when that is nothing, or nothing that can be read. Doesn't wait.
ptp_message* pmc_recv(pmc* client);

// Throws away what has arrived until now.
void pmc_flush(pmc* client);

}  // namespace Harvane::Ptp
