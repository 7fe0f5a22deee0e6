#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "libraries/protocols/ptp/PTPApi.h"
#include "libraries/protocols/ptp/config.h"
#include "libraries/protocols/ptp/pmc.h"
#include "libraries/protocols/ptp/replies.h"
#include "simulator/preload/Control.h"

using namespace Harvane::Ptp;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes fromHex(const std::string& text) {
    Bytes bytes;
    std::string digits;
    for (const char c : text) {
        if (c != ' ' && c != '|') {
            digits += c;
        }
        if (digits.size() == 2) {
            bytes.push_back(static_cast<uint8_t>(std::stoi(digits, nullptr, 16)));
            digits.clear();
        }
    }
    return bytes;
}

const std::string zeros8 = "00 00 00 00 00 00 00 00 ";
const std::string ones8 = "FF FF FF FF FF FF FF FF ";

// ---- Requests ------------------------------------------------------------------------------------------------------

struct Requests : testing::Test {
    Requests() : instrument_(kestrixsim::reset({})) {
        for (const char* argument : {"slave", "restart"}) {
            instrument_.runCommand(std::string("/opt/harvane/scripts/ptp_control.sh ") + argument);
        }
    }

    static std::string request(const std::string& sequence, const std::string& id) {
        return "0D 02 00 36 00 " + zeros8 + "00 00 00 00 00 00 00 " + zeros8 + "00 01 " + sequence + " 04 7F " + ones8 +
               "FF FF 00 00 00 00 00 01 00 02 " + id;
    }

    kestrixsim::Instrument& instrument_;
};

TEST_F(Requests, OfTheModule) {
    PTPApi api({});
    EXPECT_TRUE(api.port_state() && api.port_identity() && api.gm_identity() && api.gm_present());
    EXPECT_EQ(instrument_.ptpRequests(),
              (std::vector<Bytes>{fromHex(request("00 00", "20 04")), fromHex(request("00 01", "20 04")),
                                  fromHex(request("00 02", "C0 00")), fromHex(request("00 03", "C0 00"))}));
}

TEST_F(Requests, CarryWhatTheClientWasMadeWith) {
    const std::unique_ptr<config, decltype(&config_destroy)> settings(config_create(), &config_destroy);
    const std::string path = "/var/run/ptpapi." + std::to_string(getpid());
    const std::unique_ptr<pmc, decltype(&pmc_destroy)> client(
        pmc_create(settings.get(), TRANS_UDS, path.c_str(), 3, 5, 0xA0, 0), &pmc_destroy);
    ASSERT_NE(client, nullptr);
    const std::pair<const char*, int> commands[] = {
        {"GET PORT_DATA_SET", 0},  {"  g  po", 0},         {"get TIME_STATUS_NPX", -1}, {"GET", -1}, {"", -1},
        {"SET PORT_DATA_SET", -1}, {"Get time_status", 0}, {"GETS PORT_DATA_SET", -1},
    };
    for (const auto& [command, result] : commands) {
        EXPECT_EQ(pmc_do_command(client.get(), command), result) << command;
    }
    // With room for the data, which has the answer's size and is 0.
    const auto expected = [](const std::string& length, const std::string& sequence, const std::string& tlv,
                             size_t data) {
        Bytes bytes = fromHex("AD 02 " + length + "05 " + zeros8 + "00 00 00 00 00 00 00 " + zeros8 + "00 01 00 " +
                              sequence + "04 7F " + ones8 + "FF FF 03 03 00 00 00 01 " + tlv);
        bytes.resize(bytes.size() + data);
        return bytes;
    };
    EXPECT_EQ(instrument_.ptpRequests(), (std::vector<Bytes>{expected("00 50 ", "00 ", "00 1C 20 04", 26),
                                                             expected("00 50 ", "01 ", "00 1C 20 04", 26),
                                                             expected("00 68 ", "02 ", "00 34 C0 00", 50)}));
    EXPECT_EQ(pmc_recv(client.get()), nullptr) << "none of another domain is answered";
    EXPECT_EQ(pmc_create(settings.get(), static_cast<transport_type>(1), path.c_str(), 0, 0, 0, 1), nullptr);
}

