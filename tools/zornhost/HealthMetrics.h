#pragma once

#include <functional>
#include <memory>
#include <string>

#include "tools/zornhost/HealthRules.h"

namespace zornhost {

// The instrument's figures for Prometheus (text format 0.0.4,
// https://prometheus.io/docs/instrumenting/exposition_formats), at /metrics of an address. Each request looks anew, on
// a thread of the endpoint; figures that can't be had leave kestrix_up at 0 and nothing else.
class HealthEndpoint {
public:
    // `address`: "127.0.0.1:9100", "0.0.0.0:9100", or a port alone for the loopback. Raises std::runtime_error when
    // nothing can be served there.
    HealthEndpoint(const std::string& address, std::function<HealthFigures()> source, HealthLimits limits);
    ~HealthEndpoint();
    HealthEndpoint(const HealthEndpoint&) = delete;
    HealthEndpoint& operator=(const HealthEndpoint&) = delete;

    // "127.0.0.1:9100"; the port that was found when 0 was asked for.
    const std::string& address() const { return address_; }

private:
    class Collector;
    std::string address_;
    std::shared_ptr<Collector> collector_;
    class Server;
    std::unique_ptr<Server> server_;
};

}  // namespace zornhost
