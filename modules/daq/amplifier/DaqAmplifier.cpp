#include "modules/daq/amplifier/DaqAmplifier.h"

#include <algorithm>
#include <array>
#include <locale>
#include <span>
#include <sstream>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include <zorn/structure/property_classes.h>

#include "modules/daq/amplifier/DaqAmplifierConsts.h"
#include "modules/daq/objectmodel/Amplifier.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;
using Consts = DaqAmplifierConsts;

namespace {

constexpr const char* serialNumberProp = "SerialNumber";
constexpr const char* softwareRevisionProp = "SoftwareRevision";
constexpr const char* hardwareRevisionProp = "HardwareRevision";
constexpr const char* calibrationDateProp = "CalibrationDate";
constexpr const char* updateAmplifierProp = "UpdateAmplifier";
constexpr const char* startSensorBalanceProp = "StartSensorBalance";
constexpr const char* getSensorBalanceStatusProp = "GetSensorBalanceStatus";
constexpr const char* resetSensorBalanceProp = "ResetSensorBalance";

constexpr size_t tedsSize = 8;         // bytes: the chip's identification
constexpr size_t tedsCustomSize = 32;  // bytes: the custom area

int64_t integerOf(const BasePtr& value, const char* what) {
    const auto number = value.asPtrOrNull<IIntObject>();
    if (!number) {
        throw InvalidParameterException("%s must be an integer.", what);
    }
    int64_t result = 0;
    checkErrorInfo(number->getValue(&result));
    return result;
}

ErrCode codeOf(bool done, const char* text) {
    return done ? Errors::Success : makeError(Errors::InvalidOperation, text);
}

// True as long as it lives, also on the way of an exception.
class Raised {
public:
    explicit Raised(bool& flag) : flag_(flag) { flag_ = true; }
    ~Raised() { flag_ = false; }
    Raised(const Raised&) = delete;
    Raised& operator=(const Raised&) = delete;

private:
    bool& flag_;
};

// The answer of an operation and, unless it failed, the bytes that came with it.
BasePtr answerWithBytes(int answer, std::span<const unsigned char> bytes) {
    const ListPtr list = ListPtr::create({toValue(answer)});
    if (answer >= 0) {
        for (const unsigned char byte : bytes) {
            list.pushBack(toValue(static_cast<int>(byte)));
        }
    }
    return asBase(list);
}

}  // namespace

// What carries a setting: its property, the choices that it has, the field that holds it. A setting goes to the
// amplifier, comes back, or both. The order is that in which the host sees what comes back; the measurement is first,
// since the other properties hang on it.
struct DaqAmplifier::Row {
    enum class Way { Both, ToAmplifier, FromAmplifier };
    using Lists = std::variant<std::monostate, std::vector<std::string> AmplifierSettings::*,
                               std::vector<double> AmplifierSettings::*>;
    using Field = std::variant<std::monostate, std::int32_t AmplifierSettings::*, double AmplifierSettings::*,
                               bool AmplifierSettings::*>;

    const char* name;
    Lists list;
    Field field;  // none: the row is one of a kind and has its own code
    Way way = Way::Both;
    bool ofHardware = false;  // a module has it in force

    bool is(std::string_view other) const { return other == name; }
};

