#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "shared/libraries/kestrix/src/registers/AdcControlRegister.h"
#include "shared/libraries/kestrix/src/registers/ChannelFilterRegister.h"
#include "shared/libraries/kestrix/src/registers/DspCoreRegister.h"
#include "shared/libraries/kestrix/src/registers/EepromRegister.h"
#include "shared/libraries/kestrix/src/registers/GlobalControlRegister.h"
#include "shared/libraries/kestrix/src/registers/IrigCoreRegister.h"
#include "shared/libraries/kestrix/src/registers/PllControlRegister.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"
#include "shared/libraries/kestrix/src/registers/TimingCoreRegister.h"
#include "shared/libraries/kestrix/src/registers/Tmp100Register.h"
#include "shared/libraries/kestrix/src/registers/VcxoDriverRegister.h"
#include "tests/registers/FakeAccess.h"

// Every register map against the hardware's own description: where a field lies in the word as the bus carries it,
// bit 31 being the most significant.
namespace {

using namespace Harvane::Shared::Kestrix;
using Harvane::ZornLib::Devices::Embedded::IRegisterValue;
using kestrixtest::FakeAccess;

enum class Type { flag, u8, u16, u32, u64, i64 };
enum class Access { R, RW };

struct Row {
    const char* name;
    uint64_t offset;
    unsigned int high;
    unsigned int low;
    Type type;
    Access access;
};
using Rows = std::vector<Row>;

bool hasType(IRegisterValue* field, Type type) {
    switch (type) {
        case Type::flag: return dynamic_cast<RegisterValue<bool>*>(field) != nullptr;
        case Type::u8: return dynamic_cast<RegisterValue<unsigned char>*>(field) != nullptr;
        case Type::u16: return dynamic_cast<RegisterValue<unsigned short>*>(field) != nullptr;
        case Type::u32: return dynamic_cast<RegisterValue<unsigned int>*>(field) != nullptr;
        case Type::u64: return dynamic_cast<RegisterValue<unsigned long>*>(field) != nullptr;
        case Type::i64: return dynamic_cast<RegisterValue<long>*>(field) != nullptr;
    }
    return false;
}

// The value as a field of any type shows it.
uint64_t shownValue(const IRegisterValue& field) {
    const std::string text = field.toString();
    return std::stoull(text.substr(text.find("Value: ") + 7), nullptr, 16);
}

template <typename Block>
void expectWordMap(const Rows& rows) {
    auto access = std::make_shared<FakeAccess>();
    Block block(access, 0x1000, true);
    EXPECT_TRUE(block.getEndianness());
    EXPECT_FALSE(block.getIsRegisterValueType());
    EXPECT_EQ(block.getBaseTypeSize(), 4u);
    EXPECT_EQ(block.getBaseAddress(), 0x1000u);
    ASSERT_EQ(block.getRegisters().size(), rows.size());
    for (size_t n = 0; n < rows.size(); ++n) {
        const Row& row = rows[n];
        SCOPED_TRACE(row.name);
        IRegisterValue* field = block.getRegisters()[n];
        EXPECT_EQ(field->getName(), row.name);
        EXPECT_EQ(field->getAddress(), row.offset);
        EXPECT_EQ(field->getBits(), row.high - row.low + 1);
        EXPECT_TRUE(hasType(field, row.type));
        EXPECT_EQ(field->getReadOnly(), row.access == Access::R);

        // A word with only these bits set, and its opposite, as the bus has them.
        const auto width = row.high - row.low + 1;
        const uint64_t ones = (1ull << width) - 1;
        const auto mask = static_cast<uint32_t>(ones << row.low);
        access->setWord(0x1000 + row.offset, mask);
        EXPECT_EQ(shownValue(*field), ones);
        access->setWord(0x1000 + row.offset, ~mask);
        EXPECT_EQ(shownValue(*field), 0u);

        access->setWord(0x1000 + row.offset, 0xFFFFFFFF);
        if (row.access == Access::RW) {
            field->reset();
            EXPECT_EQ(access->word(0x1000 + row.offset), ~mask);
        } else {
            EXPECT_THROW(field->reset(), std::runtime_error);
            EXPECT_EQ(access->word(0x1000 + row.offset), 0xFFFFFFFF);
        }
    }
}

const Rows globalControlRows = {
    {"VER",               0x0000, 31,  0, Type::u32,  Access::R},
    {"ENI",               0x0004,  0,  0, Type::flag, Access::RW},
    {"ENRES",             0x0004, 31,  1, Type::u32,  Access::R},
    {"PSI",               0x0008,  5,  0, Type::u8,   Access::RW},
    {"PSRES",             0x0008, 31,  6, Type::u32,  Access::R},
    {"PLI",               0x000c,  5,  0, Type::u8,   Access::RW},
    {"PLRES",             0x000c, 31,  6, Type::u32,  Access::R},
    {"EI",                0x0010,  7,  0, Type::u8,   Access::RW},
    {"ERES",              0x0010, 31,  8, Type::u32,  Access::R},
};

const Rows adcControlRows = {
    {"ADCEN",             0x0000,  0,  0, Type::flag, Access::RW},
    {"ADCENRES",          0x0000, 31,  1, Type::u32,  Access::R},
    {"TMAN",              0x0004,  7,  0, Type::u8,   Access::RW},
    {"TMASK",             0x0004, 15,  8, Type::u8,   Access::RW},
    {"TSTAT",             0x0004, 23, 16, Type::u8,   Access::RW},
    {"TRES",              0x0004, 31, 24, Type::u8,   Access::R},
    {"SRDIV",             0x0008, 31,  0, Type::u32,  Access::RW},
    {"LTCHM",             0x000c,  0,  0, Type::flag, Access::RW},
    {"LTCHMRES",          0x000c, 31,  1, Type::u32,  Access::R},
    {"LTCHPEN",           0x0010,  0,  0, Type::flag, Access::RW},
    {"LTCHPENRES",        0x0030, 31,  1, Type::u32,  Access::R},
    {"LTCHP",             0x0014,  0,  0, Type::flag, Access::RW},
    {"LTCHPRES",          0x0034, 31,  1, Type::u32,  Access::R},
    {"CURRCNTVAL",        0x0078, 15,  0, Type::u16,  Access::R},
    {"CNTCTRL",           0x0078, 16, 16, Type::flag, Access::RW},
    {"RESCNTTO0",         0x0078, 17, 17, Type::flag, Access::RW},
    {"DBGCNTINRES",       0x0078, 23, 18, Type::u8,   Access::R},
    {"ENDBGCNT0",         0x0078, 24, 24, Type::flag, Access::RW},
    {"ENDBGCNT1",         0x0078, 25, 25, Type::flag, Access::RW},
    {"ENDBGCNT2",         0x0078, 26, 26, Type::flag, Access::RW},
    {"ENDBGCNT3",         0x0078, 27, 27, Type::flag, Access::RW},
    {"ENDBGCNT4",         0x0078, 28, 28, Type::flag, Access::RW},
    {"ENDBGCNT5",         0x0078, 29, 29, Type::flag, Access::RW},
    {"ENDBGCNT6",         0x0078, 30, 30, Type::flag, Access::RW},
    {"ENDBGCNT7",         0x0078, 31, 31, Type::flag, Access::RW},
    {"ADCCLKSHIFTRES",    0x007c, 31,  4, Type::u32,  Access::R},
    {"ADCCLKSHIFT",       0x007c,  3,  0, Type::u8,   Access::RW},
};

const Rows dspCoreRows = {
    {"RSPLO",             0x0100, 31,  0, Type::u32,  Access::RW},
    {"RSPHI",             0x0104,  5,  0, Type::u8,   Access::RW},
    {"RSPHIRES",          0x0104, 31,  6, Type::u32,  Access::R},
    {"HBNUM",             0x0108,  4,  0, Type::u8,   Access::RW},
    {"HBNUMRES",          0x0108, 31,  5, Type::u32,  Access::R},
    {"RSD",               0x010c, 31,  0, Type::u32,  Access::RW},
    {"LSTFS",             0x0110, 31,  0, Type::u32,  Access::RW},
    {"LSTRS",             0x0114, 31,  0, Type::u32,  Access::RW},
    {"IFNST",             0x0118,  0,  0, Type::flag, Access::RW},
    {"IFPST",             0x0118,  1,  1, Type::flag, Access::RW},
    {"HBNST",             0x0118,  2,  2, Type::flag, Access::RW},
    {"HBPST",             0x0118,  3,  3, Type::flag, Access::RW},
    {"FC0NST",            0x0118,  4,  4, Type::flag, Access::RW},
    {"FC0PST",            0x0118,  5,  5, Type::flag, Access::RW},
    {"FC1NST",            0x0118,  6,  6, Type::flag, Access::RW},
    {"FC1PST",            0x0118,  7,  7, Type::flag, Access::RW},
    {"FC2NST",            0x0118,  8,  8, Type::flag, Access::RW},
    {"FC2PST",            0x0118,  9,  9, Type::flag, Access::RW},
    {"FONST",             0x0118, 10, 10, Type::flag, Access::RW},
    {"FOPST",             0x0118, 11, 11, Type::flag, Access::RW},
    {"LBNST",             0x0118, 12, 12, Type::flag, Access::RW},
    {"LBPST",             0x0118, 13, 13, Type::flag, Access::RW},
    {"CSRES",             0x0118, 31, 14, Type::u32,  Access::R},
    {"DSPIRQ",            0x011c,  0,  0, Type::flag, Access::RW},
    {"DSPIRQMRW",         0x011c,  1,  1, Type::flag, Access::RW},
    {"LIRQ",              0x011c,  2,  2, Type::flag, Access::RW},
    {"LIRQM",             0x011c,  3,  3, Type::flag, Access::RW},
    {"IRQRES",            0x011c, 31,  4, Type::u32,  Access::R},
    {"CLREN",             0x0120,  0,  0, Type::flag, Access::RW},
    {"CLRST",             0x0120,  1,  1, Type::flag, Access::RW},
    {"CLRRES",            0x0120, 31,  2, Type::u32,  Access::R},
    {"FILTEN",            0x0124,  0,  0, Type::flag, Access::RW},
    {"RAWEN",             0x0124,  1,  1, Type::flag, Access::RW},
    {"DSPRES",            0x0124, 31,  2, Type::u32,  Access::R},
    {"LTCFM",             0x0128,  0,  0, Type::flag, Access::RW},
    {"LTCFP",             0x0128,  1,  1, Type::flag, Access::RW},
    {"LTCRM",             0x0128,  2,  2, Type::flag, Access::RW},
    {"LTCRP",             0x0128,  3,  3, Type::flag, Access::RW},
    {"LTMRES",            0x0128, 31,  4, Type::u32,  Access::R},
    {"SVAL",              0x012c, 15,  0, Type::u16,  Access::RW},
    {"MODE",              0x012c, 17, 16, Type::u8,   Access::RW},
    {"CNTRES",            0x012c, 29, 18, Type::u16,  Access::R},
    {"CNT",               0x012c, 30, 30, Type::flag, Access::RW},
    {"EN",                0x012c, 31, 31, Type::flag, Access::RW},
    {"LEN",               0x0130, 31,  0, Type::u32,  Access::RW},
};

const Rows pllControlRows = {
    {"RSTSELRST",         0x0000,  2,  0, Type::u8,   Access::RW},
    {"RES0",              0x0000,  3,  3, Type::flag, Access::R},
    {"LCK0",              0x0000,  4,  4, Type::flag, Access::R},
    {"RES1",              0x0000,  7,  5, Type::u8,   Access::R},
    {"LCK1",              0x0000,  8,  8, Type::flag, Access::R},
    {"RES2",              0x0000, 31,  9, Type::u32,  Access::R},
};

const Rows timingCoreRows = {
    {"PPSSEL",            0x0000,  2,  0, Type::u8,   Access::RW},
    {"PPSRES",            0x0000,  3,  3, Type::flag, Access::R},
    {"TRIGSEL",           0x0000,  5,  4, Type::u8,   Access::RW},
    {"TRIGRES",           0x0000,  7,  6, Type::u8,   Access::R},
    {"MSTSLV",            0x0000,  8,  8, Type::flag, Access::RW},
    {"MSTSLVRES",         0x0000, 11,  9, Type::u8,   Access::R},
    {"TMODE",             0x0000, 13, 12, Type::u8,   Access::RW},
    {"CORES",             0x0000, 15, 14, Type::u8,   Access::R},
    {"SYNCD",             0x0000, 16, 16, Type::flag, Access::RW},
    {"PPSD",              0x0000, 17, 17, Type::flag, Access::RW},
    {"CPRES",             0x0000, 31, 18, Type::u16,  Access::R},
    {"DIVA",              0x0004, 31,  0, Type::u32,  Access::RW},
    {"DIVC",              0x0008, 31,  0, Type::u32,  Access::RW},
    {"DPPLRST",           0x000c,  0,  0, Type::flag, Access::RW},
    {"DPPLRSTRES",        0x000c, 31,  1, Type::u32,  Access::R},
    {"PDREG",             0x0010, 27,  0, Type::u32,  Access::R},
    {"PDRES",             0x0010, 30, 28, Type::u8,   Access::R},
    {"ELFLAG",            0x0010, 31, 31, Type::flag, Access::R},
    {"FQREG",             0x0014, 28,  0, Type::u32,  Access::R},
    {"SYNCPPS",           0x0014, 29, 29, Type::flag, Access::RW},
    {"FQRES",             0x0014, 30, 30, Type::flag, Access::R},
    {"LOSS",              0x0014, 31, 31, Type::flag, Access::R},
    {"STRTACQ",           0x0018,  0,  0, Type::flag, Access::RW},
    {"STRTACQRES",        0x0018, 31,  1, Type::u32,  Access::R},
    {"CNTRST",            0x001c,  0,  0, Type::flag, Access::RW},
    {"CNTRSTRES",         0x001c, 31,  1, Type::u32,  Access::R},
    {"CLKCNT",            0x0020, 31,  0, Type::u32,  Access::R},
    {"PDMASK",            0x0024,  0,  0, Type::flag, Access::RW},
    {"FQMASK",            0x0024,  1,  1, Type::flag, Access::RW},
    {"INTMASKRES",        0x0024, 31,  2, Type::u32,  Access::R},
    {"DIVRES",            0x0028, 31,  0, Type::u32,  Access::RW},
    {"INVCLCKIN",         0x002c,  0,  0, Type::flag, Access::RW},
    {"INVTRIGIN",         0x002c,  1,  1, Type::flag, Access::RW},
    {"INVPPSIN",          0x002c,  2,  2, Type::flag, Access::RW},
    {"INVPTPIN",          0x002c,  3,  3, Type::flag, Access::RW},
    {"INVECATIN",         0x002c,  4,  4, Type::flag, Access::RW},
    {"DIVBCNT",           0x0030, 31,  0, Type::u32,  Access::R},
    {"PPSDEB",            0x0038,  0,  0, Type::flag, Access::RW},
    {"PPSDEBRES",         0x0038, 31,  1, Type::u32,  Access::RW},
    {"FREERUNSCNTLTCH",   0x003c, 31,  0, Type::u32,  Access::RW},
    {"FREERUNNSCNTLTCH",  0x0040, 31,  0, Type::u32,  Access::RW},
    {"FREERUNSCNT",       0x0044, 31,  0, Type::u32,  Access::RW},
    {"FREERUNNSCNT",      0x0048, 31,  0, Type::u32,  Access::RW},
};

const Rows irigCoreRows = {
    {"CONFPPSRES",        0x0000, 31,  8, Type::u32,  Access::R},
    {"PPSREFSEL",         0x0000,  7,  6, Type::u8,   Access::RW},
    {"CONFRES",           0x0000,  5,  5, Type::flag, Access::R},
    {"PPSSYNC",           0x0000,  4,  4, Type::flag, Access::RW},
    {"OUTRESET",          0x0000,  3,  3, Type::flag, Access::RW},
    {"IRIGTYP",           0x0000,  2,  1, Type::u8,   Access::RW},
    {"DCMODE",            0x0000,  0,  0, Type::flag, Access::RW},
    {"OUTRESERVED",       0x0004, 31, 30, Type::u8,   Access::R},
    {"DAYSHUNOUT",        0x0004, 29, 28, Type::u8,   Access::RW},
    {"DAYSTENSOUT",       0x0004, 27, 24, Type::u8,   Access::RW},
    {"DAYSONESOUT",       0x0004, 23, 20, Type::u8,   Access::RW},
    {"HTENSOUT",          0x0004, 19, 18, Type::u8,   Access::RW},
    {"HONESOUT",          0x0004, 17, 14, Type::u8,   Access::RW},
    {"MINTENSOUT",        0x0004, 13, 11, Type::u8,   Access::RW},
    {"MINONESOUT",        0x0004, 10,  7, Type::u8,   Access::RW},
    {"SECTENSOUT",        0x0004,  6,  4, Type::u8,   Access::RW},
    {"SECONESOUT",        0x0004,  3,  0, Type::u8,   Access::RW},
    {"OUT1RES",           0x0008, 31,  8, Type::u32,  Access::R},
    {"YEARSTENSOUT",      0x0008,  7,  4, Type::u8,   Access::RW},
    {"YEARSONESOUT",      0x0008,  3,  0, Type::u8,   Access::RW},
    {"MILLISECCNT",       0x0020, 31, 16, Type::u16,  Access::R},
    {"IRIGSTATRES",       0x0020, 15,  5, Type::u16,  Access::R},
    {"PPSDECODED",        0x0020,  4,  4, Type::flag, Access::R},
    {"DATAVAL",           0x0020,  3,  3, Type::flag, Access::R},
    {"STATUSRES",         0x0020,  2,  0, Type::u8,   Access::R},
    {"INRESERVED",        0x0024, 31, 30, Type::u8,   Access::R},
    {"DAYSHUNIN",         0x0024, 29, 28, Type::u8,   Access::R},
    {"DAYSTENSIN",        0x0024, 27, 24, Type::u8,   Access::R},
    {"DAYSONESIN",        0x0024, 23, 20, Type::u8,   Access::R},
    {"HTENSIN",           0x0024, 19, 18, Type::u8,   Access::R},
    {"HONESIN",           0x0024, 17, 14, Type::u8,   Access::R},
    {"MINTENSIN",         0x0024, 13, 11, Type::u8,   Access::R},
    {"MINONESIN",         0x0024, 10,  7, Type::u8,   Access::R},
    {"SECTENSIN",         0x0024,  6,  4, Type::u8,   Access::R},
    {"SECONESIN",         0x0024,  3,  0, Type::u8,   Access::R},
    {"IN1RES",            0x0028, 31,  8, Type::u32,  Access::R},
    {"YEARSTENSIN",       0x0028,  7,  4, Type::u8,   Access::R},
    {"YEARSONESIN",       0x0028,  3,  0, Type::u8,   Access::R},
};

TEST(RegisterMap, globalControl) { expectWordMap<GlobalControlRegister>(globalControlRows); }
TEST(RegisterMap, adcControl) { expectWordMap<AdcControlRegister>(adcControlRows); }
TEST(RegisterMap, dspCore) { expectWordMap<DspCoreRegister>(dspCoreRows); }
TEST(RegisterMap, pllControl) { expectWordMap<PllControlRegister>(pllControlRows); }
TEST(RegisterMap, timingCore) { expectWordMap<TimingCoreRegister>(timingCoreRows); }
TEST(RegisterMap, irigCore) { expectWordMap<IrigCoreRegister>(irigCoreRows); }

TEST(RegisterMap, channelFilter) {
    std::vector<std::string> names;  // outlives the rows
    names.reserve(66);
    Rows rows;
    for (unsigned int word = 0; word <= 32; ++word) {
        const std::string tap = "C" + std::to_string(word < 32 ? 2 * word + 1 : 64);
        rows.push_back({names.emplace_back(tap + "COEF").c_str(), 4 * word, 26, 0, Type::u32, Access::RW});
        rows.push_back({names.emplace_back(tap + "RES").c_str(), 4 * word, 31, 27, Type::u8, Access::R});
    }
    rows.push_back({"FLTTYPE", 0x90, 0, 0, Type::flag, Access::RW});
    rows.push_back({"FLTTYPERES", 0x90, 31, 1, Type::u32, Access::R});
    expectWordMap<ChannelFilterRegister>(rows);
}

TEST(RegisterMap, selectionsByIndexAreTheFieldsOfThatNumber) {
    auto access = std::make_shared<FakeAccess>();
    AdcControlRegister adc(access, 0xA0200000, true);
    for (size_t n = 0; n < adc.ENDBGCNT.size(); ++n)
        EXPECT_EQ(adc.ENDBGCNT[n]->getName(), "ENDBGCNT" + std::to_string(n));
    ChannelFilterRegister filter(access, 0xA0000000, true);
    for (size_t n = 0; n < filter.coefficients.size(); ++n)
        EXPECT_EQ(filter.coefficients[n]->getAddress(), 4 * n);
}

TEST(RegisterMap, byteBlocks) {
    struct {
        const char* name;
        uint64_t offset;
        uint64_t bit;
        uint64_t bits;
        Type type;
        Access access;
    } const eepromRows[] = {
        {"Version",         0x000, 0,  8, Type::u8,  Access::RW},
        {"Key",             0x001, 0, 24, Type::u32, Access::RW},
        {"SN",              0x004, 0, 64, Type::u64, Access::RW},
        {"DeviceType",      0x00C, 0,  8, Type::u8,  Access::RW},
        {"MaxAIModules",    0x00D, 0,  8, Type::u8,  Access::RW},
        {"CANPorts",        0x00E, 0, 16, Type::u16, Access::RW},
        {"SystemSN",        0x010, 0, 64, Type::u64, Access::RW},
        {"AdjustmentDate",  0x018, 0, 64, Type::i64, Access::RW},
        {"CalibrationDate", 0x020, 0, 64, Type::i64, Access::RW},
        {"HardwareVersion", 0x028, 0, 32, Type::u32, Access::RW},
        {"MAC",             0x0FA, 0, 48, Type::u64, Access::R},
    }, vcxoRows[] = {
        {"R16_X0_BY1RES", 0x10, 0, 6, Type::u8, Access::RW},
        {"R16_XO_BY1",    0x10, 6, 2, Type::u8, Access::RW},
        {"R17_XO_BY0",    0x11, 0, 8, Type::u8, Access::RW},
    }, tmp100Rows[] = {
        {"Temp",   0x00, 0, 16, Type::u16, Access::R},
        {"Config", 0x01, 0,  8, Type::u8,  Access::RW},
    };
    auto access = std::make_shared<FakeAccess>();
    EepromRegister eeprom(access, 0x50);
    VcxoDriverRegister vcxo(access, 0x58, true);
    Tmp100Register tmp100(access, 0x48, true, true);
    const auto expectRows = [](auto& block, const auto& rows) {
        ASSERT_EQ(block.getRegisters().size(), std::size(rows));
        for (size_t n = 0; n < std::size(rows); ++n) {
            SCOPED_TRACE(rows[n].name);
            IRegisterValue* field = block.getRegisters()[n];
            EXPECT_EQ(field->getName(), rows[n].name);
            EXPECT_EQ(field->getAddress(), rows[n].offset);
            EXPECT_EQ(field->getBit(), rows[n].bit);
            EXPECT_EQ(field->getBits(), rows[n].bits);
            EXPECT_TRUE(hasType(field, rows[n].type));
            EXPECT_EQ(field->getReadOnly(), rows[n].access == Access::R);
        }
    };
    expectRows(eeprom, eepromRows);
    expectRows(vcxo, vcxoRows);
    expectRows(tmp100, tmp100Rows);
    EXPECT_EQ(eeprom.getBaseTypeSize(), 1u);
    EXPECT_FALSE(eeprom.getEndianness());
    EXPECT_FALSE(eeprom.getIsRegisterValueType());
    EXPECT_FALSE(vcxo.getIsRegisterValueType());
    EXPECT_EQ(vcxo.getBaseTypeSize(), 1u);
    EXPECT_EQ(tmp100.getBaseTypeSize(), 2u);
}

TEST(RegisterMap, boardWideValuesStartAsTheEightChannelBoard) {
    EXPECT_EQ(RegistersAddress::baseClock, 15000000);
    EXPECT_EQ(RegistersAddress::maxAIModules, 8);
    EXPECT_EQ(RegistersAddress::maxAIChannels, 16);
    EXPECT_EQ(RegistersAddress::deviceType, 0);
    EXPECT_EQ(RegistersAddress::dspBaseAddress(0), 0xA0000000u);
    EXPECT_EQ(RegistersAddress::dspBaseAddress(7), 0xA0070000u);
}

}  // namespace
