#include "libraries/devices/embedded/RegisterDevice.h"

#include <unistd.h>

#include <utility>

#include "libraries/utils/ByteHelper.h"

namespace Harvane::ZornLib::Devices::Embedded {

template <typename T>
RegisterDevice<T>::RegisterDevice(uint64_t baseAddress, bool endianness, bool isRegisterValueType,
                                  std::shared_ptr<IRegisterAccess> access)
    : baseAddress_(baseAddress),
      endianness_(endianness),
      isRegisterValueType_(isRegisterValueType),
      access_(std::move(access)) {}

template <typename T>
void RegisterDevice<T>::setEndianness(bool endianness) {
    endianness_ = endianness;
}

template <typename T>
bool RegisterDevice<T>::getEndianness() const {
    return endianness_;
}

template <typename T>
bool RegisterDevice<T>::getIsRegisterValueType() const {
    return isRegisterValueType_;
}

template <typename T>
size_t RegisterDevice<T>::getBaseTypeSize() const {
    return sizeof(T);
}

template <typename T>
uint64_t RegisterDevice<T>::getBaseAddress() const {
    return baseAddress_;
}

template <typename T>
std::vector<IRegisterValue*>& RegisterDevice<T>::getRegisters() {
    return registers_;
}

template <typename T>
IRegisterValue* RegisterDevice<T>::FindRegisterValueInRange(uint64_t address, uint64_t bit, uint64_t bits) const {
    constexpr uint64_t bitsPerAddress = 8 * sizeof(T);
    const uint64_t start = address * bitsPerAddress + bit;
    for (IRegisterValue* field : registers_) {
        const uint64_t fieldStart = field->getAddress() * bitsPerAddress + field->getBit();
        if ((fieldStart <= start && start <= fieldStart + field->getBits() - 1) ||
            (start <= fieldStart && fieldStart <= start + bits - 1)) {
            return field;
        }
    }
    return nullptr;
}

template <typename T>
void RegisterDevice<T>::write(uint64_t offset, unsigned char* data, size_t size) {
    swapWord(data, size);
    access_->write(baseAddress_, offset, data, size);
    if (writeDelay_ != 0) {
        ::usleep(writeDelay_ * 1000);
    }
}

template <typename T>
void RegisterDevice<T>::read(uint64_t offset, unsigned char* data, size_t size) {
    access_->read(baseAddress_, offset, data, size);
    swapWord(data, size);
}

template <typename T>
void RegisterDevice<T>::swapWord(unsigned char* data, size_t size) const {
    using Utils::DataTypes::ByteHelper;
    if (!endianness_) {
        return;
    }
    switch (isRegisterValueType_ ? size : sizeof(T)) {
        case 2:
            ByteHelper::sizedByteSwap<2>(data);
            break;
        case 4:
            ByteHelper::sizedByteSwap<4>(data);
            break;
        case 8:
            ByteHelper::sizedByteSwap<8>(data);
            break;
        default:
            break;
    }
}

template <typename T>
std::string RegisterDevice<T>::toString() const {
    std::string text = "Registers\n";
    for (const IRegisterValue* field : registers_) {
        text += field->toString() + "\n";
    }
    return text;
}

template <typename T>
void RegisterDevice<T>::setWriteDelay(uint32_t milliseconds) {
    writeDelay_ = milliseconds;
}

template class RegisterDevice<unsigned char>;
template class RegisterDevice<unsigned short>;
template class RegisterDevice<unsigned int>;

}  // namespace Harvane::ZornLib::Devices::Embedded
