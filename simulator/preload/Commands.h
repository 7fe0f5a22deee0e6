#pragma once

#include <cstdio>
#include <string>

namespace kestrixsim {

// Commands of the instrument that a program runs through popen. They are answered inside the process: the stream is a
// file of memory that holds the whole reply.
class Commands {
public:
    static bool owns(const char* commandLine);

    // Null and `error` if the stream cannot be made.
    static FILE* start(const char* commandLine, const char* mode, int& error);

    // Whether the stream is one of ours; if so it is ours no longer, and the caller closes it.
    static bool end(FILE* stream);
};

}  // namespace kestrixsim
