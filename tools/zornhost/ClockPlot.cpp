#include "tools/zornhost/ClockPlot.h"

#include <cairo-svg.h>
#include <cairo.h>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>

#include "tools/zornhost/Output.h"

namespace zornhost {

namespace {

// Points; a PNG has twice as many pixels.
constexpr double width = 900.0;
constexpr double height = 520.0;
constexpr double left = 86.0;
constexpr double right = 24.0;
constexpr double top = 46.0;
constexpr double bottom = 44.0;
constexpr double between = 34.0;
constexpr double phaseShare = 0.62;  // of the height for the upper panel
constexpr double pngScale = 2.0;
constexpr double dot = 1.7;

struct Colour {
    double red;
    double green;
    double blue;
};
constexpr Colour ink{0.15, 0.15, 0.17};
constexpr Colour grid{0.88, 0.88, 0.9};
constexpr Colour lockedDot{0.09, 0.4, 0.67};
constexpr Colour otherDot{0.62, 0.62, 0.65};
constexpr Colour holdingBand{0.99, 0.93, 0.8};
constexpr Colour unlockedBand{0.98, 0.87, 0.86};
constexpr Colour equilibriumLine{0.85, 0.45, 0.1};

struct Range {
    double low;
    double high;
    double share(double value) const { return (value - low) / (high - low); }
    double clamp(double value) const { return std::clamp(value, low, high); }
};

struct Panel {
    double y;
    double height;
    Range values;
};

// 1, 2 or 5 times a power of ten, about `count` of them in the range.
double niceStep(double span, double count) {
    const double raw = span / count;
    const double power = std::pow(10.0, std::floor(std::log10(raw)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (raw <= factor * power) {
            return factor * power;
        }
    }
    return 10.0 * power;
}

// By the locked pulses, of which a few in a thousand may be spikes.
Range phaseRange(const std::vector<ClockRow>& rows) {
    std::vector<double> values;
    for (const auto& row : rows) {
        if (row.lock == Lock::Locked && row.steered) {
            values.push_back(std::fabs(row.phaseErrorNs));
        }
    }
    if (values.empty()) {
        for (const auto& row : rows) {
            values.push_back(std::fabs(row.phaseErrorNs));
        }
    }
    std::sort(values.begin(), values.end());
    const double most = std::max(10.0, 1.25 * values[(values.size() - 1) * 995 / 1000]);
    return {-most, most};
}

Range wordRange(const std::vector<ClockRow>& rows) {
    const auto [low, high] = std::minmax_element(
        rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.controlWord < b.controlWord; });
    const double margin = std::max(2.0, 0.1 * (high->controlWord - low->controlWord));
    return {low->controlWord - margin, high->controlWord + margin};
}

class Drawing {
public:
    Drawing(cairo_surface_t* surface, const std::vector<ClockRow>& rows)
        : cairo_(cairo_create(surface), cairo_destroy), rows_(rows), first_(rows.front().timeUs) {
        const double end = static_cast<double>(rows.back().timeUs - first_) / 1e6;
        times_ = {0.0, std::max(end, 1.0)};
        cairo_select_font_face(cairo_.get(), "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
        cairo_set_font_size(cairo_.get(), 12.0);
        colour({1.0, 1.0, 1.0});
        cairo_paint(cairo_.get());
    }

    void draw(const std::string& mode) {
        const double whole = height - top - bottom - between;
        Range phases = phaseRange(rows_);
        const bool micro = phases.high >= 10000.0;
        const double unit = micro ? 1000.0 : 1.0;
        phases = {phases.low / unit, phases.high / unit};
        const Panel upper{top, whole * phaseShare, phases};
        const Panel lower{top + whole * phaseShare + between, whole * (1.0 - phaseShare), wordRange(rows_)};

        bands(upper);
        axes(upper, false);
        bands(lower);
        axes(lower, true);
        text(left, 20.0, fmt::format("{}: phase error in {}", mode, micro ? "us" : "ns"), 0.0);
        text(width - right, 20.0, fmt::format("from {}", isoTime(first_).substr(0, 19) + "Z"), 1.0);
        text(left, lower.y - 8.0, "control word, and equilibrium as a line", 0.0);
        text(width / 2.0, height - 8.0, "seconds;  shaded: holding without a reference (yellow), not locked (red)",
             0.5);
        dots(upper, true, [unit](const ClockRow& row) { return row.phaseErrorNs / unit; });
        line(lower, [](const ClockRow& row) { return row.equilibrium; });
        dots(lower, false, [](const ClockRow& row) { return static_cast<double>(row.controlWord); });
    }

private:
    void colour(const Colour& value) { cairo_set_source_rgb(cairo_.get(), value.red, value.green, value.blue); }
    double x(const ClockRow& row) const { return x(static_cast<double>(row.timeUs - first_) / 1e6); }
    double x(double seconds) const { return left + times_.share(seconds) * (width - left - right); }
    static double y(const Panel& panel, double value) {
        return panel.y + (1.0 - panel.values.share(panel.values.clamp(value))) * panel.height;
    }

    // `align`: 0 begins there, 1 ends there.
    void text(double at, double baseline, const std::string& words, double align) {
        cairo_text_extents_t extents{};
        cairo_text_extents(cairo_.get(), words.c_str(), &extents);
        colour(ink);
        cairo_move_to(cairo_.get(), at - align * extents.x_advance, baseline);
        cairo_show_text(cairo_.get(), words.c_str());
    }

    void bands(const Panel& panel) {
        for (size_t i = 0; i + 1 < rows_.size(); ++i) {
            const Lock lock = rows_[i].lock;
            if (lock == Lock::Holding || lock == Lock::NotLocked) {
                colour(lock == Lock::Holding ? holdingBand : unlockedBand);
                cairo_rectangle(cairo_.get(), x(rows_[i]), panel.y, x(rows_[i + 1]) - x(rows_[i]) + 0.5, panel.height);
                cairo_fill(cairo_.get());
            }
        }
    }

    void rule(double x1, double y1, double x2, double y2) {
        colour(grid);
        cairo_set_line_width(cairo_.get(), 1.0);
        cairo_move_to(cairo_.get(), x1, y1);
        cairo_line_to(cairo_.get(), x2, y2);
        cairo_stroke(cairo_.get());
    }

    void axes(const Panel& panel, bool seconds) {
        const double step = niceStep(panel.values.high - panel.values.low, 6.0);
        const auto lowest = std::lround(std::ceil(panel.values.low / step));
        const auto highest = std::lround(std::floor(panel.values.high / step));
        for (long n = lowest; n <= highest; ++n) {
            const double value = static_cast<double>(n) * step;
            rule(left, y(panel, value), width - right, y(panel, value));
            text(left - 8.0, y(panel, value) + 4.0, formatNumber(value, 4), 1.0);
        }
        const double timeStep = niceStep(times_.high, 10.0);
        for (long n = 0, last = std::lround(std::floor(times_.high / timeStep)); n <= last; ++n) {
            const double value = static_cast<double>(n) * timeStep;
            rule(x(value), panel.y, x(value), panel.y + panel.height);
            if (seconds) {
                text(x(value), panel.y + panel.height + 15.0, fmt::format("{:.0f}", value), 0.5);
            }
        }
    }

    // `measured`: only of pulses that were the reference's.
    void dots(const Panel& panel, bool measured, const std::function<double(const ClockRow&)>& value) {
        for (const auto& row : rows_) {
            if (measured && !row.steered) {
                continue;
            }
            colour(row.lock == Lock::Locked ? lockedDot : otherDot);
            cairo_arc(cairo_.get(), x(row), y(panel, value(row)), dot, 0.0, 2.0 * M_PI);
            cairo_fill(cairo_.get());
        }
    }

    void line(const Panel& panel, const std::function<double(const ClockRow&)>& value) {
        colour(equilibriumLine);
        cairo_set_line_width(cairo_.get(), 1.2);
        for (const auto& row : rows_) {
            cairo_line_to(cairo_.get(), x(row), y(panel, value(row)));
        }
        cairo_stroke(cairo_.get());
    }

    std::unique_ptr<cairo_t, decltype(&cairo_destroy)> cairo_;
    const std::vector<ClockRow>& rows_;
    const int64_t first_;
    Range times_{};
};

}  // namespace

void checkPlotFile(const std::string& file) {
    if (!file.ends_with(".png") && !file.ends_with(".svg")) {
        throw std::runtime_error(fmt::format("{}: a plot is drawn into a .png or .svg file", file));
    }
    errno = 0;
    if (!std::ofstream(file, std::ios::app)) {
        throw std::runtime_error(fmt::format("{}: cannot be written: {}", file, std::strerror(errno)));
    }
}

void drawClockPlot(const std::string& file, const std::string& mode, const std::vector<ClockRow>& rows) {
    checkPlotFile(file);
    if (rows.empty()) {
        throw std::runtime_error(fmt::format("{}: there is no pulse to draw", file));
    }
    const bool png = file.ends_with(".png");
    const std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> surface(
        png ? cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(width * pngScale),
                                         static_cast<int>(height * pngScale))
            : cairo_svg_surface_create(file.c_str(), width, height),
        cairo_surface_destroy);
    if (png) {
        cairo_surface_set_device_scale(surface.get(), pngScale, pngScale);
    }
    Drawing(surface.get(), rows).draw(mode);
    cairo_status_t status = cairo_surface_status(surface.get());
    if (status == CAIRO_STATUS_SUCCESS && png) {
        status = cairo_surface_write_to_png(surface.get(), file.c_str());
    } else if (status == CAIRO_STATUS_SUCCESS) {
        cairo_surface_finish(surface.get());
        status = cairo_surface_status(surface.get());
    }
    if (status != CAIRO_STATUS_SUCCESS && status != CAIRO_STATUS_SURFACE_FINISHED) {
        throw std::runtime_error(fmt::format("{}: {}", file, cairo_status_to_string(status)));
    }
}

}  // namespace zornhost
