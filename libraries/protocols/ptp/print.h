#pragma once

namespace Harvane::Ptp {

// Diagnostics of the client, with the levels of syslog(3). A message goes out when its level isn't above the set one:
// to standard output if verbose, to the system's log if that is on. The settings are the process's; any thread may
// print.
void print(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

void print_set_verbose(int value);
void print_set_syslog(int value);
void print_set_level(int level);

}  // namespace Harvane::Ptp
