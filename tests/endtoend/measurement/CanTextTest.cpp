#include <gtest/gtest.h>

#include <random>

#include "simulator/model/CanFrame.h"
#include "tools/zornhost/CanFrame.h"
#include "tools/zornhost/Routes.h"

using namespace zornhost;

namespace {

std::string refusal(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& failure) {
        return failure.what();
    }
    return "none";
}

}  // namespace

TEST(CanText, FramesAreReadAndWritten) {
    for (const char* text : {"123#", "000#00", "7FF#DEADBEEF", "00000800#01", "1FFFFFFF#0011223344556677"}) {
        EXPECT_EQ(frameText(frameFromText(text)), text);
    }
    EXPECT_EQ(frameText(frameFromText("00000123#de.ad")), "123#DEAD") << "a CAN channel keeps no flags";
    EXPECT_EQ(logLine(1436509052249713, "can0", frameFromText("12345#01")), "(1436509052.249713) can0 00012345#01");
    for (const auto& [text, words] :
         std::initializer_list<std::pair<const char*, const char*>>{{"123", "no #"},
                                                                    {"#11", "identifier"},
                                                                    {"20000000#", "identifier"},
                                                                    {"12G#", "identifier"},
                                                                    {"123#1", "pairs"},
                                                                    {"123#.11", "pairs"},
                                                                    {"123#0x11", "pairs"},
                                                                    {"123#001122334455667788", "more than 8"},
                                                                    {"123##111", "more than 8"},
                                                                    {"123#R", "remote"}}) {
        EXPECT_NE(refusal([&] { frameFromText(text); }).find(words), std::string::npos) << text;
    }
}

TEST(CanText, FiltersPassWhatTheyName) {
    const CanFilter filter({"123", "200-2FF", "18FEF100:1FFFFF00"});
    for (const auto& [id, passes] : {std::pair{0x123u, true},
                                     {0x124u, false},
                                     {0x200u, true},
                                     {0x2FFu, true},
                                     {0x300u, false},
                                     {0x18FEF1A0u, true},
                                     {0x18FEF200u, false}}) {
        EXPECT_EQ(filter.passes(id), passes) << std::hex << id;
    }
    EXPECT_TRUE(CanFilter({}).passes(5));
    for (const char* text : {"", "x", "12-", "-12", "200-100", "1:2:3"}) {
        EXPECT_NE(refusal([&] { CanFilter({text}); }), "none") << text;
    }
}

// Counted twice: as the simulated wire does it, and as the load is computed of it.
TEST(CanText, BitsAreThoseOfTheWire) {
    std::mt19937 random(7);
    for (int i = 0; i < 5000; ++i) {
        CanFrame frame;
        frame.id = random() & (i % 2 == 0 ? 0x7FFu : 0x1FFFFFFFu);
        frame.length = static_cast<uint8_t>(random() % 9);
        kestrixsim::CanFrame wire;
        wire.id = frame.id | (frame.extended() ? kestrixsim::CanFrame::extended : 0);
        wire.length = frame.length;
        for (int n = 0; n < frame.length; ++n) {
            wire.data[n] = frame.data[n] = static_cast<uint8_t>(i % 3 == 0 ? 0 : random());
        }
        ASSERT_EQ(bitsOf(frame), static_cast<unsigned>(wire.bits() + kestrixsim::CanFrame::gapBits))
            << frameText(frame);
    }
}

TEST(RouteText, SaysWhatGoesWhere) {
    const Route can = routeFromText(" AI 1/Raw input->CAN Port 1  id 0x123 every 10 ");
    EXPECT_EQ(can.source + "|" + can.target, "AI 1/Raw input|CAN Port 1");
    EXPECT_TRUE(can.can);
    EXPECT_EQ(can.id, 0x123u);
    EXPECT_EQ(can.every, 10);
    EXPECT_EQ(routeFromText("a -> CAN Port 2 id 5").every, 1);
    const Route output = routeFromText("a -> AO 1 from range");
    EXPECT_FALSE(output.can);
    EXPECT_TRUE(output.byRange);
    EXPECT_EQ(output.target, "AO 1");
    EXPECT_FALSE(routeFromText("a -> AO 1").byRange);
    for (const auto& [text, words] : std::initializer_list<std::pair<const char*, const char*>>{
             {"", "no ->"},
             {"a b", "no ->"},
             {" -> AO 1", "a channel is missing"},
             {"a ->", "a channel is missing"},
             {"a -> CAN Port 1 every 10", "a message has an id"},
             {"a -> CAN Port 1 id 0x20000000", "no identifier"},
             {"a -> CAN Port 1 id x", "no identifier"},
             {"a -> CAN Port 1 id 1 every 0", "no number of cycles"}}) {
        EXPECT_NE(refusal([&] { routeFromText(text); }).find(words), std::string::npos)
            << text << ": " << refusal([&] { routeFromText(text); });
    }
}
