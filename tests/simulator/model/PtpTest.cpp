#include <gtest/gtest.h>

#include "simulator/model/PtpDaemon.h"

using namespace kestrixsim;

namespace {

using Bytes = std::vector<uint8_t>;

// The daemon of a clock 02A0B1.FFFE.C2D3E4 at the instrument's second 10, asked as the module asks.
struct PtpDaemonTest : testing::Test {
    PtpDaemonTest() {
        daemon_.start("slave");
        now_ = 10.25;
    }

    static Bytes request(uint16_t id) {
        Bytes bytes(54, 0);
        const std::pair<size_t, uint8_t> fields[] = {
            {0, 0x0D}, {1, 2},     {3, 54}, {29, 1}, {30, 0x12},    {31, 0x34},
            {32, 4},   {33, 0x7F}, {49, 1}, {51, 2}, {52, id >> 8}, {53, static_cast<uint8_t>(id)}};
        for (const auto& [at, value] : fields) {
            bytes[at] = value;
        }
        std::fill(bytes.begin() + 34, bytes.begin() + 44, uint8_t{0xFF});
        return bytes;
    }

    std::vector<Bytes> ask(const Bytes& bytes) {
        daemon_.receive("client", bytes.data(), bytes.size());
        std::vector<Bytes> replies;
        for (const PtpDatagram& reply : daemon_.due()) {
            EXPECT_EQ(reply.client, "client");
            replies.push_back(reply.bytes);
        }
        return replies;
    }

    double now_ = 0.0;
    Clock clock_{1.0, [this] { return now_; }};
    Faults faults_{clock_};
    const uint8_t networkAddress_[6] = {0x02, 0xA0, 0xB1, 0xC2, 0xD3, 0xE4};
    PtpDaemon daemon_{clock_, faults_, {}, networkAddress_, 0x18867251F555CD15 - 10'000'000'000};
};

const Bytes header = {0x0d, 2,    0, 0, 0,    0,    0,    0,    0,    0,    0,    0,    0, 0, 0,    0,
                      0,    0,    0, 0, 0x02, 0xa0, 0xb1, 0xff, 0xfe, 0xc2, 0xd3, 0xe4, 0, 1, 0x12, 0x34,
                      4,    0x7f, 0, 0, 0,    0,    0,    0,    0,    0,    0,    1,    0, 0, 2,    0};

Bytes reply(uint8_t length, const Bytes& rest) {
    Bytes bytes = header;
    bytes[3] = length;
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    return bytes;
}

TEST_F(PtpDaemonTest, BytesOfTheReplies) {
    EXPECT_EQ(ask(request(0x2004)),
              (std::vector<Bytes>{
                  reply(0x50, {0, 1, 0, 0x1c, 0x20, 0x04, 0x02, 0xa0, 0xb1, 0xff, 0xfe, 0xc2, 0xd3, 0xe4, 0, 1,
                               9, 0, 0, 0,    0,    0,    4,    0xd2, 0,    0,    1,    3,    0,    1,    0, 2})}));
    EXPECT_EQ(ask(request(0xC000)),
              (std::vector<Bytes>{
                  reply(0x68, {0,    1,    0,    0x34, 0xc0, 0,    0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xdb,
                               0x18, 0x86, 0x72, 0x51, 0xf5, 0x55, 0xcd, 0x15, 0,    0,    0,    0,    0,    0,
                               0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
                               0,    0,    0,    0,    0,    1,    0x02, 0x11, 0x22, 0x33, 0xff, 0xfe, 0x44, 0x55})}));
    EXPECT_EQ(ask(request(0x2000)), (std::vector<Bytes>{reply(0x3c, {0, 2, 0, 8, 0, 2, 0x20, 0, 0, 0, 0, 0})}))
        << "no such id";
}

TEST_F(PtpDaemonTest, WhatIsNoQuestionIsIgnored) {
    const std::pair<size_t, uint8_t> changes[] = {{0, 0x0C}, {1, 1},  {3, 53}, {4, 1},
                                                  {46, 1},   {49, 2}, {51, 4}, {51, 1}};
    for (const auto& [at, value] : changes) {
        Bytes bytes = request(0x2004);
        bytes[at] = value;
        EXPECT_TRUE(ask(bytes).empty()) << at;
    }
    for (size_t size = 0; size < 54; ++size) {
        Bytes bytes = request(0x2004);
        bytes.resize(size);
        EXPECT_TRUE(ask(bytes).empty()) << size;
    }
    EXPECT_EQ(daemon_.requests().size(), 62u);
}

}  // namespace
