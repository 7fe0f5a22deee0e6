#include "tools/zornhost/InstrumentSocket.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "tools/zornhost/Output.h"

namespace zornhost {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto clientTime = std::chrono::milliseconds(500);
constexpr auto answerTime = std::chrono::seconds(2);
constexpr int listenStepMs = 100;
constexpr size_t longestRequest = 200;
constexpr size_t longestAnswer = 64 << 20;
constexpr mode_t socketMode = 0660;
constexpr std::string_view errorMark = "error ";

// An owned descriptor of a socket.
class Descriptor {
public:
    explicit Descriptor(int value) : value_(value) {}
    ~Descriptor() {
        if (value_ >= 0) {
            ::close(value_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return value_; }

private:
    int value_;
};

sockaddr_un addressOf(const std::string& file) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (file.empty() || file.size() >= sizeof address.sun_path) {
        throw std::runtime_error(
            fmt::format("{}: a socket's name has 1 to {} characters", file, sizeof address.sun_path - 1));
    }
    std::memcpy(address.sun_path, file.c_str(), file.size());
    return address;
}

// Whether the descriptor was ready in time.
bool await(int descriptor, short events, Clock::time_point until) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
    pollfd wait{descriptor, events, 0};
    return left > 0 && ::poll(&wait, 1, static_cast<int>(left)) > 0;
}

bool sendAll(int descriptor, std::string_view text, Clock::time_point until) {
    while (!text.empty()) {
        if (!await(descriptor, POLLOUT, until)) {
            return false;
        }
        const ssize_t count = ::send(descriptor, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno != EAGAIN && errno != EINTR) {
            return false;
        }
        text.remove_prefix(count > 0 ? static_cast<size_t>(count) : 0);
    }
    return true;
}

// Up to a line end (`line`) or the end of the connection. False when it doesn't come in time or is too long.
bool receive(int descriptor, std::string& text, bool line, size_t longest, Clock::time_point until) {
    while (text.size() < longest) {
        char piece[4096];
        if (!await(descriptor, POLLIN, until)) {
            return false;
        }
        const ssize_t count = ::recv(descriptor, piece, sizeof piece, MSG_DONTWAIT);
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
            continue;
        }
        if (count <= 0) {
            return count == 0 && !line;
        }
        text.append(piece, static_cast<size_t>(count));
        if (line && text.find('\n') != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string InstrumentSocket::defaultFile() {
    for (const char* folder : {static_cast<const char*>(std::getenv("RUNTIME_DIRECTORY")),
                               static_cast<const char*>(std::getenv("XDG_RUNTIME_DIR")), "/run"}) {
        if (folder != nullptr && *folder != 0 && ::access(folder, W_OK | X_OK) == 0) {
            return fmt::format("{}/kestrix-{}.sock", folder, ::getpid());
        }
    }
    return {};
}

InstrumentSocket::InstrumentSocket(std::string file, Answer answer)
    : file_(std::move(file)), answer_(std::move(answer)) {
    const sockaddr_un address = addressOf(file_);
    const auto fail = [this](const char* what) {
        const int reason = errno;
        if (listener_ >= 0) {
            ::close(listener_);
        }
        throw std::runtime_error(fmt::format("{}: cannot {}: {}", file_, what, std::strerror(reason)));
    };
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listener_ < 0) {
        fail("make a socket");
    }
    struct stat status {};
    if (::lstat(file_.c_str(), &status) == 0) {
        if (!S_ISSOCK(status.st_mode)) {
            errno = EEXIST;
            fail("serve there");
        }
        ::unlink(file_.c_str());
    }
    // The mode is there before the name is, whatever the mask.
    ::fchmod(listener_, socketMode);
    if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("serve there");
    }
    ::chmod(file_.c_str(), socketMode);
    if (::listen(listener_, 8) != 0) {
        fail("listen");
    }
    thread_ = std::thread([this] { run(); });
}

InstrumentSocket::~InstrumentSocket() {
    stop_.store(true);
    thread_.join();
    ::close(listener_);
    ::unlink(file_.c_str());
}

void InstrumentSocket::run() {
    while (!stop_.load()) {
        pollfd wait{listener_, POLLIN, 0};
        if (::poll(&wait, 1, listenStepMs) <= 0) {
            continue;
        }
        const Descriptor client(::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (client.get() >= 0) {
            serve(client.get());
        } else {
            // Out of descriptors: whoever waits stays there.
            std::this_thread::sleep_for(std::chrono::milliseconds(listenStepMs));
        }
    }
}

// Who says nothing, or doesn't read, is left.
void InstrumentSocket::serve(int client) const {
    const auto until = Clock::now() + clientTime;
    std::string request;
    if (!receive(client, request, true, longestRequest, until)) {
        return;
    }
    request.resize(request.find('\n'));
    std::string answer;
    try {
        answer = answer_(request);
    } catch (const std::exception& failure) {
        answer = fmt::format("{}{}\n", errorMark, oneLine(failure.what()));
    }
    sendAll(client, answer, until);
}

std::string InstrumentSocket::ask(const std::string& file, const std::string& request) {
    const sockaddr_un address = addressOf(file);
    const auto until = Clock::now() + answerTime;
    const Descriptor server(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // A server that doesn't come to take the connection.
    const timeval bound{answerTime.count(), 0};
    ::setsockopt(server.get(), SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
    if (server.get() < 0 || ::connect(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error(fmt::format("{}: nobody answers there: {}", file, std::strerror(errno)));
    }
    std::string answer;
    if (!sendAll(server.get(), request + "\n", until) || !receive(server.get(), answer, false, longestAnswer, until) ||
        answer.empty()) {
        throw std::runtime_error(fmt::format("{}: no answer within {} s", file, answerTime.count()));
    }
    if (answer.starts_with(errorMark)) {
        throw std::runtime_error(fmt::format("{}: {}", file, oneLine(answer.substr(errorMark.size()))));
    }
    return answer;
}

}  // namespace zornhost
