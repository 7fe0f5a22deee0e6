#pragma once

#include "simulator/preload/Paths.h"

namespace kestrixsim {

// Files of sensors are plain ones in the root folder, written anew for each open. These are no calls of a device: other
// plain files of the instrument pass at once.
class SensorFile {
public:
    SensorFile() = delete;

    // Before a plain file of the instrument is opened for reading: 0 or a negative errno. Takes as long as the sensor.
    static int refresh(const Location& location);
    // The same for a question about its path: whether it is there, with `permission` whether it may be read.
    static int check(const Location& location, bool permission);
};

}  // namespace kestrixsim
