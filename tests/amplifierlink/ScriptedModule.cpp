#include "tests/amplifierlink/ScriptedModule.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace kestrixtest {

ScriptedModule::ScriptedModule() : master_(::posix_openpt(O_RDWR | O_NOCTTY)) {
    std::array<char, 64> name{};
    if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0 ||
        ::ptsname_r(master_, name.data(), name.size()) != 0) {
        throw std::runtime_error("no pseudo-terminal");
    }
    path_ = name.data();
    thread_ = std::thread([this] { run(); });
}

ScriptedModule::~ScriptedModule() {
    stopped_ = true;
    thread_.join();
    ::close(master_);
}

void ScriptedModule::script(const std::vector<std::string>& replies) {
    const std::lock_guard lock(mutex_);
    replies_.assign(replies.begin(), replies.end());
}

std::string ScriptedModule::frame(const std::string& statusAndData) {
    return fmt::format("A5 {:02X} {} 5A", (statusAndData.size() + 1) / 3, statusAndData);
}

std::vector<std::string> ScriptedModule::takeRequests() {
    const std::lock_guard lock(mutex_);
    return std::exchange(requests_, {});
}

void ScriptedModule::run() {
    std::vector<unsigned char> received;
    while (!stopped_) {
        pollfd readable{master_, POLLIN, 0};
        if (::poll(&readable, 1, 10) <= 0 || (readable.revents & POLLIN) == 0) {
            // Nobody has the port open: the terminal reports a hang-up at once.
            if ((readable.revents & POLLHUP) != 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            continue;
        }
        std::array<unsigned char, 256> bytes;
        const ssize_t count = ::read(master_, bytes.data(), bytes.size());
        if (count <= 0) {
            continue;
        }
        received.insert(received.end(), bytes.begin(), bytes.begin() + count);
        while (received.size() >= 2 && received.size() >= received[1] + 3u) {
            const auto end = received.begin() + received[1] + 3;
            std::string text;
            for (auto byte = received.begin(); byte != end; ++byte) {
                text += fmt::format("{}{:02X}", text.empty() ? "" : " ", *byte);
            }
            received.erase(received.begin(), end);
            {
                const std::lock_guard lock(mutex_);
                requests_.push_back(text);
            }
            answer();
        }
    }
}

void ScriptedModule::answer() {
    std::string reply = acknowledge();
    {
        const std::lock_guard lock(mutex_);
        if (!replies_.empty()) {
            reply = replies_.front();
            replies_.pop_front();
        }
    }
    std::vector<unsigned char> bytes;
    const auto send = [&] {
        if (!bytes.empty() && ::write(master_, bytes.data(), bytes.size()) < 0) {
            throw std::runtime_error("pseudo-terminal gone");
        }
        bytes.clear();
    };
    std::istringstream pieces(reply);
    for (std::string piece; pieces >> piece;) {
        if (piece == "/") {
            send();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        } else {
            bytes.push_back(static_cast<unsigned char>(std::stoi(piece, nullptr, 16)));
        }
    }
    send();
}

}  // namespace kestrixtest
