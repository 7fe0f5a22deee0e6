#include "libraries/protocols/ptp/print.h"

#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace Harvane::Ptp {

namespace {

std::atomic<int> verbose{0};
std::atomic<int> toSyslog{1};
std::atomic<int> highest{LOG_INFO};

}  // namespace

void print(int level, const char* format, ...) {
    if (level > highest.load()) {
        return;
    }
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (verbose.load() != 0) {
        std::printf("ptp: %s\n", text);
        std::fflush(stdout);
    }
    if (toSyslog.load() != 0) {
        syslog(level, "ptp: %s", text);
    }
}

void print_set_verbose(int value) {
    verbose = value;
}

void print_set_syslog(int value) {
    toSyslog = value;
}

void print_set_level(int level) {
    highest = level;
}

}  // namespace Harvane::Ptp
