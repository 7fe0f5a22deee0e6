#include "modules/daq/module/LoggerConnection.h"

#include <zorn/logger/logger.h>
#include <zorn/types/exceptions.h>
#include <zorn/types/ptr.h>

#include "libraries/utils/ThreadEx.h"
#include "modules/daq/module/RtCoreLoggerAppender.h"
#include "modules/daq/objectmodel/Log.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

namespace {

constexpr const char* loggerName = "DaqModule";

ErrCode askForLogger(ObjectPtr<ILogger>& logger) {
    ILogger* found = nullptr;
    const ErrCode code = zornGetLogger(loggerName, &found);
    logger = ObjectPtr<ILogger>::take(found);
    return code;
}

}  // namespace

void connectLogger() {
    ObjectPtr<ILogger> logger;
    ErrCode code = askForLogger(logger);
    if (code == Errors::NotFound) {
        zornClearErrorInfo();
        checkErrorInfo(zornCreateLogger(loggerName, 1));
        code = askForLogger(logger);
    }
    checkErrorInfo(code);
    checkErrorInfo(logger->setLevel(0));

    static RtCoreLoggerAppender appender(loggerName);
    [[maybe_unused]] static auto& plogLogger = plog::init<0>(plog::verbose, &appender);

    Utils::Threading::ThreadEx::setReporter(
        [](const char* thread, const std::string& text) { LOG_WARNING << "Thread \"" << thread << "\": " << text; });
}

}  // namespace Harvane::RT::Modules::Daq