const DaqAmplifier::Row DaqAmplifier::rows[] = {
    {Consts::Measurement, &AmplifierSettings::measurements, &AmplifierSettings::measurementIndex, Row::Way::Both, true},
    {Consts::Range, &AmplifierSettings::ranges, &AmplifierSettings::rangeIndex, Row::Way::Both, true},
    {Consts::DeviceRanges, &AmplifierSettings::deviceRanges, {}, Row::Way::FromAmplifier},
    {Consts::LPFilter, &AmplifierSettings::lpFilters, &AmplifierSettings::lpFilterIndex, Row::Way::Both, true},
    {Consts::HPFilter, &AmplifierSettings::hpFilters, &AmplifierSettings::hpFilterIndex, Row::Way::Both, true},
    {Consts::InputType, &AmplifierSettings::inputTypes, &AmplifierSettings::inputTypeIndex, Row::Way::Both, true},
    {Consts::ConnectionType, &AmplifierSettings::connectionTypes, &AmplifierSettings::connectionTypeIndex,
     Row::Way::ToAmplifier},
    {Consts::ExcitationValue, &AmplifierSettings::excitations, {}, Row::Way::Both, true},
    {Consts::ExcitationType, &AmplifierSettings::excitationTypes, &AmplifierSettings::excitationTypeIndex,
     Row::Way::Both, true},
    {Consts::ExcitationUnit, &AmplifierSettings::excitationUnits, &AmplifierSettings::excitationUnitIndex},
    {Consts::Short, {}, &AmplifierSettings::shortOn, Row::Way::Both, true},
    {Consts::Shunt, {}, &AmplifierSettings::shunt},
    {Consts::BridgeType, &AmplifierSettings::bridgeTypes, &AmplifierSettings::bridgeTypeIndex},
    {Consts::BridgeShunt, &AmplifierSettings::bridgeShunts, &AmplifierSettings::bridgeShuntIndex},
    {Consts::BridgeLeg, {}, &AmplifierSettings::bridgeLeg},
    {Consts::BridgeResistance, &AmplifierSettings::bridgeResistances, &AmplifierSettings::bridgeResistance,
     Row::Way::ToAmplifier},
    {Consts::ExternalShunt, {}, &AmplifierSettings::externalShuntIndex},
    {Consts::ExternalShuntResistance, {}, &AmplifierSettings::externalShuntResistance, Row::Way::ToAmplifier},
    {Consts::ExternalShuntPower, {}, &AmplifierSettings::externalShuntPower, Row::Way::ToAmplifier},
    {Consts::BridgeShuntValue, {}, &AmplifierSettings::bridgeShuntValue, Row::Way::FromAmplifier},
    {Consts::BridgeOffset, {}, {}, Row::Way::FromAmplifier},
    {Consts::AltExcPolarity, {}, &AmplifierSettings::altExcPolarity},
    {Consts::BridgeWires, {}, &AmplifierSettings::bridgeWires},
};

DaqAmplifier::DaqAmplifier(const ChannelPtr<IChannel>& channel, const std::shared_ptr<Amplifier>& amplifier,
                           AcquisitionSyncPtr sync, std::chrono::nanoseconds settleTime)
    : channel_(channel), amplifier_(amplifier), balancer_(std::move(sync), settleTime) {}

DaqAmplifier::~DaqAmplifier() {
    balancer_.stop();
}

void DaqAmplifier::init(const std::string& className) {
    channel_.setClassName(className);
    balancer_.setChannelName(channelName());
    registerFacts();
    addSharer(channel_);
    registerProcedure(updateAmplifierProp, [this](const BasePtr& argument) { return onUpdateAmplifier(argument); });
    if (hasBridgeBalanceProperties()) {
        initBridgeBalanceProperties();
    }
    if (hasTedsProperties()) {
        initTedsProperties();
    }
    if (hasProperty(Consts::GetSensorStatus)) {
        setFunction(Consts::GetSensorStatus, [this](const BasePtr&) { return toValue(amplifier_->getSensorStatus()); });
    }
    registerProcedure(Consts::NotifyEnterChSetup, [this](const BasePtr&) -> ErrCode {
        amplifier_->notifyEnterChSetup();
        return Errors::Success;
    });
    registerProcedure(Consts::NotifyLeaveChSetup, [this](const BasePtr&) -> ErrCode {
        amplifier_->notifyLeaveChSetup();
        return Errors::Success;
    });
    bool hasLed = false;
    ifPresent(Consts::SupportsLed1Control,
              [&] { hasLed = channel_.getPropertyValue<bool>(Consts::SupportsLed1Control); });
    if (hasLed) {
        amplifier_->ledControl = true;
        amplifier_->notifyLeaveChSetup();
    }
    if (!balancer_.isBalancingRunning()) {
        update(false);
    }
}