// ---- Replies -------------------------------------------------------------------------------------------------------

const std::string portReply =
    "0d 02 00 50 00 00 00 00 00 00 00 00 00 00 00 00 | 00 00 00 00 02 a0 b1 ff fe c2 d3 e4 00 01 00 07"
    "04 7f 00 00 00 00 00 00 00 00 00 01 00 00 02 00 | 00 01 00 1c 20 04 02 a0 b1 ff fe c2 d3 e4 00 01"
    "09 00 00 00 00 00 04 d2 00 00 01 03 00 01 00 02";
const std::string timeReply =
    "0d 02 00 68 00 00 00 00 00 00 00 00 00 00 00 00 | 00 00 00 00 02 a0 b1 ff fe c2 d3 e4 00 01 00 07"
    "04 7f 00 00 00 00 00 00 00 00 00 01 00 00 02 00 | 00 01 00 34 c0 00 ff ff ff ff ff ff ff db 18 86"
    "72 51 f5 55 cd 15 00 00 00 00 00 00 00 00 00 00 | 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01"
    "02 11 22 33 ff fe 44 55";

// What becomes of a datagram: the result of its check, and whether either record takes it. Only what arrived may be
// read, so all that lies behind it in the buffer looks like more of the best.
std::string outcome(const Bytes& bytes, PortDataSet& port, TimeStatus& time) {
    const std::unique_ptr<ptp_message, decltype(&msg_put)> message(msg_allocate(), &msg_put);
    message->wire.fill(0);
    const size_t kept = std::min(bytes.size(), message->wire.size());
    std::copy_n(bytes.begin(), kept, message->wire.begin());
    const int result = msg_post_recv(message.get(), static_cast<ssize_t>(bytes.size()));
    if (result != 0) {
        return result == -EBADMSG ? "bad" : result == -EPROTO ? "ignored" : "?";
    }
    const bool isPort = port.parse(message.get());
    const bool isTime = time.parse(message.get());
    return isPort && isTime ? "both" : isPort ? "port" : isTime ? "time" : "other";
}

