#include "tests/amplifierlink/IoctlRecorder.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <cerrno>
#include <cstdarg>
#include <mutex>
#include <utility>

namespace {

std::mutex recorderMutex;
std::vector<std::string> transactions;

void record(const i2c_rdwr_ioctl_data& data, bool failed) {
    std::string text;
    for (__u32 n = 0; n < data.nmsgs; ++n) {
        const i2c_msg& message = data.msgs[n];
        text += fmt::format("{}{:02X}{}", n == 0 ? "" : " ", message.addr, (message.flags & I2C_M_RD) != 0 ? '>' : '<');
        for (__u16 byte = 0; byte < message.len; ++byte)
            text += fmt::format("{:02X}", message.buf[byte]);
    }
    const std::lock_guard lock(recorderMutex);
    transactions.push_back(text + (failed ? "!" : ""));
}

}  // namespace

// In front of the simulated instrument's, which stands in front of the C library's.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    using Ioctl = int (*)(int, unsigned long, ...);
    static const auto next = reinterpret_cast<Ioctl>(dlsym(RTLD_NEXT, "ioctl"));
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    const int result = next(fd, request, argument);
    if (request == I2C_RDWR) {
        const int error = errno;
        record(*static_cast<const i2c_rdwr_ioctl_data*>(argument), result < 0);
        errno = error;
    }
    return result;
}

namespace kestrixtest {

std::vector<std::string> takeTransactions() {
    const std::lock_guard lock(recorderMutex);
    return std::exchange(transactions, {});
}

}  // namespace kestrixtest