// What the module said of itself when it was found.
void DaqAmplifier::registerFacts() {
    const std::pair<const char*, std::string> facts[] = {{serialNumberProp, amplifier_->serialNumber},
                                                         {softwareRevisionProp, amplifier_->softwareRevision},
                                                         {hardwareRevisionProp, amplifier_->hardwareRevision},
                                                         {calibrationDateProp, amplifier_->calibrationDate}};
    for (const auto& [name, text] : facts) {
        channel_.registerProperty(PropertyInfoPtr::create(name, CoreType::String).readOnly(text));
    }
}

ErrCode DaqAmplifier::onUpdateAmplifier(const BasePtr& argument) {
    bool adjustFilter = false;
    if (argument) {
        const auto flag = argument.asPtrOrNull<IBoolObject>();
        if (!flag) {
            throw InvalidParameterException("UpdateAmplifier takes a Boolean value or nothing.");
        }
        unsigned char value = 0;
        checkErrorInfo(flag->getValue(&value));
        adjustFilter = value != 0;
    }
    if (balancer_.isBalancingRunning()) {
        return makeError(Errors::InvalidOperation, "The amplifier can't be changed while it is being balanced.");
    }
    if (!updating_) {
        amplifier_->beginRequest();
    }
    return codeOf(update(adjustFilter), "The amplifier can't be changed from within a change of it.");
}

bool DaqAmplifier::update(bool adjustFilter) {
    if (updating_) {
        return false;
    }
    const Raised scope(updating_);
    AmplifierSettings settings = *amplifier_->settings();
    readLists(settings, adjustFilter);
    readValues(settings);
    amplifier_->setSettings(std::move(settings));
    try {
        amplifier_->update();
    } catch (...) {
        showState();
        throw;
    }
    updateRtAmplifierProperties();
    showState();
    return true;
}

// With its folder's name: the channels of all amplifiers may be called alike.
std::string DaqAmplifier::channelName() const {
    const std::string name = channel_.getName().toStdString();
    const auto parent = channel_.getParent();
    const auto folder = parent ? parent.asPtrOrNull<IChannelNode>() : ObjectPtr<IChannelNode>();
    return folder ? ChannelNodePtr<>(folder).getName().toStdString() + "/" + name : name;
}

// A failure of the host says what went wrong, but not with what.
template <class Body>
void DaqAmplifier::ifPresent(const char* name, Body&& body) const {
    if (!hasProperty(name)) {
        return;
    }
    try {
        body();
    } catch (const ZornException& exception) {
        ErrorCodeToException::GetInstance().throwExceptionFromErrorCode(
            exception.errorCode, "Channel \"" + channelName() + "\", property \"" + name + "\": " + exception.what());
    }
}

// Lists.

template <class T>
std::vector<T> DaqAmplifier::listOf(const char* name) const {
    const ListPtr values = channel_.getPropertyInfo(name).getValuesAsList();
    std::vector<T> items;
    for (size_t i = 0, count = values.getCount(); i < count; ++i) {
        items.push_back(fromValue<T>(values.getItemAt(i)));
    }
    return items;
}

void DaqAmplifier::readRanges(AmplifierSettings& settings) const {
    const PropertyInfoPtr info = channel_.getPropertyInfo(Consts::Range);
    const BasePtr unit = info.getUnit();
    settings.rangeUnit = unit ? fromValue<std::string>(unit) : std::string();
    settings.ranges.clear();
    settings.minValues.clear();
    settings.maxValues.clear();
    const ListPtr values = info.getValuesAsList();
    for (size_t i = 0, count = values.getCount(); i < count; ++i) {
        const GenericPropertyObjectPtr item = values.getItemAt(i).asPtr<IPropertyObject>();
        settings.ranges.push_back(item.getPropertyValue<std::string>(RangeItemPropertyClass::DisplayNameProp));
        settings.minValues.push_back(item.getPropertyValue<double>(RangeItemPropertyClass::MinProp));
        settings.maxValues.push_back(item.getPropertyValue<double>(RangeItemPropertyClass::MaxProp));
    }
}

