#pragma once

#include <memory>

#include "libraries/devices/embedded/IRegisterAccess.h"
#include "libraries/devices/embedded/IRegisterDevice.h"

namespace Harvane::ZornLib::Devices::Embedded {

// A block of words of type T: unsigned char, unsigned short or unsigned int. The register maps derive from it and hold
// their fields as members, which point back here: a block is neither copied nor moved.
template <typename T>
class RegisterDevice : public IRegisterDevice {
public:
    // `endianness` true: the bytes of each word are reversed between the bus and the fields.
    RegisterDevice(uint64_t baseAddress, bool endianness, bool isRegisterValueType,
                   std::shared_ptr<IRegisterAccess> access);
    RegisterDevice(const RegisterDevice&) = delete;
    RegisterDevice& operator=(const RegisterDevice&) = delete;

    void setEndianness(bool endianness) override;
    bool getEndianness() const override;
    bool getIsRegisterValueType() const override;
    size_t getBaseTypeSize() const override;
    uint64_t getBaseAddress() const override;
    std::vector<IRegisterValue*>& getRegisters() override;
    IRegisterValue* FindRegisterValueInRange(uint64_t address, uint64_t bit, uint64_t bits) const override;
    void write(uint64_t offset, unsigned char* data, size_t size) override;
    void read(uint64_t offset, unsigned char* data, size_t size) override;
    std::string toString() const override;

protected:
    ~RegisterDevice() = default;

    // Milliseconds slept after each word written; 0 for none.
    void setWriteDelay(uint32_t milliseconds);

private:
    void swapWord(unsigned char* data, size_t size) const;

    uint64_t baseAddress_;
    bool endianness_;
    bool isRegisterValueType_;
    std::shared_ptr<IRegisterAccess> access_;
    uint32_t writeDelay_ = 0;
    std::vector<IRegisterValue*> registers_;
};

extern template class RegisterDevice<unsigned char>;
extern template class RegisterDevice<unsigned short>;
extern template class RegisterDevice<unsigned int>;

}  // namespace Harvane::ZornLib::Devices::Embedded
