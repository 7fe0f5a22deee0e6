#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <zorn/manager/manager.h>

#include "simulator/preload/Control.h"

using namespace Harvane::RT::Core;

// The cycle of the module against a bare loop of the same `read` calls on the same streams into rings of the same sizes,
// both in one run. Eight modules; raw 15 MS/s of 2 bytes, filtered 1.875 MS/s of 4 bytes.
namespace {

// The instrument's time in seconds. It stands while nobody moves it, so that each side finds exactly the same descriptors
// ready: those of `turnS`, about three quarters of what a driver's ring holds.
std::atomic<double> nowS{0.0};
constexpr double turnS = 0.32;

// Makes the time go by while the module starts and stops.
void tick(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
        nowS.store(nowS.load() + 0.01);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

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
        kestrixsim::reset(scenario, [] { return nowS.load(); });
        std::jthread ticking(tick);
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
        std::jthread ticking(tick);
        host_.stop();
        host_.close();
    }

    uint64_t bytes() const {
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

using Clock = std::chrono::steady_clock;

double secondsOf(const std::function<void()>& work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Both sides in turns, each with the descriptors of the same span of time: what the machine does meanwhile hits both.
void BlockPath(benchmark::State& state) {
    auto& bench = acquisition();
    double moduleS = 0.0;
    double bareS = 0.0;
    uint64_t moduleBytes = 0;
    uint64_t bareBytes = 0;
    for (auto _ : state) {
        const uint64_t before = bench.bytes();
        nowS.store(nowS.load() + turnS);
        moduleS += secondsOf([&] { bench.moduleCycle(); });
        moduleBytes += bench.bytes() - before;
        nowS.store(nowS.load() + turnS);
        bareS += secondsOf([&] { bareBytes += bench.bareCycle(); });
    }
    const double moduleRate = static_cast<double>(moduleBytes) / moduleS;
    const double bareRate = static_cast<double>(bareBytes) / bareS;
    state.counters["module_GB_s"] = moduleRate / 1e9;
    state.counters["bare_GB_s"] = bareRate / 1e9;
    state.counters["throughput_ratio"] = moduleRate / bareRate;
}
BENCHMARK(BlockPath)->Unit(benchmark::kMillisecond)->MinTime(3.0);

// Nothing is ready: all sixteen reads say EAGAIN.
void IdleCycle(benchmark::State& state) {
    auto& bench = acquisition();
    bench.moduleCycle();
    constexpr int turn = 64;
    double moduleS = 0.0;
    double bareS = 0.0;
    for (auto _ : state) {
        moduleS += secondsOf([&] {
            for (int i = 0; i < turn; ++i)
                bench.moduleCycle();
        });
        bareS += secondsOf([&] {
            for (int i = 0; i < turn; ++i)
                benchmark::DoNotOptimize(bench.bareCycle());
        });
    }
    const double cycles = static_cast<double>(state.iterations()) * turn;
    state.counters["module_ns"] = moduleS / cycles * 1e9;
    state.counters["bare_ns"] = bareS / cycles * 1e9;
    state.counters["time_ratio"] = moduleS / bareS;
}
BENCHMARK(IdleCycle)->Unit(benchmark::kMicrosecond)->MinTime(1.0);

}  // namespace
