#include <atomic>

#include <zorn/types/object_impl.h>

#include "modules/daq/amplifier/DaqAmplifier.h"
#include "modules/daq/amplifier/DaqAmplifierConsts.h"
#include "modules/daq/amplifier/DaqAmplifiersFactory.h"
#include "tests/amplifiermodel/TestAmplifiers.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;
using namespace std::chrono_literals;

namespace {

using Consts = DaqAmplifierConsts;
using Numbers = std::vector<double>;

AcquisitionSyncPtr makeSync() {
    return made<IAcquisitionSync>(createAcquisitionSync);
}

// Settings with a number of their own, and the list that it is the place in.
struct Setting {
    const char* name;
    std::int32_t AmplifierSettings::*field;
    Texts AmplifierSettings::*list = nullptr;
    bool comesBack = true;
    // Of two choices, "Measurement 0" and so on.
    std::string choice(int place) const { return name + std::string(place == 0 ? " 0" : " 1"); }
};
using S = AmplifierSettings;

const Setting settings[] = {
    {Consts::Measurement, &S::measurementIndex, &S::measurements},
    {Consts::LPFilter, &S::lpFilterIndex, &S::lpFilters},
    {Consts::HPFilter, &S::hpFilterIndex, &S::hpFilters},
    {Consts::InputType, &S::inputTypeIndex, &S::inputTypes},
    {Consts::ConnectionType, &S::connectionTypeIndex, &S::connectionTypes, false},
    {Consts::ExcitationType, &S::excitationTypeIndex, &S::excitationTypes},
    {Consts::ExcitationUnit, &S::excitationUnitIndex, &S::excitationUnits},
    {Consts::BridgeType, &S::bridgeTypeIndex, &S::bridgeTypes},
    {Consts::BridgeShunt, &S::bridgeShuntIndex, &S::bridgeShunts},
    {Consts::Range, &S::rangeIndex},
    {Consts::ExcitationValue, &S::excitationIndex},
    {Consts::BridgeLeg, &S::bridgeLeg},
    {Consts::ExternalShunt, &S::externalShuntIndex},
    {Consts::BridgeWires, &S::bridgeWires},
};

const std::pair<const char*, bool AmplifierSettings::*> switches[] = {
    {Consts::Short, &AmplifierSettings::shortOn},
    {Consts::Shunt, &AmplifierSettings::shunt},
    {Consts::AltExcPolarity, &AmplifierSettings::altExcPolarity},
};

// Everything that an amplifier can have.
const std::string everything = [] {
    std::string properties =
        rangeList + choice(Consts::ExcitationValue, "2.5, 5.0") +
        R"(, {"name": "BridgeResistance", "type": "float", "default": 350.0, "values": [120.0, 350.0]},
             {"name": "DeviceRanges", "type": "float", "default": 0.0, "values": [0.1, 0.01]})";
    for (const Setting& setting : settings) {
        if (setting.list != nullptr) {
            const std::string values = "\"" + setting.choice(0) + "\", \"" + setting.choice(1) + "\"";
            properties += choice(setting.name, values.c_str());
        }
    }
    for (const char* name : {Consts::BridgeLeg, Consts::ExternalShunt, Consts::BridgeWires}) {
        properties += plain(name, "int", "0");
    }
    for (const char* name : {Consts::ExternalShuntResistance, Consts::ExternalShuntPower, Consts::BridgeShuntValue,
                             Consts::BridgeOffset}) {
        properties += plain(name, "float", "0.0");
    }
    for (const auto& [name, field] : switches) {
        properties += plain(name, "bool", "false");
    }
    return properties;
}();

struct DaqAmplifierTest : testing::Test {
    // A DaqAmplifier on a new channel of a class with these properties.
    void make(const std::string& properties) {
        daqAmplifier.reset();
        factory.unregisterAmplifiers();
        channel = makeHostChannel();
        EXPECT_TRUE(factory.initFromFile(folder.write("a.json", definition("ampl_test", "7.8.9.10", properties))));
        daqAmplifier = std::make_unique<DaqAmplifier>(channel, amplifier, makeSync(), 1ms);
        daqAmplifier->init(factory.getAmplifierClassName(amplifier->getId()));
        amplifier->journal.take();
    }
    template <class T>
    T read(const char* name) const {
        return channel.getPropertyValue<T>(name);
    }

