#include "tools/zornhost/Interrupt.h"

#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace zornhost {

namespace {

std::atomic<bool> endRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void onSignal(int) {
    endRequested.store(true);
}

}  // namespace

void Interrupt::install() {
    endRequested.store(false);
    struct sigaction action {};
    action.sa_handler = onSignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    // A terminal that goes away; under nohup it stays ignored.
    struct sigaction hangup {};
    ::sigaction(SIGHUP, nullptr, &hangup);
    if (hangup.sa_handler != SIG_IGN) {
        ::sigaction(SIGHUP, &action, nullptr);
    }
    // A reader that is gone and a limit on the size of files show as failing writes.
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN);
}

bool Interrupt::requested() {
    return endRequested.load();
}

bool Interrupt::sleepMs(int milliseconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!requested()) {
        const auto left = end - std::chrono::steady_clock::now();
        if (left <= std::chrono::steady_clock::duration::zero()) {
            return false;
        }
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(left, std::chrono::milliseconds(50)));
    }
    return true;
}

}  // namespace zornhost
