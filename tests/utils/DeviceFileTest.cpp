#include "libraries/utils/DeviceFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace {

using Harvane::Utils::DeviceFile;
using Harvane::Utils::openDevice;

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

TEST(DeviceFile, closesOnceWhoeverOwnsItLast) {
    int first = -1;
    int second = -1;
    {
        DeviceFile owner = openDevice("/dev/null", O_RDWR);
        first = owner.get();
        EXPECT_EQ(::fcntl(first, F_GETFD), FD_CLOEXEC);
        DeviceFile heir(std::move(owner));
        // What is left of one that gave its descriptor away.
        EXPECT_FALSE(owner.isOpen());  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
        EXPECT_TRUE(owner.close());
        EXPECT_TRUE(isOpen(first));
        DeviceFile& same = heir;
        heir = std::move(same);
        EXPECT_EQ(heir.get(), first);

        owner = openDevice("/dev/zero", O_RDONLY);
        second = owner.get();
        owner = std::move(heir);
        EXPECT_FALSE(isOpen(second));
        EXPECT_EQ(owner.get(), first);
    }
    EXPECT_FALSE(isOpen(first));
    EXPECT_TRUE(DeviceFile().close());

    // A descriptor that is closed already is a failure once, and gone.
    DeviceFile file = openDevice("/dev/null", O_RDWR);
    ::close(file.get());
    EXPECT_FALSE(file.close());
    EXPECT_TRUE(file.close());
}

TEST(DeviceFile, failureNamesPathAndReason) {
    try {
        openDevice("/nonexistent/node", O_RDWR);
        FAIL();
    } catch (const std::system_error& failure) {
        EXPECT_EQ(failure.code().value(), ENOENT);
        EXPECT_STREQ(failure.what(), "/nonexistent/node: No such file or directory");
    }
}

}  // namespace
