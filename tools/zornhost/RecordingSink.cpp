#include "tools/zornhost/RecordingSink.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>

#include "tools/zornhost/NullSink.h"
#include "tools/zornhost/RateMath.h"
#include "tools/zornhost/RecordingFile.h"

namespace zornhost {

namespace {

constexpr size_t maxChunkBytes = 1 << 20;
constexpr size_t minChunkSamples = 64;

// The kernel's number of /dev/null, whatever the name that leads there.
bool isNull(const struct stat& status) {
    return S_ISCHR(status.st_mode) && major(status.st_rdev) == 1 && minor(status.st_rdev) == 3;
}

const char* kindOf(const struct stat& status) {
    switch (status.st_mode & S_IFMT) {
        case S_IFDIR:
            return "a folder";
        case S_IFCHR:
            return "a character device";
        case S_IFBLK:
            return "a block device";
        case S_IFIFO:
            return "a pipe";
        default:
            return "a socket";
    }
}

}  // namespace

std::unique_ptr<RecordingSink> openSink(const std::string& file) {
    if (file.empty()) {
        throw RecordingError("the file to record into has no name");
    }
    struct stat status {};
    if (::stat(file.c_str(), &status) == 0) {
        if (isNull(status)) {
            return std::make_unique<NullSink>();
        }
        if (!S_ISREG(status.st_mode)) {
            throw RecordingError(fmt::format("{}: is {}; a recording goes into a file, or to /dev/null to keep nothing",
                                             file, kindOf(status)));
        }
    }
    return std::make_unique<RecordingFile>(file);
}

size_t chunkSamples(const ChannelInfo& info) {
    return std::clamp(static_cast<size_t>(toHz(info.sampleRate) / 4.0), minChunkSamples,
                      maxChunkBytes / info.sampleSize);
}

}  // namespace zornhost