    TempFolder folder;
    DaqAmplifiersFactory factory;
    std::shared_ptr<TestAmplifier> amplifier = std::make_shared<TestAmplifier>();
    ChannelPtr<> channel;
    std::unique_ptr<DaqAmplifier> daqAmplifier;
};

TEST_F(DaqAmplifierTest, InitGivesTheChannelItsClassAndOperations) {
    amplifier->serialNumber = "SN 1";
    amplifier->softwareRevision = "2.0";
    amplifier->hardwareRevision = "3";
    amplifier->calibrationDate = "2024-05-06";
    amplifier->onUpdate = [](TestAmplifier& one) { one.serialNumber = "SN 2"; };
    make(everything);
    EXPECT_EQ(channel.getClassName(), "ampl_test");
    EXPECT_EQ(daqAmplifier->getAmplifier(), amplifier);
    // What the module said when it was found; nothing changes it.
    const std::pair<const char*, const char*> facts[] = {{"SerialNumber", "SN 1"},
                                                         {"SoftwareRevision", "2.0"},
                                                         {"HardwareRevision", "3"},
                                                         {"CalibrationDate", "2024-05-06"}};
    for (const auto& [name, text] : facts) {
        channel.setPropertyValue(name, "written");
        EXPECT_EQ(read<std::string>(name), text);
    }
    EXPECT_EQ(runProcedure(channel, "NotifyEnterChSetup"), Errors::Success);
    EXPECT_EQ(runProcedure(channel, "NotifyLeaveChSetup"), Errors::Success);
    EXPECT_EQ(amplifier->journal.take(), (Texts{"notifyEnterChSetup", "notifyLeaveChSetup"}));
    EXPECT_FALSE(amplifier->ledControl);

    DaqAmplifier other(makeHostChannel(), amplifier, makeSync());
    EXPECT_THROW(other.init("ampl_nowhere"), InvalidValueException);
}

TEST_F(DaqAmplifierTest, ListsOfChoicesComeOver) {
    make("");
    EXPECT_EQ(amplifier->settings()->minValues, Numbers{-10.0});  // nothing there, nothing changed
    EXPECT_FALSE(amplifier->settings()->shortPresent);
    make(everything);
    for (const Setting& setting : settings) {
        if (setting.list != nullptr) {
            EXPECT_EQ((*amplifier->settings()).*setting.list, (Texts{setting.choice(0), setting.choice(1)}))
                << setting.name;
        }
    }
    const auto now = amplifier->settings();
    EXPECT_EQ(now->ranges, (Texts{"20", "2"}));
    EXPECT_EQ(
        (std::vector{now->minValues, now->maxValues, now->excitations, now->bridgeResistances, now->deviceRanges}),
        (std::vector<Numbers>{{-20.0, -2.0}, {20.0, 3.0}, {2.5, 5.0}, {120.0, 350.0}, {0.1, 0.01}}));
    EXPECT_TRUE(now->shortPresent && now->rangeUnit == "mV/V");
    // Again: exchanged, not appended.
    daqAmplifier->updateCapabilities(false);
    EXPECT_EQ(amplifier->settings()->ranges.size(), 2u);
    EXPECT_EQ(amplifier->settings()->excitations.size(), 2u);
}

TEST_F(DaqAmplifierTest, ValuesGoToTheAmplifier) {
    make(everything);
    // A number of its own for each; that the lists are shorter is no matter here.
    int number = 0;
    for (const Setting& setting : settings) {
        channel.setPropertyValue(setting.name, ++number);
    }
    channel.setPropertyValue(Consts::BridgeResistance, 120.0);
    channel.setPropertyValue(Consts::ExternalShuntResistance, 50.5);
    channel.setPropertyValue(Consts::ExternalShuntPower, 0.25);
    daqAmplifier->writeToDevice();
    number = 0;
    const auto now = amplifier->settings();
    for (const Setting& setting : settings) {
        EXPECT_EQ((*now).*setting.field, ++number) << setting.name;
    }
    EXPECT_EQ(
        (Numbers{now->excitationValue, now->bridgeResistance, now->externalShuntResistance, now->externalShuntPower}),
        (Numbers{5.0, 120.0, 50.5, 0.25}));
    EXPECT_TRUE(amplifier->journal.take().empty());
}

