#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <zorn/manager/manager.h>

#include "simulator/preload/Control.h"

using namespace Harvane::RT::Core;

// The cycle of the module against a bare loop of the same `read` calls on the same streams into the same rings, both in
// one run. The same memory, because how fast it is depends by some per cent on which pages one happens to get; what was
// written there a turn ago has left the caches. Eight modules; raw 15 MS/s of 2 bytes, filtered 1.875 MS/s of 4.
namespace {

// The instrument's time in seconds. It stands while nobody moves it, so that each side finds exactly the same
// descriptors ready: those of `turnS`, about three quarters of what a driver's ring holds.
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
    size_t position;  // bytes
};

class Acquisition {
public:
    // With so many channels in use, raw and filtered in turns. At the usual rate a channel runs as fast as it can; at
    // any other one filtered channels run at half of it, so that all have as many bytes.
    explicit Acquisition(size_t used = 16, int rate = usualRate) {
        auto scenario = kestrixsim::Scenario::counters(8);
        scenario.supplyOn = true;
        scenario.canPorts = 0;  // each asks its socket in each cycle; see bench-can
        kestrixsim::reset(scenario, [] { return nowS.load(); });
        std::jthread ticking(tick);
        host_.open(KESTRIX_MODULE);
        host_.add();
        host_.dataModule().setPropertyValue("SampleRate", Ratio{rate, 1});
        size_t place = 0;
        for (const auto& channel : host_.channels()) {
            // Status channels have no part in this.
            const bool isAnalog = channel.getType() == 0;
            channel.setUsed(isAnalog && place < used);
            if (!isAnalog) {
                continue;
            }
            if (rate != usualRate && place % 2 == 1) {
                channel.setPropertyValue("SampleRate", Ratio{rate / 2, 1});
            }
            ++place;
        }
        host_.configure();
        host_.initialize();
        host_.start();
        host_.scheduler().stop();
        channels_ = host_.channels();
        std::erase_if(channels_, [](const auto& channel) { return channel.getType() != 0; });
        channels_.resize(used);
        module_ = host_.module();
        int number = 0;
        for (const auto& channel : channels_) {
            const std::string node =
                "/dev/tolvn_dma_" + std::string(number % 2 == 0 ? "r" : "f") + std::to_string(number / 2);
            const auto buffer = channel.getBuffer();
            const size_t capacity = buffer.getCapacity() * buffer.getSampleSize();
            const size_t position = buffer.getPosition() * buffer.getSampleSize();
            rings_.push_back({::open(node.c_str(), O_RDWR | O_NONBLOCK), static_cast<unsigned char*>(buffer.getData()),
                              capacity, position});
            ++number;
        }
    }
    ~Acquisition() {
        for (const auto& ring : rings_) {
            ::close(ring.fd);
        }
        channels_.clear();
        module_.release();
        std::jthread ticking(tick);
        host_.stop();
        host_.close();
    }

    static constexpr int usualRate = 15000000;

    uint64_t bytes() const {
        uint64_t bytes = 0;
        for (size_t i = 0; i < channels_.size(); ++i) {
            bytes += static_cast<uint64_t>(channels_[i].getSamplesAcquired()) * (i % 2 == 0 ? 2 : 4);
        }
        return bytes;
    }

    void moduleCycle() { module_->processData(); }

    // What a bare read failed with, 0 if none did.
    int failed() const { return failed_; }

    // Two reads at most for each stream, each up to the end of the ring: what the module does, and nothing else.
    uint64_t bareCycle() {
        uint64_t bytes = 0;
        for (auto& ring : rings_) {
            for (int i = 0; i < 2; ++i) {
                const size_t free = ring.capacity - ring.position;
                const ssize_t count = ::read(ring.fd, ring.data + ring.position, free);
                if (count < 0 && errno != EAGAIN) {
                    failed_ = errno;
                }
                if (count < 1) {
                    break;
                }
                bytes += static_cast<uint64_t>(count);
                ring.position += static_cast<size_t>(count);
                if (ring.position < ring.capacity) {
                    break;
                }
                ring.position = 0;
            }
        }
        return bytes;
    }

private:
    ModuleHost host_;
    std::vector<Ring> rings_;
    int failed_ = 0;
    std::vector<ChannelPtr<>> channels_;
    ObjectPtr<IModule> module_;
};

