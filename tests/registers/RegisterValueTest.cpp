#include "libraries/devices/embedded/RegisterValue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>

#include "libraries/devices/embedded/RegisterDevice.h"
#include "tests/registers/FakeAccess.h"

namespace {

using namespace Harvane::ZornLib::Devices::Embedded;
using kestrixtest::FakeAccess;
using Accesses = std::vector<FakeAccess::Access>;

template <typename T>
class Block final : public RegisterDevice<T> {
public:
    Block(bool endianness, bool isRegisterValueType, std::shared_ptr<IRegisterAccess> access, uint32_t delayMs = 0)
        : RegisterDevice<T>(0x100, endianness, isRegisterValueType, std::move(access)) {
        this->setWriteDelay(delayMs);
    }
};

std::string failureOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const std::runtime_error& failure) {
        return failure.what();
    }
    return "no failure";
}

class WordField : public testing::Test {
protected:
    std::shared_ptr<FakeAccess> access = std::make_shared<FakeAccess>();
    Block<unsigned int> block{true, false, access};
};

TEST_F(WordField, lastBitIsBitZeroOfTheWord) {
    RegisterValue<bool> field(&block, 4, 31, 1, "ADCEN", false);
    access->setWord(0x104, 0xFFFFFFFE);
    EXPECT_FALSE(field.read());
    field.write(true);
    EXPECT_EQ(access->word(0x104), 0xFFFFFFFF);
    EXPECT_TRUE(field.read());
    field.reset();
    EXPECT_EQ(access->word(0x104), 0xFFFFFFFE);
}

TEST_F(WordField, wholeWordIsWrittenWithoutReading) {
    RegisterValue<unsigned int> field(&block, 8, 0, 32, "RSD", false);
    EXPECT_TRUE(field.whole());
    field.write(0x12345678);
    EXPECT_EQ(access->word(0x108), 0x12345678u);
    EXPECT_EQ(access->accesses, (Accesses{{true, 0x108, 4}}));
    EXPECT_EQ(field.read(), 0x12345678u);
}

TEST_F(WordField, valueIsCutToTheFieldAndTheRestOfTheWordStays) {
    RegisterValue<unsigned char> supply(&block, 8, 26, 6, "PSI", false);
    access->setWord(0x108, 0xABCDEFC0);
    supply.write(85);
    EXPECT_EQ(access->word(0x108), 0xABCDEFC0u | 21u);
    EXPECT_EQ(supply.read(), 21);
    // It ends with the word, so one read is enough.
    EXPECT_EQ(access->accesses, (Accesses{{false, 0x108, 4}, {true, 0x108, 4}, {false, 0x108, 4}}));

    RegisterValue<unsigned int> coefficient(&block, 12, 5, 27, "C5COEF", false);
    access->setWord(0x10C, 0xF8000000);
    coefficient.write(static_cast<unsigned int>(-936));
    EXPECT_EQ(access->word(0x10C), 0xF8000000u | 0x7FFFC58u);
}

TEST_F(WordField, fieldsAcrossByteBordersLandInTheirBits) {
    struct {
        uint64_t bit;
        uint64_t bits;
        uint32_t value;
        uint32_t word;  // of a word of zeros
    } const cases[] = {
        {0, 1, 1, 0x80000000},
        {0, 14, 0x2AAA, 0xAAA80000},
        {14, 4, 0xF, 0x0003C000},
        {7, 10, 0x3FF, 0x01FF8000},
        {16, 16, 0xBEEF, 0x0000BEEF},
        {1, 31, 0x7FFFFFFF, 0x7FFFFFFF},
        {4, 28, 0x1234567, 0x01234567},
    };
    uint64_t offset = 0;
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.bit);
        RegisterValue<unsigned int> field(&block, offset, entry.bit, entry.bits, "", false);
        access->setWord(0x100 + offset, 0);
        field.write(entry.value);
        EXPECT_EQ(access->word(0x100 + offset), entry.word);
        EXPECT_EQ(field.read(), entry.value);
        access->setWord(0x100 + offset, ~entry.word);
        EXPECT_EQ(field.read(), ~entry.value & static_cast<uint32_t>((1ull << entry.bits) - 1));
        offset += 4;
        block.getRegisters().clear();
    }
}

TEST_F(WordField, fieldFromBitZeroThatEndsInsideTheWordIsReadOnce) {
    RegisterValue<unsigned short> field(&block, 0, 0, 12, "", false);
    access->setWord(0x100, 0x000FFFFF);
    field.write(0xABC);
    EXPECT_EQ(access->word(0x100), 0xABCFFFFFu);
    EXPECT_EQ(access->accesses, (Accesses{{false, 0x100, 4}, {true, 0x100, 4}}));
}