// What the hardware took, in the order in which the host sees it.
TEST_F(DaqAmplifierTest, ValuesOfTheHardwareComeBack) {
    make(everything);
    checkErrorInfo(channel.getOnPropertyValueChanged()->addHandler(
        makeHandler([this](const BasePtr&, const ObjectPtr<IEventArgs>& arguments) {
            const PropertyValueChangedEventArgsPtr args(arguments.asPtr<IPropertyValueChangedEventArgs>());
            amplifier->journal.add("write " + args.getPropertyName().toStdString());
        }).get()));
    amplifier->onUpdate = [](TestAmplifier& one) {
        one.edit([](AmplifierSettings& now) {
            int number = 0;
            for (const Setting& setting : settings) {
                now.*setting.field = ++number;
            }
            now.excitationValue = 5.0;  // as its place says
            now.bridgeShuntValue = 59880.0;
            now.deviceRangeIndex = 1;
        });
        one.bridgeOffset = -0.75;
    };
    EXPECT_TRUE(daqAmplifier->update(false));
    EXPECT_EQ(
        amplifier->journal.take(),
        (Texts{"update", "write Measurement", "write Range", "write DeviceRanges", "write LPFilter", "write HPFilter",
               "write InputType", "write Excitation", "write ExcitationType", "write ExcitationUnit",
               "write BridgeType", "write BridgeShunt", "write BridgeLeg", "write ExternalShunt",
               "write BridgeShuntValue", "write BridgeOffset", "write BridgeWires", "write SettingsInForce"}));
    // What a property has already isn't written again.
    EXPECT_TRUE(daqAmplifier->update(false));
    EXPECT_EQ(amplifier->journal.take(), Texts{"update"});
    int number = 0;
    for (const Setting& setting : settings) {
        ++number;
        EXPECT_EQ(read<int>(setting.name), setting.comesBack ? number : 0) << setting.name;
    }
    EXPECT_EQ((Numbers{read<double>(Consts::DeviceRanges), read<double>(Consts::BridgeShuntValue),
                       read<double>(Consts::BridgeOffset)}),
              (Numbers{0.01, 59880.0, -0.75}));

    // The result of the hardware isn't looked at: what it refused shows in the values.
    amplifier->updateResult = false;
    amplifier->onUpdate = [](TestAmplifier& one) { one.edit([](AmplifierSettings& now) { now.rangeIndex = 0; }); };
    EXPECT_TRUE(daqAmplifier->update(false));
    EXPECT_EQ(read<int>(Consts::Range), 0);
}

TEST_F(DaqAmplifierTest, SwitchesGoOverAndComeBack) {
    make(everything);
    for (const auto& turned : switches) {
        for (const auto& [name, field] : switches) {
            channel.setPropertyValue(name, name == turned.first);
        }
        amplifier->onUpdate = [&](TestAmplifier& one) {
            one.edit([&](AmplifierSettings& now) {
                for (const auto& [name, field] : switches) {
                    EXPECT_EQ(now.*field, name == turned.first) << name << " with " << turned.first;
                    now.*field = !(now.*field);
                }
            });
        };
        daqAmplifier->update(false);
        for (const auto& [name, field] : switches) {
            EXPECT_EQ(read<bool>(name), name != turned.first) << name << " with " << turned.first;
        }
    }
}

TEST_F(DaqAmplifierTest, ExcitationAsANumber) {
    make(plain(Consts::ExcitationValue, "float", "2.5"));
    EXPECT_TRUE(amplifier->settings()->excitations.empty());
    EXPECT_EQ(amplifier->settings()->excitationValue, 2.5);
    channel.setPropertyValue(Consts::ExcitationValue, 7.25);
    amplifier->onUpdate = [](TestAmplifier& one) {
        EXPECT_EQ(one.settings()->excitationValue, 7.25);
        one.edit([](AmplifierSettings& now) {
            now.excitationValue = 7.0;
            now.excitationIndex = 3;
        });
    };
    daqAmplifier->update(false);
    EXPECT_EQ(read<double>(Consts::ExcitationValue), 7.0);
}

