#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "libraries/protocols/ptp/message.h"
#include "libraries/protocols/ptp/replies.h"

using namespace Harvane::Ptp;

namespace {

// All that a client makes of a datagram, as a text. `behind` stands in the buffer where nothing has arrived.
std::string outcome(const uint8_t* data, size_t size, uint8_t behind) {
    const std::unique_ptr<ptp_message, decltype(&msg_put)> message(msg_allocate(), &msg_put);
    message->wire.fill(behind);
    std::copy_n(data, std::min(size, message->wire.size()), message->wire.begin());
    const int verdict = msg_post_recv(message.get(), static_cast<ssize_t>(size));
    if (verdict != 0) {
        if (verdict != -EBADMSG && verdict != -EPROTO) {
            __builtin_trap();
        }
        return std::to_string(verdict);
    }
    for (const tlv_extra* extra = message->firstTlv; extra != nullptr; extra = extra->next) {
        if (extra->data < message->wire.data() || extra->data + extra->size > message->wire.data() + size) {
            __builtin_trap();
        }
    }
    PortDataSet port;
    TimeStatus time;
    const bool isPort = port.parse(message.get());
    const bool isTime = time.parse(message.get());
    if ((isPort && isTime) || (isPort && size < 80) || (isTime && size < 104) || port.state() > 9) {
        __builtin_trap();
    }
    return std::to_string(isPort) + pid2str(port.identity()) + std::to_string(port.state()) + std::to_string(isTime) +
           cid2str(time.grandmaster()) + std::to_string(time.grandmasterPresent());
}

}  // namespace

// Datagrams that no PTP daemon would send: whatever has arrived, and however much of it, there is a verdict, and it
// depends on nothing else.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (outcome(data, size, 0) != outcome(data, size, 0xFF)) {
        __builtin_trap();
    }
    return 0;
}