TEST_F(WordField, readOnlyFieldRefusesEveryWrite) {
    RegisterValue<unsigned int> field(&block, 0, 0, 32, "VER", true);
    access->setWord(0x100, 0x01020304);
    EXPECT_EQ(failureOf([&] { field.write(1); }), "Read only register access");
    EXPECT_EQ(failureOf([&] { field.reset(); }), "Read only register access");
    EXPECT_TRUE(access->accesses.empty());
    EXPECT_EQ(field.read(), 0x01020304u);
}

TEST_F(WordField, constructionIsRefusedInTheOrderOfTheChecks) {
    RegisterValue<unsigned char> first(&block, 4, 8, 8, "TSTAT", false);
    EXPECT_EQ(failureOf([&] { RegisterValue<bool>(nullptr, 0, 0, 0, "", false); }), "Wrong bit(s) size");
    EXPECT_EQ(failureOf([&] { RegisterValue<unsigned char>(&block, 4, 8, 9, "", false); }), "Wrong bit(s) size");
    EXPECT_EQ(failureOf([&] { RegisterValue<bool>(nullptr, 4, 8, 1, "", false); }), "Device is not assiged");
    struct {
        uint64_t address;
        uint64_t bit;
        uint64_t bits;
        bool overlaps;
    } const cases[] = {
        {4, 8, 8, true},  {4, 15, 8, true}, {4, 1, 8, true},  {4, 4, 16, true}, {4, 10, 2, true},
        {4, 16, 8, false}, {4, 0, 8, false}, {0, 8, 8, false}, {8, 8, 8, false},
    };
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.bit);
        EXPECT_EQ(failureOf([&] {
                      RegisterValue<unsigned short>(&block, entry.address, entry.bit, entry.bits, "", false);
                      block.getRegisters().pop_back();
                  }),
                  entry.overlaps ? "Overlapping register value" : "no failure");
    }
    EXPECT_EQ(block.getRegisters(), std::vector<IRegisterValue*>{&first});
    EXPECT_EQ(block.FindRegisterValueInRange(4, 15, 1), &first);
    EXPECT_EQ(block.FindRegisterValueInRange(4, 16, 1), nullptr);
}

TEST_F(WordField, textNamesPlaceAndValue) {
    RegisterValue<unsigned int> named(&block, 0x14, 3, 29, "FQREG", true);
    RegisterValue<bool> unnamed(&block, 0x14, 0, 1, "", true);
    access->setWord(0x114, 0x8000ABCD);
    EXPECT_EQ(named.toString(), "Address: 0x00000014; Bit: 3; Value: 0x0000ABCD; Name: FQREG");
    EXPECT_EQ(unnamed.toString(), "Address: 0x00000014; Bit: 0; Value: 0x00000001");
    EXPECT_EQ(block.toString(), "Registers\n" + named.toString() + "\n" + unnamed.toString() + "\n");
}

TEST(ByteField, severalBytesComeMostSignificantFirstFromConsecutiveAddresses) {
    auto access = std::make_shared<FakeAccess>();
    Block<unsigned char> block(false, false, access);
    RegisterValue<unsigned long> serial(&block, 4, 0, 64, "SN", false);
    RegisterValue<unsigned long> mac(&block, 0xFA, 0, 48, "MAC", true);
    RegisterValue<unsigned int> key(&block, 1, 0, 24, "Key", false);
    access->setBytes(0x100, {9, 0xFA, 0xF3, 0x20, 1, 2, 3, 4, 5, 6, 7, 0x2A});
    access->setBytes(0x1FA, {0xA0, 1, 2, 3, 4, 0xB5});

    EXPECT_TRUE(serial.whole());
    EXPECT_EQ(serial.read(), 0x010203040506072Aul);
    Accesses eight;
    for (uint64_t address = 0x104; address < 0x10C; ++address)
        eight.push_back({false, address, 1});
    EXPECT_EQ(access->accesses, eight);

    access->accesses.clear();
    EXPECT_FALSE(mac.whole());
    EXPECT_EQ(mac.read(), 0xA001020304B5ul);
    EXPECT_EQ(access->accesses.size(), 6u);

    access->accesses.clear();
    EXPECT_EQ(key.read(), 0xFAF320u);
    key.write(0x12010203);
    EXPECT_EQ(access->cell(0x100), std::vector<unsigned char>{9});
    EXPECT_EQ(access->cell(0x101), std::vector<unsigned char>{1});
    EXPECT_EQ(access->cell(0x102), std::vector<unsigned char>{2});
    EXPECT_EQ(access->cell(0x103), std::vector<unsigned char>{3});
    EXPECT_EQ(access->cell(0x104), std::vector<unsigned char>{1});
    // Both ends lie on a byte border: three reads of read() and three writes, nothing else.
    EXPECT_EQ(access->accesses.size(), 6u);
}