// Numbers that no list covers: after a change of the measurement, or from a setup of another amplifier.
TEST_F(DaqAmplifierTest, IndicesBeyondTheLists) {
    make(choice(Consts::Measurement, R"("Bridge")") + rangeList + choice(Consts::ExcitationValue, "2.5, 5.0") +
         plain(Consts::DeviceRanges, "float", "0.5"));
    for (const int index : {7, -1}) {
        channel.setPropertyValue(Consts::Measurement, index);
        channel.setPropertyValue(Consts::Range, index);
        channel.setPropertyValue(Consts::ExcitationValue, index);
        EXPECT_TRUE(daqAmplifier->update(false)) << index;
        EXPECT_EQ(amplifier->settings()->excitationValue, index < 0 ? 2.5 : 5.0);
        EXPECT_EQ(amplifier->getMaxValue(), index < 0 ? 20.0 : 3.0);
        EXPECT_EQ(amplifier->getMeasureType(), "");
        EXPECT_EQ(read<int>(Consts::Range), index);
        EXPECT_EQ(read<double>(Consts::DeviceRanges), 0.5);
    }
}

const std::string changingFilters =
    choice(Consts::Measurement, R"("A", "B", "C", "D")") +
    R"json(, {"name": "HPFilter", "type": "int", "selection": true, "default": 1, "values": {"__type": "Eval",
        "expr": "switch($Measurement, 0, $First, 1, $First, 2, $Longer, 3, $Other)"}})json"
    R"(, {"name": "First", "type": "list", "default": ["DC", "AC 1 Hz", "AC 10 Hz"], "hidden": true})"
    R"(, {"name": "Longer", "type": "list", "default": ["DC", "AC 1 Hz", "AC 10 Hz", "AC 1 kHz"], "hidden": true})"
    R"(, {"name": "Other", "type": "list", "default": ["DC", "AC 1 Hz", "AC 20 Hz"], "hidden": true})";

TEST_F(DaqAmplifierTest, HighPassFiltersThatChange) {
    make(changingFilters);
    // Measurement before and after, whether to adjust, and what becomes of filter 2.
    const std::tuple<int, int, bool, int> rows[] = {
        {0, 1, true, 2},  // the same texts
        {0, 2, true, 1},  // one more
        {0, 3, true, 1},  // one text differs
        {2, 0, true, 1},  // one less
        {0, 2, false, 2}, {0, 3, false, 2},
    };
    for (const auto& [from, to, adjust, filter] : rows) {
        SCOPED_TRACE(testing::Message() << from << " to " << to << (adjust ? " adjusted" : ""));
        channel.setPropertyValue(Consts::Measurement, from);
        daqAmplifier->update(false);
        channel.setPropertyValue(Consts::HPFilter, 2);
        channel.setPropertyValue(Consts::Measurement, to);
        ASSERT_EQ(runProcedure(channel, "UpdateAmplifier", toValue(adjust)), Errors::Success);
        EXPECT_EQ(read<int>(Consts::HPFilter), filter);
        EXPECT_EQ(amplifier->settings()->hpFilterIndex, filter);
        EXPECT_EQ(amplifier->settings()->hpFilters.size(), to == 2 ? 4u : 3u);
    }
}

const std::string rangesByMeasurement = choice(Consts::Measurement, R"("Voltage", "Bridge", "None")") + R"json(,
    {"name": "Range", "type": "reference",
     "reference": {"__type": "Eval", "expr": "switch($Measurement, 0, %VoltageRange, 1, %BridgeRange)"}},
    {"name": "VoltageRange", "type": "int", "selection": true, "default": 0, "unit": "V", "hidden": true, "values": [
       {"className": "RangeItem", "propValues": {"DisplayName": "10", "Min": -10.0, "Max": 10.0}},
       {"className": "RangeItem", "propValues": {"DisplayName": "1", "Min": -1.0, "Max": 1.0}}]},
    {"name": "BridgeRange", "type": "int", "selection": true, "default": 0, "hidden": true, "values": [
       {"className": "RangeItem", "propValues": {"DisplayName": "2", "Min": -2.0, "Max": 2.0}}]})json" +
                                        plain(Consts::BridgeLeg, "int", "0");

