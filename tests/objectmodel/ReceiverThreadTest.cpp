#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>

#include "RecordingDevice.h"
#include "modules/daq/objectmodel/FixedConnectionPoint.h"
#include "modules/daq/objectmodel/SyncDataReceiverThread.h"

using namespace Harvane::RT::Modules::Daq;
using Harvane::Utils::Threading::ThreadEx;

namespace {

using Bytes = std::vector<unsigned char>;
using Sizes = std::deque<unsigned long>;
using Calls = std::vector<std::tuple<int, unsigned long, int>>;  // id, length, time-out

constexpr auto failed = static_cast<unsigned long>(-1);

// A receiver thread with reads of these sizes, of a stream that counts up from 0; the read after the last times out.
struct Receiver {
    explicit Receiver(const Sizes& sizes) : reads(sizes) {
        thread.blockSize = 100;
        thread.timeout = 5;
        thread.readId = 9;
        thread.setBufferCapacity(150);
        thread.dataLostFn = [this] { ++lost; };
        thread.timeoutFn = [this] { ++timeouts; };
        thread.errorFn = [this] { ++errors; };
        thread.readFn = [this](int id, unsigned char* target, unsigned long length, int timeout) {
            calls.emplace_back(id, length, timeout);
            if (reads.empty()) {
                throw TimeoutException();
            }
            const unsigned long n = reads.front();
            reads.pop_front();
            std::generate_n(target, std::min(n, length), [this] { return next++; });
            return n;
        };
    }
    void run() {
        thread.start();
        thread.waitFor();
    }

    SyncDataReceiverThread thread;
    Sizes reads;
    Calls calls;
    unsigned char next = 0;
    int lost = 0, timeouts = 0, errors = 0;
};

// What the threads report while this lives.
class Reports {
public:
    Reports() {
        ThreadEx::setReporter([this](const char*, const std::string& text) { texts_.push_back(text); });
    }
    ~Reports() { ThreadEx::setReporter({}); }
    // After the join.
    std::vector<std::string> take() { return std::exchange(texts_, {}); }

private:
    std::vector<std::string> texts_;
};

// Waits for what a thread does; fails the test when it doesn't.
template <class Condition>
void await(const char* what, Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << what;
        std::this_thread::yield();
    }
}

}  // namespace

TEST(SyncDataReceiverThread, KeepsTheStreamBehindItsHeadUpToTheFirstLoss) {
    struct Case {
        const char* what;
        Sizes reads;
        std::int64_t skip, skipLeft;
        int first, count;  // what the FIFO holds in the end
        int lost, timeouts, errors;
        size_t readsLeft;
        const char* report;
    };
    constexpr auto timedOut = "reception ended: Timeout";
    constexpr auto full = "reception ended: The buffer is full, data is lost.";
    constexpr auto notRead = "reception ended: The read failed.";
    Reports reports;
    for (const auto& c : {Case{"skip across blocks", {100, 100, 50}, 160, 0, 160, 90, 0, 1, 0, 0, timedOut},
                          Case{"skip a whole block", {100}, 160, 60, 0, 0, 0, 1, 0, 0, timedOut},
                          Case{"fits exactly", {100, 50, 0}, 0, 0, 0, 150, 0, 1, 0, 0, timedOut},
                          Case{"one byte too many", {100, 51, 100}, 0, 0, 0, 150, 1, 0, 0, 1, full},
                          Case{"failing read", {100, failed, 100}, 10, 0, 10, 90, 0, 0, 1, 1, notRead}}) {
        SCOPED_TRACE(c.what);
        Receiver receiver(c.reads);
        receiver.thread.skip = c.skip;
        receiver.run();
        EXPECT_EQ(reports.take(), std::vector<std::string>{c.report});
        Bytes held(1000);
        held.resize(receiver.thread.readSamples(held.data(), held.size()));
        ASSERT_EQ(held.size(), static_cast<size_t>(c.count));
        for (int i = 0; i < c.count; ++i) {
            ASSERT_EQ(held[static_cast<size_t>(i)], c.first + i);
        }
        EXPECT_EQ(receiver.thread.skip, c.skipLeft);
        EXPECT_EQ(receiver.lost, c.lost);
        EXPECT_EQ(receiver.timeouts, c.timeouts);
        EXPECT_EQ(receiver.errors, c.errors);
        EXPECT_EQ(receiver.reads.size(), c.readsLeft);
        Calls expected(receiver.calls.size(), {9, 100, 5});
        expected.front() = {9, 100, 1000};  // only the first read may wait for long
        EXPECT_EQ(receiver.calls, expected);
    }
}

