#include <fmt/core.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/synchronization/ClockLoop.h"
#include "tests/synchronization/Silence.h"

// How well the clock is kept: the law of the module beside a plain proportional-integral servo, on the same oscillators
// and references. Prints the table of docs/performance.md; a figure is the median of all seeds and the worst of them.
//   bench-clock-law [SEEDS]
namespace {

using ClockLoop::Figures;
using ClockLoop::nanosecondsPerCount;
using ClockLoop::Reference;

// More pulses than any clock that locks at all takes.
constexpr int patience = 300;

std::string medianAndWorst(std::vector<double> values, int digits) {
    if (values.empty()) {
        return "-";
    }
    std::sort(values.begin(), values.end());
    return fmt::format("{:.{}f} ({:.{}f})", values[values.size() / 2], digits, values.back(), digits);
}

template <typename Servo>
void printRow(Reference reference, const char* name, unsigned seeds) {
    std::vector<Figures> locked;
    {
        const Silence silence;
        for (unsigned seed = 1; seed <= seeds; ++seed) {
            Servo servo;
            const Figures figures = ClockLoop::measure(reference, seed, servo);
            if (figures.pulsesToLock < patience) {
                locked.push_back(figures);
            }
        }
    }
    const auto column = [&locked](int digits, auto&& figureOf) {
        std::vector<double> values;
        for (const Figures& figures : locked) {
            values.push_back(figureOf(figures));
        }
        return medianAndWorst(values, digits);
    };
    const auto hold = [&](std::size_t index, int digits) {
        return column(digits,
                      [&](const Figures& f) { return std::abs(f.holds[index].drift) * nanosecondsPerCount / 1000.0; });
    };
    fmt::print("| {} | {} | {}/{} | {} | {} | {} | {} | {} | {} | {} |\n", ClockLoop::nameOf(reference), name,
               locked.size(), seeds, column(0, [](const Figures& f) { return f.pulsesToLock; }),
               column(0, [](const Figures& f) { return f.rms * nanosecondsPerCount; }),
               column(0, [](const Figures& f) { return f.max * nanosecondsPerCount; }), hold(0, 2), hold(1, 1),
               hold(2, 0), column(0, [](const Figures& f) { return f.stepPulses; }));
}

}  // namespace

int main(int count, char** arguments) {
    const auto seeds = static_cast<unsigned>(count > 1 ? std::max(1, std::atoi(arguments[1])) : 200);
    fmt::print(
        "| Reference | Servo | Locks | Pulses to lock | RMS, ns | Largest, ns | Hold 10 s, us | Hold 100 s, us | Hold "
        "1 h, us "
        "| Step of 6.7 us, pulses |\n|---|---|---|---|---|---|---|---|---|---|\n");
    for (const Reference reference : {Reference::Pps, Reference::Irig, Reference::Ptp}) {
        printRow<ClockLoop::LawServo>(reference, "law", seeds);
        printRow<ClockLoop::PiServo>(reference, "PI", seeds);
    }
}