TEST_F(DaqAmplifierTest, RangesOfAMeasurement) {
    make(rangesByMeasurement);
    channel.setPropertyValue(Consts::Range, 1);
    daqAmplifier->update(false);
    EXPECT_EQ(amplifier->settings()->ranges, (Texts{"10", "1"}));
    EXPECT_EQ(amplifier->settings()->rangeUnit, "V");
    EXPECT_EQ(amplifier->getMinValue(), -1.0);

    channel.setPropertyValue(Consts::Measurement, 1);
    daqAmplifier->update(false);
    EXPECT_EQ(amplifier->settings()->ranges, Texts{"2"});
    EXPECT_EQ(amplifier->settings()->rangeUnit, "");  // has none
    EXPECT_EQ(amplifier->settings()->rangeIndex, 0);
    EXPECT_EQ(read<int>("VoltageRange"), 1);  // each measurement keeps its choice

    // Without a list for the measurement the road ends with an error, and is open again afterwards.
    channel.setName("AI 7");
    channel.setPropertyValue(Consts::Measurement, 2);
    amplifier->journal.take();
    EXPECT_EQ(runProcedure(channel, "UpdateAmplifier"), Errors::GeneralError);
    EXPECT_EQ(takeErrorMessage(), R"(Channel "AI 7", property "Range": Invalid reference to property)");
    EXPECT_TRUE(amplifier->journal.take().empty());
    channel.setPropertyValue(Consts::Measurement, 0);
    EXPECT_EQ(runProcedure(channel, "UpdateAmplifier"), Errors::Success);
    EXPECT_EQ(amplifier->settings()->rangeIndex, 1);
}

TEST_F(DaqAmplifierTest, UpdateAmplifierAnswers) {
    make(everything);
    EXPECT_EQ(runProcedure(channel, "UpdateAmplifier"), Errors::Success);
    EXPECT_EQ(runProcedure(channel, "UpdateAmplifier", toValue(true)), Errors::Success);
    EXPECT_EQ(amplifier->journal.take(), (Texts{"update", "update"}));
    for (const BasePtr& wrong : {toValue(1), toValue("true"), listOf({})}) {
        EXPECT_EQ(runProcedure(channel, "UpdateAmplifier", wrong), Errors::InvalidParameter);
        EXPECT_FALSE(takeErrorMessage().empty());
    }
    EXPECT_TRUE(amplifier->journal.take().empty());

    const std::tuple<std::function<void(TestAmplifier&)>, ErrCode, const char*> rows[] = {
        {[](TestAmplifier&) { throw OutOfRangeException("range %d", 3); }, Errors::OutOfRange, "range 3"},
        {[](TestAmplifier&) { throw std::logic_error("stuck %s"); }, Errors::GeneralError, "stuck %s"},
        {[](TestAmplifier&) { throw 5; }, Errors::GeneralError, ""},
    };
    for (const auto& [fail, code, text] : rows) {
        amplifier->onUpdate = fail;
        EXPECT_EQ(runProcedure(channel, "UpdateAmplifier"), code);
        EXPECT_EQ(takeErrorMessage(), text);
    }
}

// A listener that asks for an update from within one is told off; the road is open again behind it, also behind one
// that failed.
TEST_F(DaqAmplifierTest, AnUpdateFromWithinAnUpdateIsRefused) {
    make(everything);
    int calls = 0;
    checkErrorInfo(channel.getOnPropertyValueChanged()->addHandler(
        makeHandler([&](const BasePtr&, const ObjectPtr<IEventArgs>&) {
            ASSERT_LT(++calls, 50) << "without end";
            EXPECT_EQ(runProcedure(channel, "UpdateAmplifier"), Errors::InvalidOperation);
            EXPECT_FALSE(daqAmplifier->update(false));
        }).get()));
    amplifier->onUpdate = [&](TestAmplifier& one) {
        one.edit([](AmplifierSettings& now) { now.rangeIndex = 1 - now.rangeIndex; });
        one.setFailure(AmplifierFailure{"Range", "no answer", {}});
    };
    EXPECT_EQ(runProcedure(channel, "UpdateAmplifier"), Errors::Success);
    EXPECT_EQ(calls, 3);  // the range, and how the amplifier stands
    amplifier->onUpdate = [](TestAmplifier&) { throw InvalidStateException("gone"); };
    EXPECT_EQ(runProcedure(channel, "UpdateAmplifier"), Errors::InvalidState);
    amplifier->onUpdate = {};
    EXPECT_EQ(runProcedure(channel, "UpdateAmplifier"), Errors::Success);
    EXPECT_EQ(amplifier->journal.take(), (Texts{"update", "update", "update"}));
    takeErrorMessage();
}

