#include "tools/zornhost/InstrumentService.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>

namespace zornhost {

InstrumentService::InstrumentService(Session& session, InstrumentLock* lock, Output& output,
                                     const std::string& holder) {
    try {
        clock_.emplace(session);
    } catch (const std::exception& failure) {
        output.message(fmt::format("zornhost: the clock is not watched: {}", failure.what()));
    }
    health_.emplace(session, clock(), holder);
    if (lock == nullptr) {
        return;
    }
    try {
        const std::string file = InstrumentSocket::defaultFile();
        if (file.empty()) {
            throw std::runtime_error("there is no runtime folder that can be written (XDG_RUNTIME_DIR or /run)");
        }
        socket_.emplace(file, [this](const std::string& request) { return answer(request); });
        lock->announce(file);
    } catch (const std::exception& failure) {
        output.message(fmt::format("zornhost: \"zornhost clock\" and \"zornhost status\" can't ask this process: {}",
                                   failure.what()));
    }
}

std::string InstrumentService::answer(const std::string& request) const {
    if (request == "status") {
        return toJson(health_->figures()).dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    }
    constexpr std::string_view clockRequest = "clock";
    if (request.starts_with(clockRequest) && clock_) {
        const size_t rest = std::min(request.size(), clockRequest.size() + 1);
        return clock_->answer(request.substr(rest));
    }
    throw std::runtime_error(fmt::format("\"{}\" is nothing that this process could tell", request));
}

}  // namespace zornhost
