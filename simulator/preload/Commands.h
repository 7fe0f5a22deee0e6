#pragma once

#include <cstdio>
#include <string>

namespace kestrixsim {

// Commands of the instrument that a program runs through popen or system. They are answered inside the process: a
// stream is a file of memory that holds the whole reply. What the command says of its errors goes to the program's own.
class Commands {
public:
    static bool owns(const char* commandLine);

    // Null and `error` if the stream cannot be made.
    static FILE* start(const char* commandLine, const char* mode, int& error);

    // Whether the stream is one of ours; if so it is ours no longer, and the caller closes it. `status` as pclose has
    // it.
    static bool end(FILE* stream, int& status);

    // As system(3): its result or a negative errno.
    static int run(const char* commandLine);
};

}  // namespace kestrixsim
