#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <zorn/manager/manager.h>

#include "simulator/preload/Control.h"

using namespace Harvane::RT::Core;

// The cycle of the module against a bare loop of the same `read` calls on the same streams into rings of the same sizes,
// both in one run. Eight modules; raw 15 MS/s of 2 bytes, filtered 1.875 MS/s of 4 bytes.
namespace {

struct Ring {
    int fd;
    unsigned char* data;
    size_t capacity;  // bytes
    size_t position = 0;
};

class Acquisition {
public:
    Acquisition() {
        auto scenario = kestrixsim::Scenario::counters(8);
        scenario.supplyOn = true;
        scenario.unthrottled = true;
        kestrixsim::reset(scenario);
        host_.open(KESTRIX_MODULE);
        host_.add();
        host_.dataModule().setPropertyValue("SampleRate", Ratio{15000000, 1});
        host_.configure();
        host_.initialize();
        host_.start();
        host_.scheduler().stop();
        channels_ = host_.channels();
        module_ = host_.module();
        int number = 0;
        for (const auto& channel : channels_) {
            const std::string node =
                "/dev/tolvn_dma_" + std::string(number % 2 == 0 ? "r" : "f") + std::to_string(number / 2);
            const auto buffer = channel.getBuffer();
            Ring ring{::open(node.c_str(), O_RDWR | O_NONBLOCK), nullptr, buffer.getCapacity() * buffer.getSampleSize()};
            ring.data = static_cast<unsigned char*>(
                ::mmap(nullptr, ring.capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
            rings_.push_back(ring);
            ++number;
        }
    }
    ~Acquisition() {
        for (const auto& ring : rings_) {
            ::close(ring.fd);
            ::munmap(ring.data, ring.capacity);
        }
        channels_.clear();
        module_.release();
        host_.stop();
        host_.close();
    }

    uint64_t samples() const {
        uint64_t bytes = 0;
        for (size_t i = 0; i < channels_.size(); ++i)
            bytes += static_cast<uint64_t>(channels_[i].getSamplesAcquired()) * (i % 2 == 0 ? 2 : 4);
        return bytes;
    }

    void moduleCycle() { module_->processData(); }

    // Two reads at most for each stream, each up to the end of the ring: what the module does, and nothing else.
    uint64_t bareCycle() {
        uint64_t bytes = 0;
        for (auto& ring : rings_) {
            for (int i = 0; i < 2; ++i) {
                const size_t free = ring.capacity - ring.position;
                const ssize_t count = ::read(ring.fd, ring.data + ring.position, free);
                if (count < 1)
                    break;
                bytes += static_cast<uint64_t>(count);
                ring.position += static_cast<size_t>(count);
                if (ring.position < ring.capacity)
                    break;
                ring.position = 0;
            }
        }
        return bytes;
    }

    void stall() {
        for (int channel = 0; channel < 16; ++channel)
            kestrixsim::instrument().inject({.kind = kestrixsim::FaultKind::DmaStall, .target = channel, .times = -1});
    }
    void flow() { kestrixsim::instrument().clearFaults(); }

private:
    ModuleHost host_;
    std::vector<Ring> rings_;
    std::vector<ChannelPtr<>> channels_;
    ObjectPtr<IModule> module_;
};

Acquisition& acquisition() {
    static auto instance = std::make_unique<Acquisition>();
    return *instance;
}

void BlockPathModule(benchmark::State& state) {
    auto& bench = acquisition();
    bench.flow();
    const uint64_t before = bench.samples();
    for (auto _ : state)
        bench.moduleCycle();
    state.SetBytesProcessed(static_cast<int64_t>(bench.samples() - before));
}

void BlockPathBare(benchmark::State& state) {
    auto& bench = acquisition();
    bench.flow();
    uint64_t bytes = 0;
    for (auto _ : state)
        bytes += bench.bareCycle();
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

// The ratio of the two, taken in turns within one benchmark: what the machine does meanwhile hits both alike.
void ratio(benchmark::State& state, bool perByte) {
    auto& bench = acquisition();
    using Clock = std::chrono::steady_clock;
    double moduleS = 0.0;
    double bareS = 0.0;
    uint64_t moduleBytes = 0;
    uint64_t bareBytes = 0;
    constexpr int turn = 16;
    for (auto _ : state) {
        const uint64_t before = bench.samples();
        const auto t0 = Clock::now();
        for (int i = 0; i < turn; ++i)
            bench.moduleCycle();
        const auto t1 = Clock::now();
        for (int i = 0; i < turn; ++i)
            bareBytes += bench.bareCycle();
        const auto t2 = Clock::now();
        moduleBytes += bench.samples() - before;
        moduleS += std::chrono::duration<double>(t1 - t0).count();
        bareS += std::chrono::duration<double>(t2 - t1).count();
    }
    if (perByte) {
        const double moduleRate = static_cast<double>(moduleBytes) / moduleS;
        const double bareRate = static_cast<double>(bareBytes) / bareS;
        state.counters["module_GB_s"] = moduleRate / 1e9;
        state.counters["bare_GB_s"] = bareRate / 1e9;
        state.counters["throughput_ratio"] = moduleRate / bareRate;
    } else {
        const double cycles = static_cast<double>(state.iterations()) * turn;
        state.counters["module_ns"] = moduleS / cycles * 1e9;
        state.counters["bare_ns"] = bareS / cycles * 1e9;
        state.counters["time_ratio"] = moduleS / bareS;
    }
}

void BlockPathRatio(benchmark::State& state) {
    acquisition().flow();
    ratio(state, true);
}

void IdleCycleRatio(benchmark::State& state) {
    acquisition().stall();
    ratio(state, false);
    acquisition().flow();
}

BENCHMARK(BlockPathModule)->Unit(benchmark::kMillisecond);
BENCHMARK(BlockPathBare)->Unit(benchmark::kMillisecond);
BENCHMARK(BlockPathRatio)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(IdleCycleRatio)->Unit(benchmark::kMicrosecond);

}  // namespace