// Another measurement may have other filters; the chosen number then means something else.
void DaqAmplifier::readHighPassFilters(AmplifierSettings& settings, bool adjustFilter) const {
    const auto before = std::exchange(settings.hpFilters, listOf<std::string>(Consts::HPFilter));
    if (!adjustFilter || before == settings.hpFilters) {
        return;
    }
    if (const BasePtr usual = channel_.getPropertyInfo(Consts::HPFilter).getDefaultValue()) {
        channel_.setPropertyValue(Consts::HPFilter, usual);
    }
}

void DaqAmplifier::readLists(AmplifierSettings& settings, bool adjustFilter) const {
    for (const Row& row : rows) {
        ifPresent(row.name, [&] {
            if (row.is(Consts::Range)) {
                readRanges(settings);
            } else if (row.is(Consts::HPFilter)) {
                readHighPassFilters(settings, adjustFilter);
            } else if (const auto* texts = std::get_if<std::vector<std::string> AmplifierSettings::*>(&row.list)) {
                settings.*(*texts) = listOf<std::string>(row.name);
            } else if (const auto* numbers = std::get_if<std::vector<double> AmplifierSettings::*>(&row.list)) {
                settings.*(*numbers) = listOf<double>(row.name);
            }
        });
    }
    settings.shortPresent = settings.shortPresent || hasProperty(Consts::Short);
}

void DaqAmplifier::updateCapabilities(bool adjustFilter) {
    amplifier_->edit([&](AmplifierSettings& settings) { readLists(settings, adjustFilter); });
}

// Values.

// A choice of its list, or the number itself.
bool DaqAmplifier::excitationIsChoice() const {
    return channel_.getPropertyInfo(Consts::ExcitationValue).isSelection();
}

void DaqAmplifier::readValue(const Row& row, AmplifierSettings& settings) const {
    if (row.is(Consts::ExcitationValue)) {
        if (excitationIsChoice()) {
            settings.excitationIndex = channel_.getPropertyValue<std::int32_t>(row.name);
            settings.excitationValue = AmplifierSettings::valueAt(settings.excitations, settings.excitationIndex);
        } else {
            settings.excitationValue = channel_.getPropertyValue<double>(row.name);
        }
        return;
    }
    std::visit(
        [&]<class Field>(Field field) {
            if constexpr (!std::is_same_v<Field, std::monostate>) {
                using Value = std::remove_reference_t<decltype(settings.*field)>;
                settings.*field = channel_.getPropertyValue<Value>(row.name);
            }
        },
        row.field);
}

void DaqAmplifier::readValues(AmplifierSettings& settings) const {
    for (const Row& row : rows) {
        if (row.way != Row::Way::FromAmplifier) {
            ifPresent(row.name, [&] { readValue(row, settings); });
        }
    }
}

void DaqAmplifier::writeToDevice() const {
    amplifier_->edit([this](AmplifierSettings& settings) { readValues(settings); });
}

// A property that has the value already is left alone: nobody needs to hear of it.
template <class T>
void DaqAmplifier::giveBack(const char* name, const T& value) const {
    if (channel_.getPropertyValue<T>(name) != value) {
        channel_.setPropertyValue(name, value);
    }
}

void DaqAmplifier::giveValue(const Row& row, const AmplifierSettings& settings) const {
    if (row.is(Consts::DeviceRanges)) {
        if (!settings.deviceRanges.empty()) {
            giveBack(row.name, AmplifierSettings::valueAt(settings.deviceRanges, settings.deviceRangeIndex));
        }
    } else if (row.is(Consts::BridgeOffset)) {
        giveBack(row.name, amplifier_->bridgeOffset.load());
    } else if (row.is(Consts::ExcitationValue)) {
        if (excitationIsChoice()) {
            giveBack(row.name, settings.excitationIndex);
        } else {
            giveBack(row.name, settings.excitationValue);
        }
    } else {
        std::visit(
            [&]<class Field>(Field field) {
                if constexpr (!std::is_same_v<Field, std::monostate>) {
                    giveBack(row.name, settings.*field);
                }
            },
            row.field);
    }
}