TEST_F(DaqAmplifierTest, EachChannelShowsHowTheAmplifierStands) {
    make(everything);
    const auto sharer = makeHostChannel();
    daqAmplifier->addSharer(sharer);
    const auto expectShown = [&](const std::string& failure, const std::string& range, const std::string& isShort) {
        const std::string inForce =
            "Measurement: Measurement 0; Range: " + range +
            "; LPFilter: LPFilter 0; HPFilter: HPFilter 0; InputType: InputType 0; Excitation: 2.5; ExcitationType: "
            "ExcitationType 0; Short: " +
            isShort;
        for (const auto& one : {channel, sharer}) {
            for (const auto& [name, text] : {std::pair{"AmplifierFailure", failure}, {"SettingsInForce", inForce}}) {
                EXPECT_EQ(one.getPropertyValue<std::string>(name), text);
                EXPECT_TRUE(one.getPropertyInfo(name).isHidden());
            }
        }
    };
    expectShown("", "20 mV/V", "off");
    channel.setPropertyValue(Consts::Range, 1);
    amplifier->onUpdate = [](TestAmplifier& one) {
        one.setFailure(AmplifierFailure{"Range", "refused with status 3", {}});
    };
    daqAmplifier->update(false);
    expectShown("Range: refused with status 3", "2 mV/V", "off");
    // Nobody else can write it.
    for (const auto& one : {channel, sharer}) {
        one.setPropertyValue("AmplifierFailure", "");
        one.setPropertyValue("SettingsInForce", "all well");
    }
    expectShown("Range: refused with status 3", "2 mV/V", "off");
    // A place that no list has.
    channel.setPropertyValue(Consts::Range, 2);
    channel.setPropertyValue(Consts::Short, true);
    amplifier->onUpdate = [](TestAmplifier& one) {
        one.setFailure(std::nullopt);
        throw std::logic_error("stuck");
    };
    EXPECT_THROW(daqAmplifier->update(false), std::logic_error);
    expectShown("", "#2 mV/V", "on");
    // Without the module they are properties like others.
    daqAmplifier.reset();
    sharer.setPropertyValue("AmplifierFailure", "old");
    EXPECT_EQ(sharer.getPropertyValue<std::string>("AmplifierFailure"), "old");
}

// TEDS and sensor.

const std::string tedsSlots = slot(Consts::ReadTeds, "func") + slot(Consts::ResetTedsCustom, "func") +
                              slot(Consts::WriteTedsCustom, "func") + slot(Consts::ReadTedsCustom, "func");

struct TedsTest : DaqAmplifierTest {
    BasePtr call(const char* name, const BasePtr& argument = {}) const {
        return executeFunc(functionOf(channel, name), argument);
    }
    ErrCode failure(const char* name, const BasePtr& argument) const {
        try {
            call(name, argument);
            return Errors::Success;
        } catch (const ZornException& exception) {
            return exception.errorCode;
        }
    }
};

