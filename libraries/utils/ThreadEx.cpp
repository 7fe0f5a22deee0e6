#include "libraries/utils/ThreadEx.h"

#include <pthread.h>

#include <exception>
#include <stdexcept>

namespace Harvane::Utils::Threading {

ThreadEx::ThreadEx() = default;
ThreadEx::~ThreadEx() = default;

void ThreadEx::start() {
    if (thread_) {
        throw std::runtime_error("Thread is already started.");
    }
    finished_.store(false, std::memory_order_release);
    terminated_.store(false, std::memory_order_release);
    thread_ = std::make_unique<std::thread>([this] { mainThread(); });
}

void ThreadEx::stop() {
    terminate();
    waitFor();
}

void ThreadEx::terminate() {
    terminated_.store(true, std::memory_order_release);
}

void ThreadEx::waitFor() {
    if (!thread_) {
        return;
    }
    if (thread_->joinable()) {
        thread_->join();
    }
    thread_.reset();
}

// The one place where what execute throws ends: beyond it the process would.
void ThreadEx::mainThread() noexcept {
    try {
        execute();
    } catch (...) {
        reportCurrentException();
    }
    finished_.store(true, std::memory_order_release);
}

void ThreadEx::reportCurrentException() noexcept {
    if (!exceptionAdapter_) {
        return;
    }
    try {
        try {
            throw;
        } catch (const std::exception& failure) {
            exceptionAdapter_->handleException(failure.what());
        } catch (...) {
            exceptionAdapter_->handleException("Unknown exception.");
        }
    } catch (...) {
        // The adapter failed as well; nobody is left to tell.
    }
}

bool ThreadEx::getTerminated() const {
    return terminated_.load(std::memory_order_acquire);
}

bool ThreadEx::getFinished() const {
    return finished_.load(std::memory_order_acquire);
}

bool ThreadEx::getStarted() const {
    return thread_ != nullptr;
}

ThreadExPriority ThreadEx::getPriority() const {
    return priority_;
}

void ThreadEx::setPriority(ThreadExPriority priority) {
    priority_ = priority;
}

std::recursive_mutex& ThreadEx::getLock() {
    return lock_;
}

ThreadExceptionAdapter* ThreadEx::getExceptionAdapter() const {
    return exceptionAdapter_;
}

void ThreadEx::setExceptionAdapter(ThreadExceptionAdapter* adapter) {
    exceptionAdapter_ = adapter;
}

void ThreadEx::setThreadName(const char* name) {
    // pthread_setname_np refuses longer names altogether.
    constexpr size_t longestName = 15;
    const std::string cut = std::string(name).substr(0, longestName);
    pthread_setname_np(pthread_self(), cut.c_str());
}

}  // namespace Harvane::Utils::Threading
