#pragma once

namespace zornhost {

// Ctrl-C, SIGTERM and the loss of the terminal end what runs cleanly: every loop asks `requested` at least ten times a
// second. A second signal ends the process at once.
class Interrupt {
public:
    static void install();
    static bool requested();
    // Sleeps in small steps; returns early (true) when an end was asked for.
    static bool sleepMs(int milliseconds);
};

}  // namespace zornhost
