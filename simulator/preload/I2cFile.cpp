#include "simulator/preload/I2cFile.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace kestrixsim {

namespace {

constexpr size_t maxBytes = 8192;  // of one read or write, as the kernel's i2c-dev cuts them

int transfer(const i2c_rdwr_ioctl_data* data) {
    if (data == nullptr || (data->msgs == nullptr && data->nmsgs != 0)) {
        return -EFAULT;
    }
    if (data->nmsgs == 0 || data->nmsgs > I2C_RDWR_IOCTL_MAX_MSGS) {
        return -EINVAL;
    }
    std::array<I2cMessage, I2C_RDWR_IOCTL_MAX_MSGS> messages;
    for (size_t i = 0; i < data->nmsgs; ++i) {
        const i2c_msg& message = data->msgs[i];
        if (message.len > maxBytes || (message.flags & I2C_M_RECV_LEN) != 0) {
            return -EINVAL;
        }
        if (message.buf == nullptr && message.len != 0) {
            return -EFAULT;
        }
        messages[i] = {message.addr, (message.flags & I2C_M_RD) != 0, message.buf, message.len};
    }
    return runtime::get().i2cTransfer(messages.data(), data->nmsgs);
}

}  // namespace

constinit FilePool<I2cFile> I2cFile::pool_;

int I2cFile::open(int, ServedFile*& file) {
    const int result = runtime::get().i2cOpen();
    if (result == 0) {
        I2cFile& made = pool_.take();
        made.slave_.store(0, std::memory_order_relaxed);
        file = &made;
    }
    return result;
}

ssize_t I2cFile::read(void* buffer, size_t size) {
    return runtime::get().i2cRead(slave_.load(std::memory_order_relaxed), static_cast<uint8_t*>(buffer),
                                  std::min(size, maxBytes));
}

ssize_t I2cFile::write(const void* buffer, size_t size) {
    return runtime::get().i2cWrite(slave_.load(std::memory_order_relaxed), static_cast<const uint8_t*>(buffer),
                                   std::min(size, maxBytes));
}

int I2cFile::control(uint32_t request, uintptr_t argument) {
    switch (request) {
        case I2C_SLAVE:
        case I2C_SLAVE_FORCE:
            if (argument > 0x7F) {
                return -EINVAL;
            }
            if (const int result = runtime::get().i2cSelect(); result != 0) {
                return result;
            }
            slave_.store(static_cast<int>(argument), std::memory_order_relaxed);
            return 0;
        case I2C_RDWR:
            return transfer(reinterpret_cast<const i2c_rdwr_ioctl_data*>(argument));
        case I2C_FUNCS:
            if (argument == 0) {
                return -EFAULT;
            }
            *reinterpret_cast<unsigned long*>(argument) = I2C_FUNC_I2C;
            return 0;
        case I2C_RETRIES:
        case I2C_TIMEOUT:
            return 0;
        case I2C_TENBIT:
            return argument == 0 ? 0 : -EINVAL;
        default:
            return -ENOTTY;
    }
}

void I2cFile::recycle() {
    pool_.giveBack(*this);
}

}  // namespace kestrixsim