TEST(ByteField, signedNumbersKeepTheirSign) {
    auto access = std::make_shared<FakeAccess>();
    Block<unsigned char> block(false, false, access);
    RegisterValue<long> date(&block, 0x18, 0, 64, "AdjustmentDate", false);
    date.write(-2);
    EXPECT_EQ(access->cell(0x118), std::vector<unsigned char>{0xFF});
    EXPECT_EQ(access->cell(0x11F), std::vector<unsigned char>{0xFE});
    EXPECT_EQ(date.read(), -2);
}

TEST(ByteField, fieldOverTwoWordsKeepsWhatLiesAroundIt) {
    auto access = std::make_shared<FakeAccess>();
    Block<unsigned char> block(false, false, access);
    RegisterValue<unsigned short> field(&block, 0, 3, 10, "", false);
    access->setBytes(0x100, {0xFF, 0xFF});
    field.write(0);
    EXPECT_EQ(access->cell(0x100), std::vector<unsigned char>{0xE0});
    EXPECT_EQ(access->cell(0x101), std::vector<unsigned char>{0x07});
    field.write(0x3FF);
    EXPECT_EQ(field.read(), 0x3FF);
}

TEST(ByteField, fieldFarFromItsAddressNeedsALongBuffer) {
    auto access = std::make_shared<FakeAccess>();
    Block<unsigned char> block(false, false, access);
    RegisterValue<unsigned short> field(&block, 0, 8 * 40, 16, "", false);
    access->setBytes(0x100 + 40, {0x12, 0x34});
    EXPECT_EQ(field.read(), 0x1234);
}

TEST(ByteField, writeDelayFollowsEveryByte) {
    auto access = std::make_shared<FakeAccess>();
    Block<unsigned char> block(false, false, access, 10);
    RegisterValue<unsigned int> field(&block, 0, 0, 32, "", false);
    const auto start = std::chrono::steady_clock::now();
    field.write(1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
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
    EXPECT_EQ(access->cell(0x100), (std::vector<unsigned char>{0x34, 0x12}));

    access->accesses.clear();
    EXPECT_TRUE(config.whole());
    config.write(0x60);
    EXPECT_EQ(access->cell(0x101), std::vector<unsigned char>{0x60});
    EXPECT_EQ(access->accesses, (Accesses{{true, 0x101, 1}}));
}

// Without value-type words the block's own word is swapped, with them what was asked for; odd sizes are left alone.
TEST(Endianness, swapsSoManyBytesOfAnAccess) {
    using Bytes = std::vector<unsigned char>;
    struct {
        bool endianness;
        bool isRegisterValueType;
        size_t size;
        Bytes result;
    } const cases[] = {
        {true, false, 8, {2, 1, 3, 4, 5, 6, 7, 8}},
        {true, false, 2, {2, 1, 3, 4, 5, 6, 7, 8}},
        {true, true, 2, {2, 1, 3, 4, 5, 6, 7, 8}},
        {true, true, 3, {1, 2, 3, 4, 5, 6, 7, 8}},
        {true, true, 4, {4, 3, 2, 1, 5, 6, 7, 8}},
        {true, true, 8, {8, 7, 6, 5, 4, 3, 2, 1}},
        {false, true, 8, {1, 2, 3, 4, 5, 6, 7, 8}},
    };
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.size);
        auto access = std::make_shared<FakeAccess>();
        Block<unsigned short> block(entry.endianness, entry.isRegisterValueType, access);
        Bytes data{1, 2, 3, 4, 5, 6, 7, 8};
        block.write(0, data.data(), entry.size);
        EXPECT_EQ(data, entry.result);
        EXPECT_EQ(access->cell(0x100), Bytes(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(entry.size)));
    }
}

TEST(Endianness, canBeChangedAfterwards) {
    auto access = std::make_shared<FakeAccess>();
    Block<unsigned int> block(true, false, access);
    RegisterValue<unsigned int> field(&block, 0, 0, 32, "", false);
    access->setWord(0x100, 0x11223344);
    EXPECT_EQ(field.read(), 0x11223344u);
    block.setEndianness(false);
    EXPECT_FALSE(block.getEndianness());
    EXPECT_EQ(field.read(), 0x44332211u);
}

}  // namespace