TEST_F(TedsTest, TransfersHaveFixedSizes) {
    make(tedsSlots + slot(Consts::FinalizeTedsCustom, "func") + slot(Consts::GetSensorStatus, "func"));
    amplifier->answer = 3;
    std::vector<int> all(33, 0xA5);
    all[0] = 3;
    std::vector<int> four(all.begin(), all.begin() + 5);
    four.resize(33);
    const std::vector<int> written(32, 7);
    const std::tuple<const char*, BasePtr, std::string, std::string> rows[] = {
        {Consts::ReadTeds, {}, "[3, 250, 251, 252, 253, 254, 255, 0, 1]", "readTeds"},
        {Consts::ResetTedsCustom, {}, "3", "resetTedsCustom"},
        {Consts::FinalizeTedsCustom, {}, "3", "finalizeTedsCustom"},
        {Consts::GetSensorStatus, {}, "3", "getSensorStatus"},
        {Consts::WriteTedsCustom, listOf({300, 255, -1, 0}), "3", "writeTedsCustom 4: [44, 255, 255, 0]"},
        {Consts::WriteTedsCustom, listOf({}), "3", "writeTedsCustom 0: []"},
        {Consts::WriteTedsCustom, listOf(written), "3", "writeTedsCustom 32: " + textOf(listOf(written))},
        {Consts::ReadTedsCustom, toValue(4), textOf(listOf(four)), "readTedsCustom 4"},
        {Consts::ReadTedsCustom, toValue(32), textOf(listOf(all)), "readTedsCustom 32"},
    };
    for (const auto& [name, argument, result, asked] : rows) {
        EXPECT_EQ(textOf(call(name, argument)), result);
        EXPECT_EQ(amplifier->journal.take(), Texts{asked});
    }

    // A failure is the only item.
    amplifier->answer = -2;
    EXPECT_EQ(textOf(call(Consts::ReadTeds)), "[-2]");
    EXPECT_EQ(textOf(call(Consts::ReadTedsCustom, toValue(8))), "[-2]");
    EXPECT_EQ(textOf(call(Consts::WriteTedsCustom, listOf({1}))), "-2");
}

TEST_F(TedsTest, RefusalsSendNothing) {
    make(tedsSlots);
    const std::tuple<const char*, BasePtr, ErrCode> rows[] = {
        {Consts::WriteTedsCustom, {}, Errors::ArgumentNull},
        {Consts::WriteTedsCustom, toValue(1), Errors::NoInterface},
        {Consts::WriteTedsCustom, asBase(ListPtr::create({toValue(1), toValue("2")})), Errors::InvalidParameter},
        {Consts::WriteTedsCustom, listOf(std::vector<int>(33, 0)), Errors::InvalidParameter},
        {Consts::ReadTedsCustom, {}, Errors::ArgumentNull},
        {Consts::ReadTedsCustom, toValue("4"), Errors::InvalidParameter},
        {Consts::ReadTedsCustom, toValue(33), Errors::InvalidParameter},
        {Consts::ReadTedsCustom, toValue(-1), Errors::InvalidParameter},
        {Consts::ReadTedsCustom, toValue(int64_t{1} << 32), Errors::InvalidParameter},
    };
    for (const auto& [name, argument, code] : rows) {
        EXPECT_EQ(failure(name, argument), code) << name;
    }
    EXPECT_TRUE(amplifier->journal.take().empty());
}

// A group of functions is filled as a whole or not at all.
TEST_F(TedsTest, IncompleteGroupsStayEmpty) {
    const std::vector<const char*> groups[] = {
        {Consts::ReadTeds, Consts::ResetTedsCustom, Consts::WriteTedsCustom, Consts::ReadTedsCustom},
        {"StartSensorBalance", "GetSensorBalanceStatus", "ResetSensorBalance"}};
    for (const auto& group : groups) {
        for (const char* missing : group) {
            std::string properties = slot(Consts::FinalizeTedsCustom, "func");
            for (const char* name : group) {
                properties += name == missing ? "" : slot(name, "func");
            }
            make(properties);
            for (const char* name : group) {
                EXPECT_FALSE(channel.isPropertySet(name)) << name << " without " << missing;
            }
            EXPECT_FALSE(channel.isPropertySet(Consts::FinalizeTedsCustom));
        }
    }
    make(tedsSlots);
    EXPECT_TRUE(channel.isPropertySet(Consts::ReadTeds));
    EXPECT_FALSE(channel.hasProperty(Consts::FinalizeTedsCustom));
    EXPECT_FALSE(channel.hasProperty(Consts::GetSensorStatus));
}

// Balancing from the host.

const std::string bridgeSettings =
    choice(Consts::Measurement, R"("Bridge")") + rangeList + plain(Consts::BridgeOffset, "float", "0.0") + balanceSlots;