std::unique_ptr<Acquisition>& instance() {
    static std::unique_ptr<Acquisition> one;
    return one;
}

Acquisition& acquisition() {
    if (!instance()) {
        instance() = std::make_unique<Acquisition>();
        std::atexit([] { instance().reset(); });  // while the simulated instrument still is there
    }
    return *instance();
}

// Of the processor: neither side ever waits, and what else the machine does is not counted.
double secondsOf(const std::function<void()>& work) {
    const auto now = [] {
        timespec time{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
    };
    const double start = now();
    work();
    return now() - start;
}

// Both sides in turns, each with the descriptors of the same span of time: what the machine does meanwhile hits both.
// The side that goes first is some per cent slower (the caches hold the other's ring), so they take that place in turns
// too.
void BlockPath(benchmark::State& state) {
    auto& bench = acquisition();
    double moduleS = 0.0;
    double bareS = 0.0;
    uint64_t moduleBytes = 0;
    uint64_t bareBytes = 0;
    const auto moduleTurn = [&] {
        const uint64_t before = bench.bytes();
        nowS.store(nowS.load() + turnS);
        moduleS += secondsOf([&] { bench.moduleCycle(); });
        moduleBytes += bench.bytes() - before;
    };
    const auto bareTurn = [&] {
        nowS.store(nowS.load() + turnS);
        bareS += secondsOf([&] { bareBytes += bench.bareCycle(); });
    };
    bool moduleFirst = true;
    for ([[maybe_unused]] auto _ : state) {
        if (moduleFirst) {
            moduleTurn();
            bareTurn();
        } else {
            bareTurn();
            moduleTurn();
        }
        moduleFirst = !moduleFirst;
    }
    // Descriptors are whole, so that one side can be some ahead of the other: that evens out over some turns.
    const double unequal = std::abs(static_cast<double>(moduleBytes) / static_cast<double>(bareBytes) - 1.0);
    if (bench.failed() != 0 || (state.iterations() > 32 && !(unequal < 0.02))) {
        std::fprintf(
            stderr, "The sides did not do the same work: module %llu bytes, bare loop %llu bytes, its errno %d\n",
            static_cast<unsigned long long>(moduleBytes), static_cast<unsigned long long>(bareBytes), bench.failed());
        std::exit(1);
    }
    const double moduleRate = static_cast<double>(moduleBytes) / moduleS;
    const double bareRate = static_cast<double>(bareBytes) / bareS;
    state.counters["module_GB_s"] = moduleRate / 1e9;
    state.counters["bare_GB_s"] = bareRate / 1e9;
    state.counters["throughput_ratio"] = moduleRate / bareRate;
}
BENCHMARK(BlockPath)->Unit(benchmark::kMillisecond)->MinTime(1.0)->Repetitions(9)->ReportAggregatesOnly();

// Nothing is ready: all sixteen reads say EAGAIN.
void IdleCycle(benchmark::State& state) {
    auto& bench = acquisition();
    bench.moduleCycle();
    constexpr int turn = 512;
    double moduleS = 0.0;
    double bareS = 0.0;
    for ([[maybe_unused]] auto _ : state) {
        moduleS += secondsOf([&] {
            for (int i = 0; i < turn; ++i) {
                bench.moduleCycle();
            }
        });
        bareS += secondsOf([&] {
            for (int i = 0; i < turn; ++i) {
                benchmark::DoNotOptimize(bench.bareCycle());
            }
        });
    }
    const double cycles = static_cast<double>(state.iterations()) * turn;
    state.counters["module_ns"] = moduleS / cycles * 1e9;
    state.counters["bare_ns"] = bareS / cycles * 1e9;
    state.counters["time_ratio"] = moduleS / bareS;
}
BENCHMARK(IdleCycle)->Unit(benchmark::kMicrosecond)->MinTime(0.5)->Repetitions(9)->ReportAggregatesOnly();

// Times of a cycle in ns by the number of channels, and the straight line through their medians by least squares.
class CycleTimes {
public:
    static constexpr size_t counts[] = {2, 4, 8, 12, 16};

    void add(size_t place, double seconds) { found_[place].push_back(seconds * 1e9); }
    void report(benchmark::State& state, const std::string& side) {
        double sumX = 0.0;
        double sumY = 0.0;
        double sumXX = 0.0;
        double sumXY = 0.0;
        std::vector<double> medians;
        for (size_t i = 0; i < std::size(counts); ++i) {
            const auto middle = found_[i].begin() + static_cast<std::ptrdiff_t>(found_[i].size() / 2);
            std::nth_element(found_[i].begin(), middle, found_[i].end());
            const auto x = static_cast<double>(counts[i]);
            medians.push_back(*middle);
            sumX += x;
            sumY += *middle;
            sumXX += x * x;
            sumXY += x * *middle;
            state.counters[side + "_ns_of_" + std::to_string(counts[i])] = *middle;
        }
        const auto n = static_cast<double>(std::size(counts));
        const double slope = (n * sumXY - sumX * sumY) / (n * sumXX - sumX * sumX);
        const double start = (sumY - slope * sumX) / n;
        double largest = 0.0;
        for (size_t i = 0; i < std::size(counts); ++i) {
            const double line = start + slope * static_cast<double>(counts[i]);
            largest = std::max(largest, std::abs(medians[i] / line - 1.0) * 100.0);
        }
        state.counters[side + "_deviation_percent"] = largest;
    }

private:
    std::vector<double> found_[std::size(counts)];
};

// What a cycle costs that finds one descriptor of each channel, of the same size for all, by the number of channels.
// The counts take their turns, so that a change of the machine's mood hits all of them; each figure is the median of
// nine.
void CycleOfChannels(benchmark::State& state) {
    constexpr double descriptorS = 0.125;
    constexpr int cycles = 480;
    const int rate = static_cast<int>(state.range(0));
    const auto block = static_cast<uint64_t>(2 * rate * descriptorS);
    CycleTimes module;
    CycleTimes bare;
    for ([[maybe_unused]] auto _ : state) {
        for (int repetition = 0; repetition < 9; ++repetition) {
            for (size_t i = 0; i < std::size(CycleTimes::counts); ++i) {
                instance().reset();
                instance() = std::make_unique<Acquisition>(CycleTimes::counts[i], rate);
                Acquisition& bench = *instance();
                const auto timeOf = [&](const std::function<void()>& cycle) {
                    double seconds = 0.0;
                    for (int k = 0; k < cycles; ++k) {
                        nowS.store(nowS.load() + descriptorS);
                        seconds += secondsOf(cycle);
                    }
                    return seconds / cycles;
                };
                // Once round the rings first: pages that are touched for the first time cost more.
                for (int k = 0; k < 32; ++k) {
                    nowS.store(nowS.load() + descriptorS);
                    bench.moduleCycle();
                }
                const uint64_t before = bench.bytes();
                module.add(i, timeOf([&] { bench.moduleCycle(); }));
                const uint64_t expected = cycles * CycleTimes::counts[i] * block;
                const uint64_t ofModule = bench.bytes() - before;
                uint64_t ofBare = 0;
                bare.add(i, timeOf([&] { ofBare += bench.bareCycle(); }));
                if (ofModule != expected || ofBare != expected || bench.failed() != 0) {
                    std::fprintf(stderr, "%zu channels: module %llu bytes, bare loop %llu bytes, its errno %d\n",
                                 CycleTimes::counts[i], static_cast<unsigned long long>(ofModule),
                                 static_cast<unsigned long long>(ofBare), bench.failed());
                    std::exit(1);
                }
            }
        }
    }
    instance().reset();
    state.counters["block_bytes"] = static_cast<double>(block);
    module.report(state, "module");
    bare.report(state, "bare");
}
BENCHMARK(CycleOfChannels)->Arg(4000)->Arg(40000)->Arg(500000)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
