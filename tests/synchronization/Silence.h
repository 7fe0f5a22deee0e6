#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

// Sends standard output nowhere as long as it lives: the law says several lines for each pulse.
class Silence {
public:
    Silence() {
        std::fflush(stdout);
        kept = dup(STDOUT_FILENO);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        close(nowhere);
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;
    ~Silence() {
        std::fflush(stdout);
        dup2(kept, STDOUT_FILENO);
        close(kept);
    }

private:
    int kept;
};
