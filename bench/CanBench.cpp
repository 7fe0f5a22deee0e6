#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include <zorn/manager/manager.h>

#include "simulator/preload/Control.h"

using namespace Harvane::RT::Core;

// Received CAN frames: the module's cycle against a bare loop of the same system calls on sockets of its own, in turns;
// eight ports, each with a bus of 1 Mbit/s that is full. The instrument's time stands while either side runs, so that
// both find the same frames and neither pays for the buses.
namespace {

std::atomic<double> nowS{0.0};

// Makes the time go by while the module starts and stops.
void tick(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
        nowS.store(nowS.load() + 0.01);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

constexpr int ports = 8;
constexpr double cycleS = 0.01;
constexpr double period = 125e-6;  // of frames with 8 bytes, 111 bits and the stuff bits of a counter

[[noreturn]] void fail(const char* text, uint64_t value) {
    std::fprintf(stderr, "%s: %llu\n", text, static_cast<unsigned long long>(value));
    std::exit(1);
}

// Of this thread alone: neither side waits, and what else the machine does is not counted.
double processorSeconds() {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

double secondsOf(const std::function<void()>& work) {
    const double start = processorSeconds();
    work();
    return processorSeconds() - start;
}

// A frame by its three calls: whether there is one, the frame, its time. Returns false when there is none.
bool readFrame(int fd, can_frame& frame, timeval& time) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    timeval noWait{};
    return ::select(fd + 1, &readable, nullptr, nullptr, &noWait) > 0 &&
           ::read(fd, &frame, sizeof frame) == sizeof frame && ::ioctl(fd, SIOCGSTAMP, &time) == 0;
}

class Ports {
public:
    Ports() {
        auto scenario = kestrixsim::Scenario::counters(1);
        scenario.canPorts = 0xFF00;
        scenario.can.buses.resize(ports);
        for (auto& bus : scenario.can.buses) {
            bus.bitrate = 1000000;
            kestrixsim::CanCyclicScenario cyclic;
            cyclic.frame.id = 0x123;
            cyclic.frame.length = 8;
            cyclic.periodSeconds = period;
            cyclic.counter = true;
            bus.cyclic.push_back(cyclic);
        }
        scenario.realtimeAtStart = 1795000000.0;
        kestrixsim::reset(scenario, [] { return nowS.load(); });
        std::jthread ticking(tick);
        host_.open(KESTRIX_MODULE);
        host_.add();
        host_.configure();
        for (const auto& channel : host_.channels()) {
            const auto name = channel.getName().toStdString();
            channel.setUsed(name.find("CAN Port") == 0 && name.find("Input") != std::string::npos);
            if (channel.getUsed()) {
                channel.setPropertyValue("BaudRate", 1000000);
                inputs_.push_back(channel);
            }
        }
        host_.initialize();
        host_.start();
        host_.scheduler().stop();
        module_ = host_.module();
        for (int i = 0; i < ports; ++i) {
            const int fd = ::socket(AF_CAN, SOCK_RAW | SOCK_NONBLOCK, CAN_RAW);
            sockaddr_can address{};
            address.can_family = AF_CAN;
            address.can_ifindex = static_cast<int>(::if_nametoindex(("can" + std::to_string(i)).c_str()));
            timeval time{};
            if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
                fail("bind fails for port", static_cast<uint64_t>(i));
            }
            ::ioctl(fd, SIOCGSTAMP, &time);  // from now on frames are stamped
            sockets_.push_back(fd);
        }
        ring_.resize(65536);
    }
    ~Ports() {
        for (const int fd : sockets_) {
            ::close(fd);
        }
        inputs_.clear();
        module_.release();
        std::jthread ticking(tick);
        host_.stop();
        host_.close();
    }

    static void nextCycle() {
        nowS.store(nowS.load() + cycleS);
        kestrixsim::instrument().can().state(0);  // lets happen what is due
    }

    void moduleCycle() { module_->processData(); }
    void bareCycle() {
        can_frame frame{};
        timeval time{};
        for (const int fd : sockets_) {
            while (readFrame(fd, frame, time)) {
                auto& entry = ring_[bareFrames_++ % ring_.size()];
                entry.frame = frame;
                entry.time = static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
            }
        }
    }

    uint64_t moduleFrames() const {
        uint64_t frames = 0;
        for (const auto& input : inputs_) {
            frames += static_cast<uint64_t>(input.getSamplesAcquired());
        }
        return frames;
    }
    uint64_t bareFrames() const { return bareFrames_; }

    // Every count of losses of every input.
    uint64_t lost() const {
        uint64_t sum = 0;
        for (const auto& input : inputs_) {
            for (const char* count : {"LostSamples", "FramesAtClockSteps", "FramesBeforeZero", "FramesOverflowed",
                                      "ErrorFrames", "KernelDrops", "FailedReads"}) {
                const auto function = input.getPropertyValue<BasePtr>(count).asPtr<IFuncObject>();
                sum += static_cast<uint64_t>(fromValue<int64_t>(executeFunc(function, {})));
            }
        }
        return sum;
    }

private:
    struct Entry {
        can_frame frame;
        double time;
    };

    ModuleHost host_;
    ObjectPtr<IModule> module_;
    std::vector<ChannelPtr<>> inputs_;
    std::vector<int> sockets_;
    std::vector<Entry> ring_;
    uint64_t bareFrames_ = 0;
};

void FullLoad(benchmark::State& state) {
    Ports bench;
    for (int i = 0; i < 100; ++i) {  // the clocks are related, the rings touched
        Ports::nextCycle();
        bench.moduleCycle();
        bench.bareCycle();
        // What the kernel has dropped while the time made jumps is asked for ten times a second.
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    const uint64_t moduleStart = bench.moduleFrames();
    const uint64_t bareStart = bench.bareFrames();
    const uint64_t lostBefore = bench.lost();
    double moduleS = 0.0;
    double bareS = 0.0;
    double longestS = 0.0;
    bool moduleFirst = true;
    for ([[maybe_unused]] auto _ : state) {
        Ports::nextCycle();
        const auto module = [&] {
            const double took = secondsOf([&] { bench.moduleCycle(); });
            moduleS += took;
            longestS = std::max(longestS, took);
        };
        const auto bare = [&] { bareS += secondsOf([&] { bench.bareCycle(); }); };
        if (moduleFirst) {
            module();
            bare();
        } else {
            bare();
            module();
        }
        moduleFirst = !moduleFirst;
    }
    const double elapsed = static_cast<double>(state.iterations()) * cycleS;
    const auto ofModule = static_cast<double>(bench.moduleFrames() - moduleStart);
    const auto ofBare = static_cast<double>(bench.bareFrames() - bareStart);
    if (bench.lost() != lostBefore) {
        fail("frames that the module has lost", bench.lost() - lostBefore);
    }
    if (ofModule != ofBare || ofBare < 0.98 * ports * elapsed / period) {
        fail("the sides did not do the same work; frames of the bare loop", bench.bareFrames());
    }
    state.counters["frames_s"] = ofModule / elapsed;
    state.counters["module_ns"] = moduleS / ofModule * 1e9;
    state.counters["bare_ns"] = bareS / ofBare * 1e9;
    state.counters["time_ratio"] = moduleS / ofModule / (bareS / ofBare);
    state.counters["load_percent"] = moduleS / elapsed * 100.0;
    state.counters["longest_cycle_ms"] = longestS * 1e3;
}
BENCHMARK(FullLoad)->Unit(benchmark::kMillisecond)->Iterations(1000)->Repetitions(9)->ReportAggregatesOnly();

// The machine's own kernel under the same three calls, and under one call for many frames with their times beside
// them: datagrams of the size of a frame over the loopback, since a build machine has no CAN.
class Datagrams {
public:
    Datagrams() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        timeval time{};
        if (::bind(in_, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
            ::getsockname(in_, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
            ::connect(out_, reinterpret_cast<const sockaddr*>(&address), size) != 0) {
            fail("the loopback fails, errno", static_cast<uint64_t>(errno));
        }
        ::ioctl(in_, SIOCGSTAMP, &time);
    }
    ~Datagrams() {
        ::close(in_);
        ::close(out_);
    }
    void fill() const {
        const can_frame frame{};
        for (size_t i = 0; i < count; ++i) {
            if (::send(out_, &frame, sizeof frame, 0) != sizeof frame) {
                fail("send fails for datagram", static_cast<uint64_t>(i));
            }
        }
    }
    int in() const { return in_; }

    static constexpr size_t count = 64;

private:
    int in_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    int out_ = ::socket(AF_INET, SOCK_DGRAM, 0);
};

void KernelOneByOne(benchmark::State& state) {
    const Datagrams datagrams;
    double seconds = 0.0;
    for ([[maybe_unused]] auto _ : state) {
        datagrams.fill();
        seconds += secondsOf([&] {
            can_frame frame{};
            timeval time{};
            for (size_t i = 0; i < Datagrams::count; ++i) {
                if (!readFrame(datagrams.in(), frame, time)) {
                    fail("missing datagram", static_cast<uint64_t>(i));
                }
            }
        });
    }
    state.counters["frame_ns"] = seconds / static_cast<double>(state.iterations()) / Datagrams::count * 1e9;
}
BENCHMARK(KernelOneByOne)->MinTime(0.3)->Repetitions(5)->ReportAggregatesOnly();

void KernelInBatches(benchmark::State& state) {
    const Datagrams datagrams;
    const int on = 1;
    ::setsockopt(datagrams.in(), SOL_SOCKET, SO_TIMESTAMP, &on, sizeof on);
    constexpr size_t controlSize = 64;
    std::vector<can_frame> frames(Datagrams::count);
    std::vector<iovec> parts(Datagrams::count);
    std::vector<char> control(Datagrams::count * controlSize);
    std::vector<mmsghdr> messages(Datagrams::count);
    double seconds = 0.0;
    for ([[maybe_unused]] auto _ : state) {
        for (size_t i = 0; i < messages.size(); ++i) {
            parts[i] = {&frames[i], sizeof frames[i]};
            messages[i] = {};
            messages[i].msg_hdr.msg_iov = &parts[i];
            messages[i].msg_hdr.msg_iovlen = 1;
            messages[i].msg_hdr.msg_control = &control[i * controlSize];
            messages[i].msg_hdr.msg_controllen = controlSize;
        }
        datagrams.fill();
        seconds += secondsOf([&] {
            if (::recvmmsg(datagrams.in(), messages.data(), Datagrams::count, MSG_DONTWAIT, nullptr) !=
                Datagrams::count) {
                fail("datagrams are missing, errno", static_cast<uint64_t>(errno));
            }
        });
    }
    state.counters["frame_ns"] = seconds / static_cast<double>(state.iterations()) / Datagrams::count * 1e9;
}
BENCHMARK(KernelInBatches)->MinTime(0.3)->Repetitions(5)->ReportAggregatesOnly();

}  // namespace
