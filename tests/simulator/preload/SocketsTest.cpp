#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cstring>
#include <vector>

#include "tests/simulator/preload/PreloadFixture.h"

using namespace kestrixsim;

namespace {

const std::string daemonPath = "/var/run/ptp4l";
const std::string clientPath = "/var/run/ptpapi.test";

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

template <typename Call>
int with(const std::string& path, Call&& call) {
    const sockaddr_un address = addressOf(path);
    return static_cast<int>(call(reinterpret_cast<const sockaddr*>(&address), sizeof address)) < 0 ? errno : 0;
}

int bindTo(int fd, const std::string& path) {
    return with(path, [fd](const sockaddr* address, socklen_t size) { return ::bind(fd, address, size); });
}

std::string nameOf(int fd) {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return address.sun_path;
}

class Sockets : public PreloadTest {
protected:
    Sockets() : request_(54) {
        const std::pair<size_t, uint8_t> fields[] = {{0, 0x0D}, {1, 2}, {3, 54}, {49, 1}, {51, 2}, {52, 0x20}, {53, 4}};
        for (const auto& [at, value] : fields) {
            request_[at] = value;
        }
    }

    static void role(const std::string& argument) {
        for (const std::string& each : {argument, std::string("restart")}) {
            FILE* stream = ::popen(("/opt/harvane/scripts/ptp_control.sh " + each).c_str(), "re");
            ASSERT_NE(stream, nullptr);
            ::pclose(stream);
        }
    }

    int ask(int fd) const {
        return with(daemonPath, [&](const sockaddr* address, socklen_t size) {
            return ::sendto(fd, request_.data(), request_.size(), 0, address, size);
        });
    }

    // The sender of what arrives, or the error.
    static std::string sender(int fd, int flags = 0) {
        uint8_t bytes[200];
        sockaddr_un from{};
        socklen_t length = sizeof from;
        const ssize_t count = ::recvfrom(fd, bytes, sizeof bytes, flags, reinterpret_cast<sockaddr*>(&from), &length);
        EXPECT_TRUE(count < 0 || count == 80) << count;
        return count < 0 ? std::strerror(errno) : from.sun_path;
    }

    std::vector<uint8_t> request_;
};

TEST_F(Sockets, NamesAreTheInstruments) {
    role("slave");
    const Descriptor client(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bindTo(client, clientPath), 0);
    EXPECT_EQ(nameOf(client), clientPath);
    EXPECT_TRUE(std::filesystem::exists(rootFolder() + clientPath)) << "not in the system's own folder";
    const Descriptor second(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bindTo(second, clientPath), EADDRINUSE);
    EXPECT_EQ(::chmod(clientPath.c_str(), 0660), 0);
    struct stat status {};
    EXPECT_EQ(::stat(clientPath.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFSOCK | 0660u);
    EXPECT_EQ(ask(client), 0);
    EXPECT_EQ(sender(client), daemonPath);
    // By message, and by a connection.
    sockaddr_un address = addressOf(daemonPath);
    iovec part{request_.data(), request_.size()};
    msghdr message{};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    EXPECT_EQ(::sendmsg(client, &message, 0), 54);
    EXPECT_EQ(sender(client), daemonPath);
    EXPECT_EQ(with(daemonPath, [&](const sockaddr* at, socklen_t size) { return ::connect(client, at, size); }), 0);
    EXPECT_EQ(::write(client, request_.data(), request_.size()), 54);
    pollfd wait{client, POLLIN, 0};
    EXPECT_EQ(::poll(&wait, 1, 1000), 1);
    EXPECT_EQ(sender(client), daemonPath);
    EXPECT_EQ(::unlink(clientPath.c_str()), 0);
    EXPECT_EQ(::unlink(clientPath.c_str()), -1);
    EXPECT_EQ(bindTo(second, clientPath), 0);
    // Other sockets go by.
    TemporaryFolder folder;
    const Descriptor other(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bindTo(other, folder / "socket"), 0);
    EXPECT_EQ(nameOf(other), folder / "socket");
}

TEST_F(Sockets, TheDaemonComesAndGoes) {
    const Descriptor client(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bindTo(client, clientPath), 0);
    EXPECT_EQ(ask(client), ENOENT);
    role("master");
    EXPECT_EQ(ask(client), 0);
    instrument().crashPtpDaemon();
    EXPECT_EQ(ask(client), ECONNREFUSED);
    role("master");
    EXPECT_EQ(ask(client), 0);
    role("irig master");
    EXPECT_EQ(ask(client), ENOENT);
    for (int answers = 0; answers < 2; ++answers) {
        EXPECT_EQ(sender(client), daemonPath) << "what it sent has arrived, whatever became of it";
    }
    EXPECT_EQ(sender(client, MSG_DONTWAIT), std::strerror(EAGAIN));
    // A reply that comes late reaches whoever waits, in whatever way.
    role("master");
    for (const char* way : {"recvfrom", "poll", "select"}) {
        instrument().inject({.kind = FaultKind::PtpLate, .code = 30});
        EXPECT_EQ(ask(client), 0);
        EXPECT_EQ(sender(client, MSG_DONTWAIT), std::strerror(EAGAIN));
        if (*way == 'p') {
            pollfd wait{client, POLLIN, 0};
            EXPECT_EQ(::poll(&wait, 1, 10000), 1);
        } else if (*way == 's') {
            fd_set set;
            FD_ZERO(&set);
            FD_SET(client, &set);
            timeval time{10, 0};
            EXPECT_EQ(::select(client + 1, &set, nullptr, nullptr, &time), 1);
        }
        EXPECT_EQ(sender(client), daemonPath) << way;
    }
    // A forked child has a daemon of its own, which runs once it is told to, and as often as the parent's has.
    const uint64_t restarts = instrument().ptpSocket().incarnation;
    const pid_t child = fork();
    if (child == 0) {
        instrument().runCommand("/opt/harvane/scripts/ptp_control.sh slave");
        while (instrument().ptpSocket().incarnation < restarts) {
            instrument().runCommand("/opt/harvane/scripts/ptp_control.sh restart");
        }
        const bool answered = ask(client) == 0 && sender(client, MSG_DONTWAIT) == daemonPath;
        instrument().runCommand("/opt/harvane/scripts/ptp_control.sh disable");
        instrument().runCommand("/opt/harvane/scripts/ptp_control.sh restart");
        std::exit(answered && ask(client) == ENOENT ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ask(client), 0);
    EXPECT_EQ(sender(client), daemonPath) << "the child took the parent's with it";
    reset(quickScenario());
    EXPECT_EQ(ask(client), ENOENT) << "a new instrument has the old one's daemon";
}

}  // namespace