TEST(Replies, AreTakenApartWithinWhatArrived) {
    const Bytes port = fromHex(portReply);
    const Bytes time = fromHex(timeReply);
    const auto with = [](Bytes bytes, size_t at, const std::string& hex) {
        const Bytes other = fromHex(hex);
        std::copy(other.begin(), other.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
        return bytes;
    };
    const auto cut = [](Bytes bytes, size_t size) {
        bytes.resize(size);
        return bytes;
    };
    const auto plus = [](Bytes bytes, const std::string& hex) {
        const Bytes other = fromHex(hex);
        bytes.insert(bytes.end(), other.begin(), other.end());
        return bytes;
    };
    const Bytes head = cut(port, 48);
    const struct {
        const char* what;
        Bytes bytes;
        const char* outcome;
    } cases[] = {
        {"as it should be", port, "port"},
        {"as it should be", time, "time"},
        {"nothing", {}, "bad"},
        {"no header", cut(port, 33), "bad"},
        {"a header of another type is none of ours", cut(with(port, 0, "0b"), 34), "other"},
        {"no management fields", cut(port, 47), "bad"},
        {"no TLV", head, "other"},
        {"less than a TLV", cut(port, 51), "other"},
        {"a TLV without what it announces", cut(port, 52), "bad"},
        {"cut", cut(port, 79), "bad"},
        {"cut", cut(time, 102), "bad"},
        {"padding", plus(port, "00 00 00"), "port"},
        {"another record behind it", plus(port, "00 02 00 04 01 02 03 04"), "port"},
        {"one that runs past the end behind it", plus(port, "00 02 00 06 01 02 03 04"), "bad"},
        {"an odd one behind it", plus(port, "00 02 00 03 01 02 03 04"), "bad"},
        {"not the first", plus(plus(head, "00 02 00 00"), portReply.substr(portReply.find("00 01 00 1c"))), "other"},
        {"version 1", with(port, 1, "01"), "ignored"},
        {"version 2.1", with(port, 1, "12"), "port"},
        {"any transport", with(port, 0, "fd"), "port"},
        {"a length that says nothing", with(port, 2, "ff ff"), "port"},
        {"odd", with(cut(port, 79), 50, "00 1b"), "bad"},
        {"an id alone, as in a request", with(cut(port, 54), 50, "00 02"), "other"},
        {"no id", with(cut(port, 52), 50, "00 00"), "bad"},
        {"too little data", with(cut(port, 78), 50, "00 1a"), "bad"},
        {"too much data", with(plus(port, "00 00"), 50, "00 1e"), "bad"},
        {"the data of the other", with(port, 52, "c0 00"), "bad"},
        {"the data of the other", with(time, 52, "20 04"), "bad"},
        {"another id", with(port, 52, "20 00"), "other"},
        {"a refusal", with(port, 48, "00 02"), "other"},
        {"as long as the buffer", cut(port, 1500), "port"},
        {"longer than the buffer", cut(port, 1501), "bad"},
    };
    for (const auto& each : cases) {
        PortDataSet set;
        TimeStatus status;
        EXPECT_EQ(outcome(each.bytes, set, status), each.outcome) << each.what << ", " << each.bytes.size();
    }
    PortDataSet set;
    TimeStatus status;
    outcome(port, set, status);
    outcome(time, set, status);
    for (const auto& each : cases) {
        outcome(each.bytes, set, status);
        EXPECT_EQ(pid2str(set.identity()) + " " + std::to_string(set.state()), "02a0b1.fffe.c2d3e4-1 9") << each.what;
        EXPECT_EQ(cid2str(status.grandmaster()), "021122.33ff.fe4455") << each.what;
        EXPECT_TRUE(status.grandmasterPresent());
    }
    const std::pair<const char*, int> states[] = {{"00", 0}, {"01", 1}, {"09", 9}, {"0a", 0}, {"ff", 0}};
    for (const auto& [byte, state] : states) {
        EXPECT_EQ(outcome(with(port, 64, byte), set, status), "port");
        EXPECT_EQ(set.state(), state);
    }
    for (const char* present : {"80 00 00 00", "00 01 00 00", "00 00 00 00"}) {
        EXPECT_EQ(outcome(with(time, 92, present), set, status), "time");
        EXPECT_EQ(status.grandmasterPresent(), std::string(present) != "00 00 00 00");
    }
}

// ---- Settings ------------------------------------------------------------------------------------------------------

TEST(Settings, HaveSectionsRangesAndTypes) {
    const std::unique_ptr<config, decltype(&config_destroy)> settings(config_create(), &config_destroy);
    config* all = settings.get();
    const std::tuple<const char*, int, int> items[] = {{"verbose", 0, 1},
                                                       {"use_syslog", 1, 1},
                                                       {"logging_level", 6, 7},
                                                       {"domainNumber", 0, 127},
                                                       {"transportSpecific", 0, 15}};
    for (const auto& [name, usual, highest] : items) {
        SCOPED_TRACE(name);
        EXPECT_EQ(config_get_int(all, nullptr, name), usual);
        EXPECT_EQ(config_set_section_int(all, nullptr, name, highest + 1), -1);
        EXPECT_EQ(config_set_section_int(all, nullptr, name, -1), -1);
        EXPECT_EQ(config_get_int(all, "global", name), usual);
        EXPECT_EQ(config_set_section_int(all, "eth0", name, highest), 0);
        EXPECT_EQ(config_get_int(all, nullptr, name), usual);
        EXPECT_EQ(config_get_int(all, "eth0", name), highest);
        EXPECT_EQ(config_get_int(all, "eth1", name), usual);
    }
    EXPECT_STREQ(config_get_string(all, "eth0", "uds_address"), "/var/run/ptp4l");
    EXPECT_DEATH(config_get_int(all, nullptr, "nothing"), "bug: config option nothing missing!");
    EXPECT_DEATH(config_get_int(all, nullptr, "uds_address"), "bug: config option uds_address type mismatch!");
    EXPECT_DEATH(config_get_string(all, nullptr, "verbose"), "bug: config option verbose type mismatch!");
}

}  // namespace
