#pragma once

#include <atomic>
#include <cstdint>

namespace Harvane::RT::Modules::Daq {

// A count that one thread writes and any thread may read at any time: clock queries of the host come while the cycle
// counts. It orders nothing else (relaxed) and costs the cycle a plain load and store. Used like an integer.
class SampleCounter {
public:
    SampleCounter(std::uint64_t value = 0) : value_(value) {}
    SampleCounter(const SampleCounter& other) : value_(other.get()) {}
    SampleCounter& operator=(const SampleCounter& other) { return *this = other.get(); }

    SampleCounter& operator=(std::uint64_t value) {
        value_.store(value, std::memory_order_relaxed);
        return *this;
    }
    SampleCounter& operator+=(std::uint64_t count) { return *this = get() + count; }
    SampleCounter& operator++() { return *this += 1; }

    operator std::uint64_t() const { return get(); }
    std::uint64_t get() const { return value_.load(std::memory_order_relaxed); }

private:
    std::atomic<std::uint64_t> value_;
};

}  // namespace Harvane::RT::Modules::Daq
