#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <thread>

#include "RecordingDevice.h"
#include "modules/daq/objectmodel/FixedConnectionPoint.h"
#include "modules/daq/objectmodel/SyncDataReceiverThread.h"

using namespace Harvane::RT::Modules::Daq;

namespace {

using Bytes = std::vector<unsigned char>;
using Sizes = std::deque<unsigned long>;
using Calls = std::vector<std::tuple<int, unsigned long, int>>;  // id, length, time-out

constexpr auto failed = static_cast<unsigned long>(-1);

// A receiver thread with reads of these sizes, of a stream that counts up from 0; the read after the last times out.
class Receiver {
public:
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

}  // namespace

TEST(SyncDataReceiverThread, KeepsTheStreamBehindItsHeadUpToTheFirstLoss) {
    struct Case {
        const char* what;
        Sizes reads;
        std::int64_t skip, skipLeft;
        int first, count;  // what the FIFO holds in the end
        int lost, timeouts, errors;
        size_t readsLeft;
    };
    for (const auto& c : {Case{"skip across blocks", {100, 100, 50}, 160, 0, 160, 90, 0, 1, 0, 0},
                          Case{"skip a whole block", {100}, 160, 60, 0, 0, 0, 1, 0, 0},
                          Case{"fits exactly", {100, 50, 0}, 0, 0, 0, 150, 0, 1, 0, 0},
                          Case{"one byte too many", {100, 51, 100}, 0, 0, 0, 150, 1, 0, 0, 1},
                          Case{"failing read", {100, failed, 100}, 10, 0, 10, 90, 0, 0, 1, 1}}) {
        SCOPED_TRACE(c.what);
        Receiver receiver(c.reads);
        receiver.thread.skip = c.skip;
        receiver.run();
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

TEST(SyncDataReceiverThread, AnyFailureEndsTheRunAndTheNextOneStarts) {
    Receiver receiver({200});
    auto& thread = receiver.thread;
    thread.blockSize = 200;
    thread.dataLostFn = [] { throw std::runtime_error("nobody to tell"); };
    const std::function<void()> furtherFaults[] = {
        [&] { thread.readFn = [](int, unsigned char*, unsigned long, int) -> unsigned long { throw 42; }; },
        [&] { thread.readFn = nullptr; },
        [&] { thread.blockSize = ~0ul; },  // beyond what any vector holds: fails ahead of the first read
        [&] { thread.errorFn = nullptr; },
    };
    int runs = 0;
    for (const auto& fault : furtherFaults) {
        receiver.run();
        EXPECT_EQ(receiver.errors, ++runs);
        fault();
    }
    receiver.run();
    EXPECT_TRUE(receiver.thread.getFinished());
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
class SlowReceiver : public DataReceiverThread {
public:
    ~SlowReceiver() override { stop(); }
    void execute() override {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        ready = true;
        setThreadIsStarted();
    }
    std::atomic<bool> ready{false};
};

// Has four bytes ready at any time.
class EndlessPoint : public FixedConnectionPoint {
public:
    EndlessPoint() : FixedConnectionPoint("endless", std::make_shared<FixedInterfaceHelper>()) {}
    unsigned long readData(int, unsigned char* data, unsigned long length, int) override {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::fill_n(data, std::min(length, 4ul), static_cast<unsigned char>(1));
        return std::min(length, 4ul);
    }
};

// A part with so many channels of 4 bytes at 1000 Hz and a receiver thread.
struct SubTree {
    explicit SubTree(int channelCount) {
        device->connectionPoint = std::make_shared<EndlessPoint>();
        device->push_back(part);
        device->initialize();
        for (int i = 0; i < channelCount; ++i) {
            recording::syncChannel(*part);
        }
        device->initializeAcquisition(true);
        part->createAndInitializeReceiverThread();
    }
    std::shared_ptr<Device> device = std::make_shared<Device>();
    std::shared_ptr<SubDevice> part = std::make_shared<SubDevice>();
};

}  // namespace

TEST(DataReceiverThread, EachStartWaitsUntilTheThreadIsReady) {
    SlowReceiver slow;
    for (int round = 0; round < 2; ++round) {
        slow.ready = false;
        slow.start();
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
        tree.part->createAndInitializeReceiverThread();
        EXPECT_EQ(tree.part->receiverThread, thread);
    }
}

TEST(SubDevice, ReceiverThreadRunsFromStartToFinalizeOrTheTreesEnd) {
    SubTree tree(1);
    auto thread = tree.part->receiverThread;
    for (int round = 0; round < 2; ++round) {
        tree.device->startAcquisition(true);
        while (thread->getSize() < 4 && !thread->getFinished()) {
            std::this_thread::yield();
        }
        EXPECT_GE(thread->getSize(), 4u);
        tree.device->stopAcquisition(true);
        tree.device->finalizeAcquisition(true);
        EXPECT_FALSE(thread->getStarted());
        thread->reset();
    }
    tree.device->startAcquisition(true);
    tree.part.reset();
    tree.device.reset();
    EXPECT_FALSE(thread->getStarted());
}