TEST(SyncDataReceiverThread, AnyFailureEndsTheRunWithItsReasonAndTheNextOneStarts) {
    Receiver receiver({200});
    auto& thread = receiver.thread;
    thread.blockSize = 200;
    using Texts = std::vector<std::string>;
    const auto readThrows = [&](auto what) {
        return [&, what] {
            thread.readFn = [what](int, unsigned char*, unsigned long, int) -> unsigned long { throw what; };
        };
    };
    struct {
        std::function<void()> fault;
        Texts reports;
    } const cases[] = {
        {[&] { thread.dataLostFn = [] { throw std::runtime_error("nobody to tell"); }; },
         {"reception ended: The buffer is full, data is lost.", "reception ended: nobody to tell"}},
        {readThrows(std::runtime_error("link down")), {"reception ended: link down"}},
        {readThrows(42), {"reception ended: Unknown exception."}},
        {[&] { thread.readFn = [](int, unsigned char*, unsigned long, int) { return 201ul; }; },
         {"reception ended: The data source answered with more bytes than were asked for."}},
        {[&] { thread.readFn = nullptr; }, {"reception ended: There is no data source to read from."}},
    };
    Reports reports;
    int runs = 0;
    for (const auto& entry : cases) {
        entry.fault();
        receiver.run();
        EXPECT_EQ(receiver.errors, ++runs);
        EXPECT_TRUE(thread.getFinished());
        EXPECT_EQ(reports.take(), entry.reports);
    }
    thread.errorFn = [] { throw std::runtime_error("busy"); };
    receiver.run();
    EXPECT_EQ(reports.take().back(), "callback failed: busy");
    thread.errorFn = nullptr;
    receiver.run();
    EXPECT_TRUE(thread.getFinished());
}

// The one who starts and the callback may wait for each other, in this order.
TEST(SyncDataReceiverThread, CallbackOfAFailureFindsTheStarterFree) {
    for (const unsigned long blockSize : {100ul, ~0ul}) {  // a time-out; ahead of the first read
        Receiver receiver({});
        receiver.thread.blockSize = blockSize;
        std::promise<void> started;
        bool free = false;
        receiver.thread.timeoutFn = receiver.thread.errorFn = [&] {
            free = started.get_future().wait_for(std::chrono::seconds(5)) == std::future_status::ready;
        };
        receiver.thread.start();
        started.set_value();
        receiver.thread.waitFor();
        EXPECT_TRUE(free);
    }
}

TEST(SyncDataReceiverThread, WhatAReadBringsAfterTheStopIsDropped) {
    Receiver receiver({});
    for (int round = 0; round < 2; ++round) {
        std::promise<void> reading, release;
        receiver.thread.readFn = [&](int, unsigned char*, unsigned long, int) {
            reading.set_value();
            release.get_future().wait();
            return 100ul;
        };
        receiver.thread.start();
        EXPECT_THROW(receiver.thread.start(), std::runtime_error);
        reading.get_future().wait();
        receiver.thread.terminate();
        release.set_value();
        receiver.thread.waitFor();
        EXPECT_EQ(receiver.thread.getSize(), 0u);
    }
}

namespace {

// Takes its time before it is ready to read.
struct SlowReceiver : DataReceiverThread {
    ~SlowReceiver() override { stop(); }
    void execute() override {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        ready = true;
        if (failing) {
            throw std::runtime_error("no memory");
        }
        setThreadIsStarted();
    }
    std::atomic<bool> ready{false};
    bool failing = false;
};

// Has four bytes ready at any time.
struct EndlessPoint : FixedConnectionPoint {
    EndlessPoint() : FixedConnectionPoint("endless", std::make_shared<FixedInterfaceHelper>()) {}
    unsigned long readData(int, unsigned char* data, unsigned long length, int) override {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::fill_n(data, std::min(length, 4ul), static_cast<unsigned char>(1));
        return std::min(length, 4ul);
    }
};

class FailingChild : public Device {
public:
    void startAcquisition(bool) override { failIf(failStart); }
    void stopAcquisition(bool) override { failIf(failStop); }
    bool failStart = false, failStop = false;

private:
    static void failIf(bool failing) {
        if (failing) {
            throw std::runtime_error("child");
        }
    }
};

// A part with so many channels of 4 bytes at 1000 Hz, a child and a receiver thread.
struct SubTree {
    explicit SubTree(int channelCount) {
        device->connectionPoint = std::make_shared<EndlessPoint>();
        device->push_back(part);
        part->model = "Stream";
        part->push_back(child);
        device->initialize();
        for (int i = 0; i < channelCount; ++i) {
            recording::syncChannel(*part);
        }
        device->initializeAcquisition(true);
        part->createAndInitializeReceiverThread();
    }
    std::shared_ptr<Device> device = std::make_shared<Device>();
    std::shared_ptr<SubDevice> part = std::make_shared<SubDevice>();
    std::shared_ptr<FailingChild> child = std::make_shared<FailingChild>();
};

}  // namespace