void DaqAmplifier::updateRtAmplifierProperties() const {
    const auto settings = amplifier_->settings();
    for (const Row& row : rows) {
        if (row.way != Row::Way::ToAmplifier) {
            ifPresent(row.name, [&] { giveValue(row, *settings); });
        }
    }
}

// How it stands.

std::string DaqAmplifier::settingsInForceText() const {
    if (!amplifier_->areSettingsInForceKnown()) {
        return {};
    }
    const auto settings = amplifier_->settingsInForce();
    std::ostringstream text;
    text.imbue(std::locale::classic());
    for (const Row& row : rows) {
        if (!row.ofHardware || !hasProperty(row.name)) {
            continue;
        }
        text << (text.tellp() == 0 ? "" : "; ") << row.name << ": ";
        const auto* texts = std::get_if<std::vector<std::string> AmplifierSettings::*>(&row.list);
        const auto* place = std::get_if<std::int32_t AmplifierSettings::*>(&row.field);
        if (texts != nullptr && place != nullptr) {
            const std::string choice = AmplifierSettings::textAt((*settings).*(*texts), (*settings).*(*place));
            text << (choice.empty() ? "#" + std::to_string((*settings).*(*place)) : choice);
            if (row.is(Consts::Range) && !settings->rangeUnit.empty()) {
                text << " " << settings->rangeUnit;
            }
        } else if (row.is(Consts::ExcitationValue)) {
            text << settings->excitationValue;
        } else {
            text << (settings->shortOn ? "on" : "off");
        }
    }
    return text.str();
}

void DaqAmplifier::addSharer(const ChannelPtr<IChannel>& channel) {
    if (std::any_of(shownOn_.begin(), shownOn_.end(),
                    [&](const auto& other) { return other.get() == channel.get(); })) {
        return;
    }
    for (const char* name : {Consts::AmplifierFailure, Consts::SettingsInForce}) {
        const auto info = PropertyInfoPtr::create(name, CoreType::String).defaultValue("").hidden();
        IEvent* event = nullptr;
        checkErrorInfo(info->getOnValueChanged(&event));
        channel.registerProperty(info);
        hooks_.subscribe(ObjectPtr<IEvent>::take(event), [this](auto&, auto&) {
            if (!showing_) {
                showState();
            }
        });
    }
    shownOn_.push_back(channel);
    showStateOn(channel);
}

void DaqAmplifier::showState() {
    for (const auto& channel : shownOn_) {
        showStateOn(channel);
    }
}

// Nobody else may write it: a setup that is loaded brings what was so when it was stored.
void DaqAmplifier::showStateOn(const ChannelPtr<IChannel>& channel) {
    const auto failure = amplifier_->lastFailure();
    const std::pair<const char*, std::string> facts[] = {
        {Consts::AmplifierFailure, failure ? failure->text() : std::string()},
        {Consts::SettingsInForce, settingsInForceText()}};
    const Raised scope(showing_);
    for (const auto& [name, text] : facts) {
        if (channel.getPropertyValue<std::string>(name) != text) {
            channel.setPropertyValue(name, text);
        }
    }
}

// Operations.

bool DaqAmplifier::hasProperty(const StringPtr& name) const {
    return channel_.hasProperty(name);
}

template <class Body>
void DaqAmplifier::setProcedure(const char* name, Body body) {
    channel_.setPropertyValue(name, makeProc(hooks_.whileAlive(std::move(body))));
}

// `body` turns the argument into the result.
template <class Body>
void DaqAmplifier::setFunction(const char* name, Body body) {
    channel_.setPropertyValue(
        name, makeFunc(hooks_.whileAlive([body = std::move(body)](const BasePtr& argument, BasePtr& result) -> ErrCode {
            result = body(argument);
            return Errors::Success;
        })));
}