struct HostBalanceTest : TedsTest {
    bool running() const { return fromValue<bool>(call("GetSensorBalanceStatus")); }
    const uint64_t before = zornSharedLibObjectCount.load();
};

TEST_F(HostBalanceTest, NothingElseHappensMeanwhile) {
    make(bridgeSettings);
    const auto device = makePair(amplifier, {4.0f});
    std::atomic<bool> open{false};
    amplifier->onScale = [&] { EXPECT_TRUE(eventually([&] { return open.load(); })); };
    EXPECT_FALSE(running());
    ASSERT_EQ(runProcedure(channel, "StartSensorBalance"), Errors::Success);
    EXPECT_TRUE(running());
    EXPECT_TRUE(eventually([&] { return fromValue<std::string>(call("GetSensorBalanceResult")) == "running"; }));
    channel.setPropertyValue(Consts::Range, 1);
    for (const char* name : {"StartSensorBalance", "UpdateAmplifier"}) {
        EXPECT_EQ(runProcedure(channel, name), Errors::InvalidOperation) << name;
        EXPECT_FALSE(takeErrorMessage().empty());
    }
    EXPECT_EQ(amplifier->settings()->rangeIndex, 0);
    open = true;
    ASSERT_TRUE(eventually([&] { return !running(); }));

    // The offset is shown after the next update.
    EXPECT_EQ(read<double>(Consts::BridgeOffset), 0.0);
    EXPECT_EQ(runProcedure(channel, "UpdateAmplifier"), Errors::Success);
    EXPECT_EQ(read<double>(Consts::BridgeOffset), -4.0);
    EXPECT_EQ(amplifier->settings()->rangeIndex, 1);
}

// As at a start of the acquisition, which doesn't ask whether a balancing runs.
TEST_F(HostBalanceTest, UpdatesWhileBalancing) {
    make(bridgeSettings + R"(, {"name": "DeviceRanges", "type": "float", "default": 0.0, "values": [0.1, 0.01]})");
    const auto device = makePair(amplifier, {30.0f});
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(runProcedure(channel, "StartSensorBalance"), Errors::Success);
        do {
            daqAmplifier->update(true);
            amplifier->journal.take();
        } while (running());
        EXPECT_EQ(runProcedure(channel, "ResetSensorBalance"), Errors::Success);
    }
}

// The channel, the functions taken from it and the balancing thread all outlive the module's part.
TEST_F(HostBalanceTest, WhatIsLeftAnswersThatTheModuleIsGone) {
    make(bridgeSettings + tedsSlots + slot(Consts::GetSensorStatus, "func") + slot(Consts::FinalizeTedsCustom, "func"));
    const auto device = makePair(amplifier, {4.0f});
    std::atomic<bool> open{false};
    std::atomic<bool> inside{false};
    amplifier->onScale = [&] {
        inside = true;
        EXPECT_TRUE(eventually([&] { return open.load(); }));
    };
    ASSERT_EQ(runProcedure(channel, "StartSensorBalance"), Errors::Success);
    ASSERT_TRUE(eventually([&] { return inside.load(); }));
    daqAmplifier.reset();  // returns although the thread is in the middle of a reading
    const uint64_t withThread = zornSharedLibObjectCount.load();
    amplifier->journal.take();
    for (const char* name :
         {"UpdateAmplifier", "NotifyEnterChSetup", "NotifyLeaveChSetup", "StartSensorBalance", "ResetSensorBalance"}) {
        EXPECT_EQ(runProcedure(channel, name), Errors::InvalidState) << name;
    }
    for (const char* name :
         {"GetSensorBalanceStatus", Consts::ReadTeds, Consts::ResetTedsCustom, Consts::WriteTedsCustom,
          Consts::ReadTedsCustom, Consts::FinalizeTedsCustom, Consts::GetSensorStatus}) {
        EXPECT_EQ(failure(name, listOf({1})), Errors::InvalidState) << name;
    }
    EXPECT_TRUE(amplifier->journal.take().empty());
    open = true;
    EXPECT_TRUE(eventually([&] { return zornSharedLibObjectCount.load() == withThread - 1; }));
    channel.release();
    EXPECT_TRUE(eventually([&] { return zornSharedLibObjectCount.load() == before; }));
}

}  // namespace
