#include "modules/daq/daqdevices/kestrix/src/FirstFailure.h"

#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

namespace Harvane::RT::Modules::Daq {

void FirstFailure::note(const char* what) noexcept {
    if (first_) {
        logFailure(what);
    } else {
        first_ = std::current_exception();
    }
}

void logFailure(const char* what) noexcept {
    try {
        try {
            throw;
        } catch (const std::exception& error) {
            KESTRIX_LOG(6, "{}: {}", what, error.what());
        } catch (...) {
            KESTRIX_LOG(6, "{}", what);
        }
    } catch (...) {
        // No memory for the message either.
    }
}

}  // namespace Harvane::RT::Modules::Daq