template <class Body>
void DaqAmplifier::registerProcedure(const char* name, Body body) {
    channel_.registerProperty(PropertyInfoPtr::create(name, CoreType::Proc));
    setProcedure(name, std::move(body));
}

bool DaqAmplifier::hasTedsProperties() const {
    return hasProperty(Consts::ReadTeds) && hasProperty(Consts::ResetTedsCustom) &&
           hasProperty(Consts::WriteTedsCustom) && hasProperty(Consts::ReadTedsCustom);
}

bool DaqAmplifier::hasBridgeBalanceProperties() const {
    return hasProperty(startSensorBalanceProp) && hasProperty(getSensorBalanceStatusProp) &&
           hasProperty(resetSensorBalanceProp);
}

void DaqAmplifier::initTedsProperties() {
    setFunction(Consts::ReadTeds, [this](const BasePtr&) { return readTeds(); });
    setFunction(Consts::ResetTedsCustom, [this](const BasePtr&) { return toValue(amplifier_->resetTedsCustom()); });
    setFunction(Consts::WriteTedsCustom, [this](const BasePtr& argument) { return writeTedsCustom(argument); });
    setFunction(Consts::ReadTedsCustom, [this](const BasePtr& argument) { return readTedsCustom(argument); });
    if (hasProperty(Consts::FinalizeTedsCustom)) {
        setFunction(Consts::FinalizeTedsCustom,
                    [this](const BasePtr&) { return toValue(amplifier_->finalizeTedsCustom()); });
    }
}

void DaqAmplifier::initBridgeBalanceProperties() {
    setProcedure(startSensorBalanceProp, [this](const BasePtr&) {
        return codeOf(balancer_.balanceAmplifier(amplifier_), "The amplifier is being balanced already.");
    });
    setFunction(getSensorBalanceStatusProp, [this](const BasePtr&) { return toValue(balancer_.isBalancingRunning()); });
    channel_.registerProperty(PropertyInfoPtr::create(Consts::GetSensorBalanceResult, CoreType::Func).hidden());
    setFunction(Consts::GetSensorBalanceResult, [this](const BasePtr&) { return toValue(balancer_.result()); });
    setProcedure(resetSensorBalanceProp, [this](const BasePtr&) {
        return codeOf(balancer_.resetAmplifierBalance(amplifier_), "The balance could not be reset.");
    });
}

BasePtr DaqAmplifier::readTeds() const {
    std::array<unsigned char, tedsSize> buffer{};
    const int answer = amplifier_->readTeds(buffer.data());
    return answerWithBytes(answer, buffer);
}

BasePtr DaqAmplifier::writeTedsCustom(const BasePtr& argument) const {
    if (!argument) {
        throw ArgumentNullException();
    }
    const ListPtr list = argument.asPtr<IList>();
    const size_t count = list.getCount();
    if (count > tedsCustomSize) {
        throw InvalidParameterException("The custom area holds %zu bytes, not %zu.", tedsCustomSize, count);
    }
    std::array<unsigned char, tedsCustomSize> buffer{};
    for (size_t i = 0; i < count; ++i) {
        buffer[i] = static_cast<unsigned char>(integerOf(list.getItemAt(i), "Each byte of the custom area"));
    }
    return toValue(amplifier_->writeTedsCustom(buffer.data(), count));
}

BasePtr DaqAmplifier::readTedsCustom(const BasePtr& argument) const {
    if (!argument) {
        throw ArgumentNullException();
    }
    const int64_t count = integerOf(argument, "The number of bytes");
    if (count < 0 || count > static_cast<int64_t>(tedsCustomSize)) {
        throw InvalidParameterException("The custom area holds %zu bytes, not %lld.", tedsCustomSize,
                                        static_cast<long long>(count));
    }
    std::array<unsigned char, tedsCustomSize> buffer{};
    const int answer = amplifier_->readTedsCustom(buffer.data(), static_cast<unsigned long>(count));
    return answerWithBytes(answer, buffer);
}

}  // namespace Harvane::RT::Modules::Daq
