#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "RecordingDevice.h"
#include "modules/daq/objectmodel/FixedConnectionPoint.h"
#include "modules/daq/objectmodel/SyncDataReceiverThread.h"

using namespace Harvane::RT::Modules::Daq;
using Harvane::Utils::Threading::ThreadEx;

namespace {

/// Waits for a condition that another thread brings about; false after a time no run needs.
template <class Condition>
bool eventually(Condition condition) {
    for (int i = 0; i < 10000; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

class Receiver : public testing::Test {
protected:
    Receiver() {
        thread.blockSize = 100;
        thread.timeout = 5;
        thread.setBufferCapacity(1000);
        thread.dataLostFn = [this] { ++lost; };
        thread.timeoutFn = [this] { ++timeouts; };
        thread.errorFn = [this] { ++errors; };
        thread.readFn = [this](int id, unsigned char* target, unsigned long length, int timeout) {
            ids.push_back(id);
            lengths.push_back(length);
            timeoutsUsed.push_back(timeout);
            if (reads.empty()) {
                throw TimeoutException();
            }
            const unsigned long n = reads.front();
            reads.pop_front();
            for (unsigned long i = 0; i < std::min(n, length); ++i) {
                target[i] = static_cast<unsigned char>(next++);
            }
            return n;
        };
    }
    /// Runs through all reads; the one after the last times out.
    void run(const std::deque<unsigned long>& sizes) {
        reads = sizes;
        thread.start();
        ASSERT_TRUE(eventually([this] { return thread.getFinished(); }));
        thread.waitFor();
    }
    std::vector<int> contents() {
        std::vector<unsigned char> bytes(2000);
        bytes.resize(thread.readSamples(bytes.data(), bytes.size()));
        return {bytes.begin(), bytes.end()};
    }

    SyncDataReceiverThread thread;
    std::deque<unsigned long> reads;
    std::vector<int> ids, timeoutsUsed;
    std::vector<unsigned long> lengths;
    unsigned next = 0;
    std::atomic<int> lost{0}, timeouts{0}, errors{0};
};

std::vector<int> range(int first, int count) {
    std::vector<int> values;
    for (int i = 0; i < count; ++i) {
        values.push_back((first + i) & 0xFF);
    }
    return values;
}

}

TEST_F(Receiver, SkipsTheHeadOfTheStreamAcrossBlocks) {
    thread.skip = 160;
    thread.readId = 9;
    run({100, 100, 50});
    EXPECT_EQ(contents(), range(160, 90));
    EXPECT_EQ(thread.skip, 0);
    EXPECT_EQ(timeoutsUsed, (std::vector<int>{1000, 5, 5, 5}));
    EXPECT_EQ(ids, (std::vector<int>(4, 9)));
    EXPECT_EQ(lengths, (std::vector<unsigned long>(4, 100)));
    EXPECT_EQ(timeouts, 1);
    EXPECT_EQ(lost + errors, 0);
}

TEST_F(Receiver, KeepsWhatRemainsToBeSkipped) {
    thread.skip = 160;
    run({100});
    EXPECT_EQ(thread.skip, 60);
    EXPECT_TRUE(contents().empty());
}

TEST_F(Receiver, StopsAtTheFirstByteThatDoesNotFit) {
    thread.setBufferCapacity(150);
    run({100, 50, 0});
    EXPECT_EQ(lost, 0);
    EXPECT_EQ(contents(), range(0, 150));
    next = 0;
    run({100, 51, 100});
    EXPECT_EQ(lost, 1);
    EXPECT_EQ(contents(), range(0, 150));
    EXPECT_EQ(reads.size(), 1u);
}

TEST_F(Receiver, AFailingReadEndsTheThreadAndLosesNothing) {
    thread.skip = 10;
    run({100, static_cast<unsigned long>(-1), 100});
    EXPECT_EQ(errors, 1);
    EXPECT_EQ(thread.skip, 0);
    EXPECT_EQ(contents(), range(10, 90));
    EXPECT_EQ(reads.size(), 1u);

    thread.readFn = [](int, unsigned char*, unsigned long, int) -> unsigned long { throw 42; };
    run({});
    EXPECT_EQ(errors, 2);
    thread.readFn = nullptr;
    run({});
    EXPECT_EQ(errors, 3);
    EXPECT_EQ(timeouts + lost, 0);
    // Nobody listens: the thread ends all the same.
    thread.errorFn = nullptr;
    run({});
    EXPECT_EQ(errors, 3);
}

TEST_F(Receiver, StartReturnsThoughTheBlockCannotBeAllocated) {
    thread.blockSize = ~0ul;  // beyond what any vector holds, refused before the allocator is asked
    run({100});
    EXPECT_EQ(errors, 1);
}

namespace {

/// Takes its time before it is ready to read.
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

}

TEST(DataReceiverThread, EachStartWaitsUntilTheThreadIsReady) {
    SlowReceiver slow;
    for (int round = 0; round < 3; ++round) {
        slow.ready = false;
        slow.start();
        EXPECT_TRUE(slow.ready) << round;
        slow.stop();
    }
}

TEST_F(Receiver, WhatAReadBringsAfterTheStopIsDropped) {
    for (int round = 0; round < 3; ++round) {
        std::mutex mutex;
        std::condition_variable condition;
        bool released = false;
        std::atomic<bool> reading{false};
        thread.readFn = [&](int, unsigned char*, unsigned long, int) -> unsigned long {
            reading = true;
            std::unique_lock<std::mutex> guard(mutex);
            condition.wait(guard, [&] { return released; });
            return 100;
        };
        thread.start();
        EXPECT_THROW(thread.start(), std::runtime_error);
        ASSERT_TRUE(eventually([&] { return reading.load(); }));
        thread.terminate();
        {
            std::lock_guard<std::mutex> guard(mutex);
            released = true;
        }
        condition.notify_one();
        thread.stop();
        EXPECT_EQ(thread.getSize(), 0u);
        EXPECT_FALSE(thread.getStarted());
    }
}

namespace {

class EndlessPoint : public FixedConnectionPoint {
public:
    EndlessPoint() : FixedConnectionPoint("endless", std::make_shared<FixedInterfaceHelper>()) {}
    unsigned long readData(int, unsigned char* data, unsigned long length, int) override {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::fill_n(data, std::min(length, 4ul), static_cast<unsigned char>(1));
        return std::min(length, 4ul);
    }
};

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

}

TEST(SubDevice, ReceiverThreadHoldsTwoSecondsInBlocksOf50Ms) {
    SubTree three(3);
    EXPECT_EQ(three.part->receiverThread->blockSize, 600u);
    EXPECT_EQ(three.part->receiverThread->getCapacity(), 24000u);
    EXPECT_EQ(three.part->receiverThread->firstTimeout, 1000);
    SubTree none(0);
    EXPECT_EQ(none.part->receiverThread->blockSize, 1u);
    EXPECT_EQ(none.part->receiverThread->getCapacity(), 0u);
    auto before = three.part->receiverThread;
    three.part->createAndInitializeReceiverThread();
    EXPECT_EQ(three.part->receiverThread, before);
}

TEST(SubDevice, ReceiverThreadRunsFromStartToFinalize) {
    SubTree tree(1);
    for (int round = 0; round < 2; ++round) {
        tree.device->startAcquisition(true);
        EXPECT_TRUE(eventually([&] { return tree.part->receiverThread->getSize() >= 4; }));
        tree.device->stopAcquisition(true);
        tree.device->finalizeAcquisition(true);
        EXPECT_FALSE(tree.part->receiverThread->getStarted());
        tree.part->receiverThread->reset();
    }
}

TEST(SubDevice, ATreeMayDieWithARunningReceiverThread) {
    SubTree tree(1);
    auto thread = tree.part->receiverThread;
    tree.device->startAcquisition(true);
    tree.part.reset();
    tree.device.reset();
    EXPECT_FALSE(thread->getStarted());
}
