#include <gtest/gtest.h>

#include <bit>
#include <memory>
#include <string>

#include "libraries/utils/StringHelper.h"
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

// Every register map against the hardware's own description, one line a word: which bits of the word, as the bus
// carries it, a field holds, bit 31 being the most significant. Read-only fields stand in parentheses.
namespace {

using namespace Harvane::Shared::Kestrix;
using Harvane::Utils::DataTypes::StringHelper;
using Harvane::ZornLib::Devices::Embedded::IRegisterValue;
using kestrixtest::FakeAccess;
using Lines = std::vector<std::string>;

const auto noAccess = std::make_shared<FakeAccess>();

Lines linesOf(const std::vector<IRegisterValue*>& fields, uint64_t wordBits) {
    Lines lines;
    const IRegisterValue* previous = nullptr;
    for (const IRegisterValue* field : fields) {
        const uint64_t last = field->getBit() + field->getBits() - 1;
        const uint64_t end = (last / wordBits + 1) * wordBits - 1;
        std::string text = field->getName() + " " + std::to_string(end - field->getBit());
        if (field->getBits() > 1) {
            text += ".." + std::to_string(end - last);
        }
        if (field->getReadOnly()) {
            text.insert(0, 1, '(');
            text += ')';
        }
        if (previous && previous->getAddress() == field->getAddress()) {
            lines.back() += ", " + text;
        } else {
            lines.push_back(StringHelper::format("%03lX: ", field->getAddress()) + text);
        }
        previous = field;

        // The smallest type that holds the field, and a Boolean for a single bit.
        EXPECT_EQ(field->getValueTypeSize(), std::bit_ceil((field->getBits() + 7) / 8)) << text;
        EXPECT_EQ(dynamic_cast<const RegisterValue<bool>*>(field) != nullptr, field->getBits() == 1) << text;
    }
    return lines;
}

template <typename Block>
void expectFpgaMap(const Lines& lines) {
    Block block(noAccess, 0x1000, true);
    EXPECT_TRUE(block.getEndianness());
    EXPECT_FALSE(block.getIsRegisterValueType());
    EXPECT_EQ(block.getBaseTypeSize(), 4u);
    EXPECT_EQ(block.getBaseAddress(), 0x1000u);
    EXPECT_EQ(linesOf(block.getRegisters(), 32), lines);
}

TEST(RegisterMap, globalControl) {
    expectFpgaMap<GlobalControlRegister>({
        "000: (VER 31..0)",
        "004: ENI 0, (ENRES 31..1)",
        "008: PSI 5..0, (PSRES 31..6)",
        "00C: PLI 5..0, (PLRES 31..6)",
        "010: EI 7..0, (ERES 31..8)",
    });
}

TEST(RegisterMap, adcControl) {
    expectFpgaMap<AdcControlRegister>({
        "000: ADCEN 0, (ADCENRES 31..1)",
        "004: TMAN 7..0, TMASK 15..8, TSTAT 23..16, (TRES 31..24)",
        "008: SRDIV 31..0",
        "00C: LTCHM 0, (LTCHMRES 31..1)",
        "010: LTCHPEN 0",
        "030: (LTCHPENRES 31..1)",
        "014: LTCHP 0",
        "034: (LTCHPRES 31..1)",
        ("078: (CURRCNTVAL 15..0), CNTCTRL 16, RESCNTTO0 17, (DBGCNTINRES 23..18), ENDBGCNT0 24, ENDBGCNT1 25, "
         "ENDBGCNT2 26, ENDBGCNT3 27, ENDBGCNT4 28, ENDBGCNT5 29, ENDBGCNT6 30, ENDBGCNT7 31"),
        "07C: (ADCCLKSHIFTRES 31..4), ADCCLKSHIFT 3..0",
    });
}

TEST(RegisterMap, dspCore) {
    expectFpgaMap<DspCoreRegister>({
        "100: RSPLO 31..0",
        "104: RSPHI 5..0, (RSPHIRES 31..6)",
        "108: HBNUM 4..0, (HBNUMRES 31..5)",
        "10C: RSD 31..0",
        "110: LSTFS 31..0",
        "114: LSTRS 31..0",
        ("118: IFNST 0, IFPST 1, HBNST 2, HBPST 3, FC0NST 4, FC0PST 5, FC1NST 6, FC1PST 7, FC2NST 8, FC2PST 9, "
         "FONST 10, FOPST 11, LBNST 12, LBPST 13, (CSRES 31..14)"),
        "11C: DSPIRQ 0, DSPIRQMRW 1, LIRQ 2, LIRQM 3, (IRQRES 31..4)",
        "120: CLREN 0, CLRST 1, (CLRRES 31..2)",
        "124: FILTEN 0, RAWEN 1, (DSPRES 31..2)",
        "128: LTCFM 0, LTCFP 1, LTCRM 2, LTCRP 3, (LTMRES 31..4)",
        "12C: SVAL 15..0, MODE 17..16, (CNTRES 29..18), CNT 30, EN 31",
        "130: LEN 31..0",
    });
}

TEST(RegisterMap, pllControl) {
    expectFpgaMap<PllControlRegister>({
        "000: RSTSELRST 2..0, (RES0 3), (LCK0 4), (RES1 7..5), (LCK1 8), (RES2 31..9)",
    });
}

TEST(RegisterMap, timingCore) {
    expectFpgaMap<TimingCoreRegister>({
        ("000: PPSSEL 2..0, (PPSRES 3), TRIGSEL 5..4, (TRIGRES 7..6), MSTSLV 8, (MSTSLVRES 11..9), TMODE 13..12, "
         "(CORES 15..14), SYNCD 16, PPSD 17, (CPRES 31..18)"),
        "004: DIVA 31..0",
        "008: DIVC 31..0",
        "00C: DPPLRST 0, (DPPLRSTRES 31..1)",
        "010: (PDREG 27..0), (PDRES 30..28), (ELFLAG 31)",
        "014: (FQREG 28..0), SYNCPPS 29, (FQRES 30), (LOSS 31)",
        "018: STRTACQ 0, (STRTACQRES 31..1)",
        "01C: CNTRST 0, (CNTRSTRES 31..1)",
        "020: (CLKCNT 31..0)",
        "024: PDMASK 0, FQMASK 1, (INTMASKRES 31..2)",
        "028: DIVRES 31..0",
        "02C: INVCLCKIN 0, INVTRIGIN 1, INVPPSIN 2, INVPTPIN 3, INVECATIN 4",
        "030: (DIVBCNT 31..0)",
        "038: PPSDEB 0, PPSDEBRES 31..1",
        "03C: FREERUNSCNTLTCH 31..0",
        "040: FREERUNNSCNTLTCH 31..0",
        "044: FREERUNSCNT 31..0",
        "048: FREERUNNSCNT 31..0",
    });
}

TEST(RegisterMap, irigCore) {
    expectFpgaMap<IrigCoreRegister>({
        "000: (CONFPPSRES 31..8), PPSREFSEL 7..6, (CONFRES 5), PPSSYNC 4, OUTRESET 3, IRIGTYP 2..1, DCMODE 0",
        ("004: (OUTRESERVED 31..30), DAYSHUNOUT 29..28, DAYSTENSOUT 27..24, DAYSONESOUT 23..20, HTENSOUT 19..18, "
         "HONESOUT 17..14, MINTENSOUT 13..11, MINONESOUT 10..7, SECTENSOUT 6..4, SECONESOUT 3..0"),
        "008: (OUT1RES 31..8), YEARSTENSOUT 7..4, YEARSONESOUT 3..0",
        "020: (MILLISECCNT 31..16), (IRIGSTATRES 15..5), (PPSDECODED 4), (DATAVAL 3), (STATUSRES 2..0)",
        ("024: (INRESERVED 31..30), (DAYSHUNIN 29..28), (DAYSTENSIN 27..24), (DAYSONESIN 23..20), "
         "(HTENSIN 19..18), (HONESIN 17..14), (MINTENSIN 13..11), (MINONESIN 10..7), (SECTENSIN 6..4), "
         "(SECONESIN 3..0)"),
        "028: (IN1RES 31..8), (YEARSTENSIN 7..4), (YEARSONESIN 3..0)",
    });
}

TEST(RegisterMap, channelFilter) {
    Lines lines;
    for (unsigned int word = 0; word <= 32; ++word) {
        const unsigned int tap = word < 32 ? 2 * word + 1 : 64;
        lines.push_back(StringHelper::format("%03X: C%uCOEF 26..0, (C%uRES 31..27)", 4 * word, tap, tap));
    }
    lines.push_back("090: FLTTYPE 0, (FLTTYPERES 31..1)");
    expectFpgaMap<ChannelFilterRegister>(lines);
}

TEST(RegisterMap, boardPeripherals) {
    EepromRegister eeprom(noAccess, 0x50);
    EXPECT_FALSE(eeprom.getEndianness());
    EXPECT_FALSE(eeprom.getIsRegisterValueType());
    const Lines eepromLines{
        "000: Version 7..0",
        "001: Key 23..0",
        "004: SN 63..0",
        "00C: DeviceType 7..0",
        "00D: MaxAIModules 7..0",
        "00E: CANPorts 15..0",
        "010: SystemSN 63..0",
        "018: AdjustmentDate 63..0",
        "020: CalibrationDate 63..0",
        "028: HardwareVersion 31..0",
        "0FA: (MAC 47..0)",
    };
    EXPECT_EQ(linesOf(eeprom.getRegisters(), 8), eepromLines);

    VcxoDriverRegister vcxo(noAccess, 0x58, true);
    EXPECT_FALSE(vcxo.getIsRegisterValueType());
    EXPECT_EQ(linesOf(vcxo.getRegisters(), 8), (Lines{
                                                   "010: R16_X0_BY1RES 7..2, R16_XO_BY1 1..0",
                                                   "011: R17_XO_BY0 7..0",
                                               }));

    Tmp100Register tmp100(noAccess, 0x48, true, true);
    EXPECT_EQ(linesOf(tmp100.getRegisters(), 16), (Lines{"000: (Temp 15..0)", "001: Config 15..8"}));
}

}  // namespace
