#include "libraries/protocols/ptp/PTPApi.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <mutex>

#include "libraries/protocols/ptp/config.h"
#include "libraries/protocols/ptp/pmc.h"
#include "libraries/protocols/ptp/print.h"
#include "libraries/protocols/ptp/replies.h"

using namespace Harvane::Ptp;

namespace {

using Message = std::unique_ptr<ptp_message, decltype(&msg_put)>;
using Clock = std::chrono::steady_clock;

constexpr int replyTimeMs = 100;
// A signal starts the wait for a reply anew. A program that is signalled all the time, by an interval timer or a
// profiler, would wait for ever where no daemon answers, with the lock of the timing held; ten waits are enough for a
// slow answer.
constexpr auto longestWait = std::chrono::seconds(1);

// Whether a socket with this name is in use, by this process or by another one.
bool isTaken(const char* path) {
    const int probe = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    const bool taken = ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
                       (errno != ENOENT && errno != ECONNREFUSED);
    ::close(probe);
    return taken;
}

// The client of a process has the name "/var/run/ptpapi.PID". The socket is made in place of what has that name, which
// is right for what a dead process left and wrong for the client of a second module in this one: answers for one would
// go to the other. So the second client is "/var/run/ptpapi.PID.2", and so on. Whoever listens there already is asked
// of the system, since two copies of this library in one process know nothing of each other.
std::string freePath() {
    constexpr int most = 64;
    const std::string first = "/var/run/ptpapi." + std::to_string(::getpid());
    std::string path = first;
    for (int number = 2; isTaken(path.c_str()); ++number) {
        if (number > most) {
            throw PTPApi::RuntimeError("unable to create pmc");
        }
        path = first + "." + std::to_string(number);
    }
    return path;
}

}  // namespace

class PTPApi::pimpl {
public:
    explicit pimpl(Config wanted) : config_(config_create(), &config_destroy), client_(nullptr, &pmc_destroy) {
        if (config_ == nullptr) {
            throw RuntimeError("unable to create configuration");
        }
        config_set_section_int(config_.get(), global_section, "verbose", wanted.verbose != 0 ? 1 : 0);
        config_set_section_int(config_.get(), global_section, "use_syslog", 0);
        config_set_section_int(config_.get(), global_section, "logging_level", std::clamp(wanted.logging_level, 0, 7));
        print_set_verbose(config_get_int(config_.get(), nullptr, "verbose"));
        print_set_syslog(config_get_int(config_.get(), nullptr, "use_syslog"));
        print_set_level(config_get_int(config_.get(), nullptr, "logging_level"));
        static std::mutex naming;  // from the look for a free name until it is taken
        const std::lock_guard lock(naming);
        client_.reset(pmc_create(
            config_.get(), TRANS_UDS, freePath().c_str(), 0,
            static_cast<uint8_t>(config_get_int(config_.get(), nullptr, "domainNumber")),
            static_cast<uint8_t>((config_get_int(config_.get(), nullptr, "transportSpecific") & 15) << 4), 1));
        if (client_ == nullptr) {
            throw RuntimeError("unable to create pmc");
        }
    }

    ~pimpl() { msg_cleanup(); }
    pimpl(const pimpl&) = delete;
    pimpl& operator=(const pimpl&) = delete;

    Result<const PortDataSet*> portDataSet() { return ask("GET PORT_DATA_SET", portDataSet_); }
    Result<const TimeStatus*> timeStatus() { return ask("GET TIME_STATUS_NP", timeStatus_); }

private:
    template <typename Record>
    Result<const Record*> ask(const char* command, Record& record) {
        Result<Message> reply = request(command);
        if (!reply) {
            return utils::make_unexpected(reply.error());
        }
        outOfStep_ = !record.parse(reply->get());
        if (outOfStep_) {
            return utils::make_unexpected(ErrorCondition::PARSE_ERROR);
        }
        return &record;
    }

    // A message may be null: something arrived that can't be read.
    Result<Message> request(const char* command) {
        pollfd wait{pmc_get_transport_fd(client_.get()), POLLIN | POLLPRI, 0};
        if (outOfStep_) {
            pmc_flush(client_.get());
        }
        // Whatever becomes of it: a late answer to the last request of this kind would do as well.
        pmc_do_command(client_.get(), command);
        const Clock::time_point end = Clock::now() + longestWait;
        int ready = 0;
        do {
            ready = ::poll(&wait, 1, replyTimeMs);
        } while (ready < 0 && errno == EINTR && Clock::now() < end);
        if (ready == 0 || (ready < 0 && errno == EINTR)) {
            return utils::make_unexpected(ErrorCondition::TIMEOUT);
        }
        if (ready < 0 || (wait.revents & wait.events) == 0) {
            return utils::make_unexpected(ErrorCondition::IO_ERROR);
        }
        return Message(pmc_recv(client_.get()), &msg_put);
    }

    // In this order: the client goes before what it was made from.
    std::unique_ptr<config, decltype(&config_destroy)> config_;
    std::unique_ptr<pmc, decltype(&pmc_destroy)> client_;
    PortDataSet portDataSet_;
    TimeStatus timeStatus_;
    // The last answer was to another question. One that came late, or twice, would otherwise leave each question with
    // the answer to the one before, for days.
    bool outOfStep_ = false;
};

PTPApi::PTPApi(Config config) : pimpl_(std::make_unique<pimpl>(config)) {}

PTPApi::~PTPApi() = default;

PTPApi::Result<PTPApi::PortState> PTPApi::port_state() {
    return pimpl_->portDataSet().map([](const PortDataSet* set) { return static_cast<PortState>(set->state()); });
}

PTPApi::Result<std::string> PTPApi::port_identity() {
    return pimpl_->portDataSet().map([](const PortDataSet* set) { return pid2str(set->identity()); });
}

PTPApi::Result<std::string> PTPApi::gm_identity() {
    return pimpl_->timeStatus().map([](const TimeStatus* status) { return cid2str(status->grandmaster()); });
}

PTPApi::Result<bool> PTPApi::gm_present() {
    return pimpl_->timeStatus().map([](const TimeStatus* status) { return status->grandmasterPresent(); });
}

std::string PTPApi::to_string(PortState state) {
    static constexpr std::array names = {"NONE",         "INITIALIZING", "FAULTY",      "DISABLED",
                                         "LISTENING",    "PRE_MASTER",   "MASTER",      "PASSIVE",
                                         "UNCALIBRATED", "SLAVE",        "GRAND_MASTER"};
    const auto number = static_cast<size_t>(state);
    return number < names.size() ? names[number] : "unknown";
}

std::string PTPApi::to_string(ErrorCondition error) {
    static constexpr std::array names = {"ok", "timeout", "io_error", "parse_error"};
    const auto number = static_cast<size_t>(error);
    return number < names.size() ? names[number] : "unknown";
}
