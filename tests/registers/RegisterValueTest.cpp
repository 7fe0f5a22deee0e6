#include "libraries/devices/embedded/RegisterValue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "libraries/devices/embedded/RegisterDevice.h"
#include "tests/registers/FailureOf.h"
#include "tests/registers/FakeAccess.h"

namespace {

using namespace Harvane::ZornLib::Devices::Embedded;
using kestrixtest::failureOf;
using kestrixtest::FakeAccess;
using Accesses = std::vector<FakeAccess::Access>;
using Bytes = std::vector<unsigned char>;

template <typename T>
struct Block final : RegisterDevice<T> {
    Block(bool endianness, bool isRegisterValueType, std::shared_ptr<IRegisterAccess> access)
        : RegisterDevice<T>(0x100, endianness, isRegisterValueType, std::move(access)) {}
};

struct WordField : testing::Test {
    std::shared_ptr<FakeAccess> access = std::make_shared<FakeAccess>();
    Block<unsigned int> block{true, false, access};
};

struct ByteField : testing::Test {
    std::shared_ptr<FakeAccess> access = std::make_shared<FakeAccess>();
    Block<unsigned char> block{false, false, access};
};

TEST_F(WordField, writeChangesItsBitsAndNoOthers) {
    // reads: one for each end that lies inside the word.
    const std::tuple<uint64_t, uint64_t, uint32_t, uint32_t, uint32_t, size_t> cases[] = {
        {0, 32, 0x12345678, 0xFFFFFFFF, 0x12345678, 0},
        {31, 1, 1, 0xFFFFFFFE, 0xFFFFFFFF, 1},
        {31, 1, 0, 0xFFFFFFFF, 0xFFFFFFFE, 1},
        {0, 1, 1, 0x00000000, 0x80000000, 1},
        {26, 6, 85, 0xABCDEFC0, 0xABCDEFD5, 1},  // cut to 21
        {5, 27, static_cast<uint32_t>(-936), 0xF8000000, 0xFFFFFC58, 1},
        {0, 14, 0x2AAA, 0x00000000, 0xAAA80000, 1},
        {0, 12, 0xABC, 0x000FFFFF, 0xABCFFFFF, 1},
        {14, 4, 0xF, 0x00000000, 0x0003C000, 2},
        {7, 10, 0x3FF, 0x00000000, 0x01FF8000, 2},
        {16, 16, 0xBEEF, 0xFFFF0000, 0xFFFFBEEF, 1},
        {1, 31, 0x7FFFFFFF, 0x00000000, 0x7FFFFFFF, 1},
    };
    for (const auto& [bit, bits, value, before, after, reads] : cases) {
        SCOPED_TRACE(std::to_string(bit) + " " + std::to_string(bits));
        RegisterValue<unsigned int> field(&block, 8, bit, bits, "", false);
        access->setWord(0x108, before);
        access->accesses.clear();
        field.write(value);
        EXPECT_EQ(access->word(0x108), after);
        Accesses expected(reads, {false, 0x108, 4});
        expected.push_back({true, 0x108, 4});
        EXPECT_EQ(access->accesses, expected);
        const auto mask = static_cast<uint32_t>((1ull << bits) - 1);
        EXPECT_EQ(field.read(), value & mask);
        access->setWord(0x108, ~after);
        EXPECT_EQ(field.read(), ~value & mask);
        block.getRegisters().clear();
    }
}

TEST_F(WordField, readOnlyFieldRefusesEveryWrite) {
    RegisterValue<unsigned int> field(&block, 0, 0, 32, "VER", true);
    EXPECT_EQ(failureOf([&] { field.write(1); }), "Read only register access");
    EXPECT_EQ(failureOf([&] { field.reset(); }), "Read only register access");
    EXPECT_TRUE(access->accesses.empty());
    access->setWord(0x100, 0x01020304);
    EXPECT_EQ(field.read(), 0x01020304u);
}

TEST_F(WordField, constructionIsRefusedInTheOrderOfTheChecks) {
    RegisterValue<unsigned char> first(&block, 4, 8, 8, "TSTAT", false);
    EXPECT_EQ(failureOf([&] { RegisterValue<bool>(nullptr, 0, 0, 0, "", false); }), "Wrong bit(s) size");
    EXPECT_EQ(failureOf([&] { RegisterValue<unsigned char>(&block, 4, 8, 9, "", false); }), "Wrong bit(s) size");
    EXPECT_EQ(failureOf([&] { RegisterValue<bool>(nullptr, 4, 8, 1, "", false); }), "Device is not assiged");
    const std::tuple<uint64_t, uint64_t, uint64_t, bool> cases[] = {
        {4, 8, 8, true},   {4, 15, 8, true}, {4, 1, 8, true},  {4, 4, 16, true}, {4, 10, 2, true},
        {4, 16, 8, false}, {4, 0, 8, false}, {0, 8, 8, false}, {8, 8, 8, false},
    };
    for (const auto& [address, bit, bits, overlaps] : cases) {
        const auto make = [&, at = address, first = bit, count = bits] {
            const RegisterValue<unsigned short> value(&block, at, first, count, "", false);
            block.getRegisters().pop_back();
        };
        EXPECT_EQ(failureOf(make), overlaps ? "Overlapping register value" : "no failure") << bit;
    }
    EXPECT_EQ(block.getRegisters(), std::vector<IRegisterValue*>{&first});
    EXPECT_EQ(block.FindRegisterValueInRange(4, 15, 1), &first);
    EXPECT_EQ(block.FindRegisterValueInRange(4, 16, 1), nullptr);
}

TEST_F(WordField, textNamesPlaceAndValue) {
    RegisterValue<unsigned int> named(&block, 0x14, 3, 29, "FQREG", true);
    RegisterValue<bool> unnamed(&block, 0x14, 0, 1, "", true);
    access->setWord(0x114, 0x8000ABCD);
    EXPECT_EQ(block.toString(),
              "Registers\n"
              "Address: 0x00000014; Bit: 3; Value: 0x0000ABCD; Name: FQREG\n"
              "Address: 0x00000014; Bit: 0; Value: 0x00000001\n");
}

TEST_F(ByteField, severalBytesComeMostSignificantFirstFromConsecutiveAddresses) {
    RegisterValue<unsigned long> serial(&block, 4, 0, 64, "SN", false);
    RegisterValue<unsigned long> mac(&block, 0xFA, 0, 48, "MAC", true);
    RegisterValue<unsigned int> key(&block, 1, 0, 24, "Key", false);
    RegisterValue<long> date(&block, 0x18, 0, 64, "AdjustmentDate", false);
    access->setBytes(0x100, {9, 0xFA, 0xF3, 0x20, 1, 2, 3, 4, 5, 6, 7, 0x2A});
    access->setBytes(0x1FA, {0xA0, 1, 2, 3, 4, 0xB5});

    EXPECT_TRUE(serial.whole());
    EXPECT_EQ(serial.read(), 0x010203040506072Aul);
    Accesses eight;
    for (uint64_t address = 0x104; address < 0x10C; ++address) {
        eight.push_back({false, address, 1});
    }
    EXPECT_EQ(access->accesses, eight);

    access->accesses.clear();
    EXPECT_FALSE(mac.whole());
    EXPECT_EQ(mac.read(), 0xA001020304B5ul);
    EXPECT_EQ(access->accesses.size(), 6u);

    access->accesses.clear();
    EXPECT_EQ(key.read(), 0xFAF320u);
    key.write(0x12010203);
    EXPECT_EQ(access->bytes(0x100, 5), (Bytes{9, 1, 2, 3, 1}));
    // Both ends lie on a byte border: three reads of read() and three writes, nothing else.
    EXPECT_EQ(access->accesses.size(), 6u);

    date.write(-2);
    EXPECT_EQ(date.read(), -2);
}

TEST_F(ByteField, fieldOverTwoWordsKeepsWhatLiesAroundIt) {
    RegisterValue<unsigned short> field(&block, 0, 3, 10, "", false);
    access->setBytes(0x100, {0xFF, 0xFF});
    field.write(0);
    EXPECT_EQ(access->bytes(0x100, 2), (Bytes{0xE0, 0x07}));
    field.write(0x3FF);
    EXPECT_EQ(field.read(), 0x3FF);
}

// Words of the value's size on a 16-bit block, both flags set: the first byte on the bus is the low byte.
TEST(ValueTypeBlock, wordsHaveTheSizeOfTheValue) {
    auto access = std::make_shared<FakeAccess>();
    Block<unsigned short> block(true, true, access);
    RegisterValue<unsigned short> temperature(&block, 0, 0, 16, "Temp", false);
    RegisterValue<unsigned char> config(&block, 1, 0, 8, "Config", false);
    access->setCell(0x100, {0x7F, 0xF0});
    EXPECT_EQ(temperature.read(), 0xF07F);
    temperature.write(0x1234);
    EXPECT_EQ(access->cell(0x100, 2), (Bytes{0x34, 0x12}));

    access->accesses.clear();
    EXPECT_TRUE(config.whole());
    config.write(0x60);
    EXPECT_EQ(access->cell(0x101, 1), Bytes{0x60});
    EXPECT_EQ(access->accesses, (Accesses{{true, 0x101, 1}}));
}

// Without value-type words the block's own word is swapped, with them what was asked for; odd sizes are left alone.
TEST(Endianness, swapsSoManyBytesOfAnAccess) {
    const std::tuple<bool, bool, size_t, size_t> cases[] = {
        {true, false, 8, 2}, {true, false, 2, 2}, {true, true, 2, 2},  {true, true, 3, 0},
        {true, true, 4, 4},  {true, true, 8, 8},  {false, true, 8, 0},
    };
    for (const auto& [endianness, isRegisterValueType, size, swapped] : cases) {
        SCOPED_TRACE(size);
        auto access = std::make_shared<FakeAccess>();
        Block<unsigned short> block(endianness, isRegisterValueType, access);
        Bytes data{1, 2, 3, 4, 5, 6, 7, 8};
        Bytes expected = data;
        std::reverse(expected.begin(), expected.begin() + static_cast<std::ptrdiff_t>(swapped));
        block.write(0, data.data(), size);
        expected.resize(size);
        EXPECT_EQ(access->cell(0x100, size), expected);
    }
}

}  // namespace
