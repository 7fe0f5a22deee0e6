#include "libraries/utils/ThreadEx.h"

#include <pthread.h>

#include <exception>
#include <shared_mutex>
#include <stdexcept>
#include <utility>

namespace Harvane::Utils::Threading {

namespace {

// The lock is held, shared, through every call: whoever replaces the reporter waits for those in progress.
struct ReporterInForce {
    std::shared_mutex mutex;
    ThreadEx::Reporter reporter;
};

ReporterInForce& reporterInForce() {
    static ReporterInForce inForce;
    return inForce;
}

std::string textOf(const std::exception& failure) {
    std::string text = failure.what() == nullptr ? "" : failure.what();
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    if (text.empty()) {
        text = "Unknown exception.";
    }
    try {
        std::rethrow_if_nested(failure);
    } catch (const std::exception& cause) {
        text += " (" + textOf(cause) + ")";
    } catch (...) {
        // The cause has no words.
    }
    return text;
}

}  // namespace

ThreadEx::ThreadEx(std::string name) : name_(std::move(name)) {}
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
        setThreadName(name_.c_str());
        execute();
    } catch (...) {
        reportCurrentException("ended");
    }
    ended();
    finished_.store(true, std::memory_order_release);
}

void ThreadEx::report(const std::string& text) noexcept {
    try {
        if (exceptionAdapter_) {
            exceptionAdapter_->handleException(text);
        }
    } catch (...) {
        // Of the two that are told one has failed; the other hears it still.
    }
    try {
        ReporterInForce& inForce = reporterInForce();
        const std::shared_lock lock(inForce.mutex);
        if (inForce.reporter) {
            inForce.reporter(name_.c_str(), text);
        }
    } catch (...) {
        // Nobody is left to tell.
    }
}

void ThreadEx::reportCurrentException(const char* what) noexcept {
    try {
        report(std::string(what) + ": " + textOfCurrentException());
    } catch (...) {
        report({});  // no memory for words
    }
}

std::string ThreadEx::textOfCurrentException() {
    try {
        throw;
    } catch (const std::exception& failure) {
        return textOf(failure);
    } catch (...) {
        return "Unknown exception.";
    }
}

const std::string& ThreadEx::getName() const {
    return name_;
}

void ThreadEx::setName(std::string name) {
    name_ = std::move(name);
}

void ThreadEx::setReporter(Reporter reporter) {
    ReporterInForce& inForce = reporterInForce();
    const std::unique_lock lock(inForce.mutex);
    inForce.reporter = std::move(reporter);
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
