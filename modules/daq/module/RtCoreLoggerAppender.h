#pragma once

#include <string>

#include "modules/daq/objectmodel/Log.h"

namespace Harvane::RT::Modules::Daq {

// Passes the module's messages on to a logger of the host, as "[function:line] message". Any thread.
class RtCoreLoggerAppender : public plog::IAppender {
public:
    explicit RtCoreLoggerAppender(std::string loggerName);

    void write(const plog::Record& record) override;

private:
    std::string loggerName_;
};

}  // namespace Harvane::RT::Modules::Daq
