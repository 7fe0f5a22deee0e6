#include "libraries/protocols/ptp/replies.h"

#include <algorithm>

namespace Harvane::Ptp {

namespace {

// Where the data of the first TLV begins if the message is the record `id` with `size` bytes of data, or null. A reply
// may have the right id and no data.
const uint8_t* dataOf(const ptp_message* message, uint16_t id, size_t size) {
    if (message == nullptr || message->header.messageType != message_type_management) {
        return nullptr;
    }
    const tlv_extra* first = message->firstTlv;
    const bool right =
        first != nullptr && first->type == tlv_management && first->managementId == id && first->size == size;
    return right ? first->data : nullptr;
}

}  // namespace

bool PortDataSet::parse(const ptp_message* message) {
    const uint8_t* data = dataOf(message, id_port_data_set, port_data_set_size);
    if (data == nullptr) {
        return false;
    }
    std::copy_n(data, port_data_set_size, data_.begin());
    if (data_[10] > 9) {
        data_[10] = 0;
    }
    return true;
}

PortIdentity PortDataSet::identity() const {
    PortIdentity identity;
    std::copy_n(data_.begin(), identity.clock.size(), identity.clock.begin());
    identity.port = static_cast<uint16_t>(data_[8] << 8 | data_[9]);
    return identity;
}

bool TimeStatus::parse(const ptp_message* message) {
    const uint8_t* data = dataOf(message, id_time_status_np, time_status_size);
    if (data == nullptr) {
        return false;
    }
    std::copy_n(data, time_status_size, data_.begin());
    return true;
}

bool TimeStatus::grandmasterPresent() const {
    return std::any_of(data_.begin() + 38, data_.begin() + 42, [](uint8_t byte) { return byte != 0; });
}

ClockIdentity TimeStatus::grandmaster() const {
    ClockIdentity identity;
    std::copy_n(data_.begin() + 42, identity.size(), identity.begin());
    return identity;
}

}  // namespace Harvane::Ptp
