#include "tools/zornhost/RecordingTable.h"

#include <algorithm>

namespace zornhost {

RecordingTable::RecordingTable(hid_t file, const char* name, Hid type, uint64_t chunk) : type_(std::move(type)) {
    const hsize_t none = 0;
    const hsize_t unlimited = H5S_UNLIMITED;
    const hsize_t together = chunk;
    const Hid space(H5Screate_simple(1, &none, &unlimited), H5Sclose);
    const Hid properties(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
    H5Pset_chunk(properties.get(), 1, &together);
    const Hid links(H5Pcreate(H5P_LINK_CREATE), H5Pclose);
    H5Pset_create_intermediate_group(links.get(), 1);
    H5Pset_char_encoding(links.get(), H5T_CSET_UTF8);
    set_ = Hid(H5Dcreate2(file, name, type_.get(), space.get(), links.get(), properties.get(), H5P_DEFAULT), H5Dclose);
}

bool RecordingTable::put(uint64_t first, const void* rows, uint64_t count) {
    const hsize_t start = first;
    const hsize_t length = count;
    if (const hsize_t size = first + count; size > size_) {
        if (H5Dset_extent(set_.get(), &size) < 0) {
            return false;
        }
        size_ = size;
    }
    const Hid target(H5Dget_space(set_.get()), H5Sclose);
    H5Sselect_hyperslab(target.get(), H5S_SELECT_SET, &start, nullptr, &length, nullptr);
    const Hid source(H5Screate_simple(1, &length, nullptr), H5Sclose);
    return H5Dwrite(set_.get(), type_.get(), source.get(), target.get(), H5P_DEFAULT, rows) >= 0;
}

Hid fixedText(size_t size) {
    Hid type(H5Tcopy(H5T_C_S1), H5Tclose);
    H5Tset_size(type.get(), size);
    H5Tset_strpad(type.get(), H5T_STR_NULLTERM);
    H5Tset_cset(type.get(), H5T_CSET_UTF8);
    return type;
}

}  // namespace zornhost