TEST(DataReceiverThread, EachStartWaitsUntilTheThreadIsReady) {
    SlowReceiver slow;
    for (int round = 0; round < 3; ++round) {
        slow.ready = false;
        slow.failing = round == 1;  // ends without a word
        auto starting = std::async(std::launch::async, [&] { slow.start(); });
        if (starting.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            ADD_FAILURE() << "start waits for ever in round " << round;
            slow.setThreadIsStarted();
        }
        starting.get();
        EXPECT_TRUE(slow.ready) << round;
        slow.stop();
    }
}

TEST(SubDevice, ReceiverThreadHoldsTwoSecondsInBlocksOf50Ms) {
    for (const auto& [channels, blockSize, capacity] : {std::tuple{3, 600u, 24000u}, {0, 1u, 0u}}) {
        SubTree tree(channels);
        auto thread = tree.part->receiverThread;
        EXPECT_EQ(thread->blockSize, blockSize);
        EXPECT_EQ(thread->getCapacity(), capacity);
        EXPECT_EQ(thread->getName(), "Stream");
        tree.part->createAndInitializeReceiverThread();
        EXPECT_EQ(tree.part->receiverThread, thread);
    }
}

TEST(SubDevice, ReceiverThreadEndsInWhateverOrderTheStepsCome) {
    // S start, T start with a failing child, P stop, X stop with a failing child, F finalize, A abort, C set up anew.
    for (const std::string order :
         {"SPF", "SPPF", "SXF", "SXXF", "SXS", "SXXSPS", "SXC", "SXA", "SF",  "SC", "SA",   "SAA",
          "A",   "F",    "PF",  "CC",   "TF",  "TPF",    "TA",  "TS",  "SPS", "SS", "SPFS", "SAS"}) {
        std::atomic<bool> full{false};
        SubTree tree(1);
        auto thread = tree.part->receiverThread;
        thread->dataLostFn = [&] { full = true; };
        const auto step = [&](char which) {
            SCOPED_TRACE(order + " at " + which);
            tree.child->failStart = which == 'T';
            tree.child->failStop = which == 'X';
            switch (which) {
                case 'S':
                    if (thread->getStarted() && !thread->getTerminated()) {
                        EXPECT_THROW(tree.part->startAcquisition(true), std::runtime_error);  // and it goes on
                    } else {
                        tree.part->startAcquisition(true);
                    }
                    thread->reset();
                    await("nothing comes", [&] { return thread->getSize() >= 4; });
                    EXPECT_FALSE(thread->getTerminated());
                    break;
                case 'T':
                    EXPECT_THROW(tree.part->startAcquisition(true), std::runtime_error);
                    EXPECT_FALSE(thread->getStarted());
                    break;
                case 'X':
                    EXPECT_THROW(tree.part->stopAcquisition(true), std::runtime_error);
                    await("it goes on", [&] { return thread->getFinished(); });
                    break;
                case 'P':
                    tree.part->stopAcquisition(true);
                    await("it goes on", [&] { return !thread->getStarted() || thread->getFinished(); });
                    break;
                default:
                    which == 'F'   ? tree.part->finalizeAcquisition(true)
                    : which == 'A' ? tree.part->abortAcquisition()
                                   : tree.part->createAndInitializeReceiverThread();
                    EXPECT_FALSE(thread->getStarted());
            }
        };
        // Whatever came before, an orderly run works; and the tree's end ends the thread.
        for (const char which : order + "ACSPFS") {
            step(which);
            EXPECT_FALSE(full) << "it ended only because nobody has read";
            if (HasFailure()) {
                return;
            }
        }
        EXPECT_EQ(tree.part->receiverThread, thread);
        tree.part.reset();
        tree.device.reset();
        EXPECT_FALSE(thread->getStarted());
    }
}

// What a run in progress works with must not change under it, whoever sets it up.
TEST(SubDevice, SetUpOfARunningReceiverEndsItFirst) {
    struct OwnNumbers : SubDevice {
        void initializeReceiverThread() override {
            startedAtSetUp = receiverThread->getStarted();
            if (!startedAtSetUp) {
                receiverThread->readFn = [](int, unsigned char*, unsigned long, int) { return 0ul; };
            }
        }
        bool startedAtSetUp = true;
    } own;
    for (int round = 0; round < 2; ++round) {
        own.createAndInitializeReceiverThread();
        EXPECT_FALSE(own.startedAtSetUp);
        own.startAcquisition(true);
    }
    SubTree tree(1);
    tree.part->startAcquisition(true);
    tree.part->initializeReceiverThread();
    EXPECT_FALSE(tree.part->receiverThread->getStarted());
}
