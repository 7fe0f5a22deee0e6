#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "libraries/utils/ThreadExceptionAdapter.h"

namespace Harvane::Utils::Threading {

// Stored and read back only, never handed to the operating system.
enum class ThreadExPriority : int {
    Idle = 0,
    Lowest = 1,
    Low = 2,
    Normal = 3,
    High = 4,
    Highest = 5,
    TimeCritical = 6,
};

// A thread with an overridable body, a cooperative stop flag and a join.
//
// Life: made, running (start), told to stop (terminate), finished (execute has returned, getStarted is still true),
// joined (waitFor); from there it can start again. It must be joined before it is destroyed: a destructor that finds
// the thread joinable ends the process. A derived class therefore stops in its own destructor.
//
// An exception that leaves execute ends the run in order. What it says goes to the exception adapter, if there is one,
// and to the reporter of the process.
//
// start, stop, waitFor and getStarted belong to one owner; terminate, getTerminated and getFinished may be used from
// any thread. stop and waitFor must not be called from the thread itself.
class ThreadEx {
public:
    // Told what happens on a thread that nobody else would hear of: the thread's name and a text. Called on that
    // thread, perhaps by several threads at a time. What it throws is dropped. It must not set a reporter.
    using Reporter = std::function<void(const char* thread, const std::string& text)>;

    explicit ThreadEx(std::string name = "thread");
    ThreadEx(const ThreadEx&) = delete;
    ThreadEx& operator=(const ThreadEx&) = delete;
    virtual ~ThreadEx();

    // Throws std::runtime_error "Thread is already started." until waitFor has joined the previous run.
    virtual void start();
    // Terminates and joins.
    virtual void stop();
    // The body. It looks at getTerminated at points of its own choosing; nothing else ends it.
    virtual void execute() = 0;

    // Sets the stop flag; neither waits nor wakes.
    void terminate();
    void waitFor();

    bool getTerminated() const;
    // True once execute has returned, by whatever way.
    bool getFinished() const;
    // True from start until waitFor.
    bool getStarted() const;

    ThreadExPriority getPriority() const;
    void setPriority(ThreadExPriority priority);

    // In reports and, cut to 15 characters, for the operating system. Set it before start.
    const std::string& getName() const;
    void setName(std::string name);

    // One for all threads of the library, from any thread; empty: none. When it returns the one before is in use no
    // more.
    static void setReporter(Reporter reporter);

    // For the use of derived classes and callers; no operation of this class takes it.
    std::recursive_mutex& getLock();

    // Not owned; set it before start.
    ThreadExceptionAdapter* getExceptionAdapter() const;
    void setExceptionAdapter(ThreadExceptionAdapter* adapter);

    // Names the calling thread; the kernel keeps 15 characters, longer names are cut.
    static void setThreadName(const char* name);

protected:
    // Called on the thread when execute has returned or failed, ahead of getFinished. Every run passes here.
    virtual void ended() noexcept {}

    // Tells the adapter, if there is one, and the reporter.
    void report(const std::string& text) noexcept;
    // "what: text of the exception in flight". Only inside a catch block.
    void reportCurrentException(const char* what) noexcept;
    // What the exception in flight says, with what it was caused by in brackets. Never empty.
    static std::string textOfCurrentException();

private:
    void mainThread() noexcept;

    std::string name_;
    std::recursive_mutex lock_;
    std::atomic<bool> terminated_{false};
    std::atomic<bool> finished_{false};
    ThreadExceptionAdapter* exceptionAdapter_ = nullptr;
    std::unique_ptr<std::thread> thread_;
    ThreadExPriority priority_ = ThreadExPriority::Normal;
};

}  // namespace Harvane::Utils::Threading
