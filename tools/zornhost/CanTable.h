#pragma once

#include <cstdint>

#include "tools/zornhost/RecordingTable.h"

namespace zornhost {

// A row of a CAN channel's table in a recording, and in memory.
struct CanRow {
    double timeS;  // since the start of the recording, on the acquisition's clock
    uint32_t id;
    uint8_t length;
    uint8_t data[8];
};

// Attribute of such a table: how logs name the port.
inline constexpr const char* canInterfaceName = "interface";

inline Hid canRowType() {
    const hsize_t bytes = sizeof CanRow::data;
    const Hid data(H5Tarray_create2(H5T_NATIVE_UINT8, 1, &bytes), H5Tclose);
    Hid type(H5Tcreate(H5T_COMPOUND, sizeof(CanRow)), H5Tclose);
    H5Tinsert(type.get(), "time", HOFFSET(CanRow, timeS), H5T_NATIVE_DOUBLE);
    H5Tinsert(type.get(), "id", HOFFSET(CanRow, id), H5T_NATIVE_UINT32);
    H5Tinsert(type.get(), "length", HOFFSET(CanRow, length), H5T_NATIVE_UINT8);
    H5Tinsert(type.get(), "data", HOFFSET(CanRow, data), data.get());
    return type;
}

}  // namespace zornhost
