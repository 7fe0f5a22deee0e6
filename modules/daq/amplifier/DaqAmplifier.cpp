#include "modules/daq/amplifier/DaqAmplifier.h"

#include <array>
#include <span>
#include <type_traits>
#include <utility>

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
    return codeOf(update(adjustFilter), "The amplifier could not be updated.");
}

bool DaqAmplifier::update(bool adjustFilter) {
    updateCapabilities(adjustFilter);
    writeToDevice();
    amplifier_->update();
    updateRtAmplifierProperties();
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

// Lists. Read first and then exchanged as a whole, since a balancing thread may look at them.

template <class T>
void DaqAmplifier::takeList(const char* name, std::vector<T> Amplifier::*list) const {
    ifPresent(name, [&] {
        const ListPtr values = channel_.getPropertyInfo(name).getValuesAsList();
        std::vector<T> items;
        for (size_t i = 0, count = values.getCount(); i < count; ++i) {
            items.push_back(fromValue<T>(values.getItemAt(i)));
        }
        const auto lock = balancer_.lockSettings();
        (*amplifier_).*list = std::move(items);
    });
}

void DaqAmplifier::takeRanges() const {
    ifPresent(Consts::Range, [&] {
        const PropertyInfoPtr info = channel_.getPropertyInfo(Consts::Range);
        const BasePtr unit = info.getUnit();
        const std::string unitText = unit ? fromValue<std::string>(unit) : std::string();
        const ListPtr values = info.getValuesAsList();
        Texts names;
        Numbers lower;
        Numbers upper;
        for (size_t i = 0, count = values.getCount(); i < count; ++i) {
            const GenericPropertyObjectPtr item = values.getItemAt(i).asPtr<IPropertyObject>();
            names.push_back(item.getPropertyValue<std::string>(RangeItemPropertyClass::DisplayNameProp));
            lower.push_back(item.getPropertyValue<double>(RangeItemPropertyClass::MinProp));
            upper.push_back(item.getPropertyValue<double>(RangeItemPropertyClass::MaxProp));
        }
        const auto lock = balancer_.lockSettings();
        amplifier_->rangeUnit = unitText;
        amplifier_->ranges = std::move(names);
        amplifier_->minValues = std::move(lower);
        amplifier_->maxValues = std::move(upper);
    });
}

// Another measurement may have other filters; the chosen number then means something else.
void DaqAmplifier::takeHighPassFilters(bool adjustFilter) const {
    if (!hasProperty(Consts::HPFilter)) {
        return;
    }
    const Texts before = amplifier_->hpFilters;
    takeList(Consts::HPFilter, &Amplifier::hpFilters);
    if (!adjustFilter || before == amplifier_->hpFilters) {
        return;
    }
    if (const BasePtr usual = channel_.getPropertyInfo(Consts::HPFilter).getDefaultValue()) {
        channel_.setPropertyValue(Consts::HPFilter, usual);
    }
}

void DaqAmplifier::updateCapabilities(bool adjustFilter) {
    takeList(Consts::Measurement, &Amplifier::measurements);
    takeRanges();
    takeList(Consts::LPFilter, &Amplifier::lpFilters);
    takeHighPassFilters(adjustFilter);
    takeList(Consts::InputType, &Amplifier::inputTypes);
    takeList(Consts::ConnectionType, &Amplifier::connectionTypes);
    takeList(Consts::ExcitationValue, &Amplifier::excitations);
    takeList(Consts::ExcitationType, &Amplifier::excitationTypes);
    takeList(Consts::ExcitationUnit, &Amplifier::excitationUnits);
    takeList(Consts::BridgeType, &Amplifier::bridgeTypes);
    takeList(Consts::BridgeShunt, &Amplifier::bridgeShunts);
    takeList(Consts::BridgeResistance, &Amplifier::bridgeResistances);
    takeList(Consts::DeviceRanges, &Amplifier::deviceRanges);
    if (hasProperty(Consts::Short)) {
        amplifier_->shortPresent = true;
        takeValue(Consts::Short, &Amplifier::shortOn);
    }
    takeValue(Consts::Shunt, &Amplifier::shunt);
}

// Values.

template <class T>
void DaqAmplifier::takeValue(const char* name, T Amplifier::*field) const {
    ifPresent(name, [&] {
        const T value = channel_.getPropertyValue<T>(name);
        const auto lock = balancer_.lockSettings();
        (*amplifier_).*field = value;
    });
}

// A choice of its list, or the number itself.
bool DaqAmplifier::excitationIsChoice() const {
    return channel_.getPropertyInfo(Consts::ExcitationValue).isSelection();
}

void DaqAmplifier::writeToDevice() const {
    takeValue(Consts::Measurement, &Amplifier::measurementIndex);
    takeValue(Consts::Range, &Amplifier::rangeIndex);
    takeValue(Consts::LPFilter, &Amplifier::lpFilterIndex);
    takeValue(Consts::HPFilter, &Amplifier::hpFilterIndex);
    takeValue(Consts::InputType, &Amplifier::inputTypeIndex);
    takeValue(Consts::ConnectionType, &Amplifier::connectionTypeIndex);
    if (hasProperty(Consts::ExcitationValue)) {
        if (excitationIsChoice()) {
            takeValue(Consts::ExcitationValue, &Amplifier::excitationIndex);
            const auto lock = balancer_.lockSettings();
            amplifier_->excitationValue = Amplifier::valueAt(amplifier_->excitations, amplifier_->excitationIndex);
        } else {
            takeValue(Consts::ExcitationValue, &Amplifier::excitationValue);
        }
    }
    takeValue(Consts::ExcitationType, &Amplifier::excitationTypeIndex);
    takeValue(Consts::ExcitationUnit, &Amplifier::excitationUnitIndex);
    takeValue(Consts::Short, &Amplifier::shortOn);
    takeValue(Consts::BridgeType, &Amplifier::bridgeTypeIndex);
    takeValue(Consts::BridgeShunt, &Amplifier::bridgeShuntIndex);
    takeValue(Consts::BridgeLeg, &Amplifier::bridgeLeg);
    takeValue(Consts::BridgeResistance, &Amplifier::bridgeResistance);
    takeValue(Consts::Shunt, &Amplifier::shunt);
    takeValue(Consts::ExternalShunt, &Amplifier::externalShuntIndex);
    takeValue(Consts::ExternalShuntResistance, &Amplifier::externalShuntResistance);
    takeValue(Consts::ExternalShuntPower, &Amplifier::externalShuntPower);
    takeValue(Consts::AltExcPolarity, &Amplifier::altExcPolarity);
    takeValue(Consts::BridgeWires, &Amplifier::bridgeWires);
}

template <class T>
T DaqAmplifier::settingOf(T Amplifier::*field) const {
    const auto lock = balancer_.lockSettings();
    return (*amplifier_).*field;
}

template <class T>
void DaqAmplifier::giveValue(const char* name, T Amplifier::*field) const {
    ifPresent(name, [&] { channel_.setPropertyValue(name, settingOf(field)); });
}

// Measurement, low-pass filter and connection type stay as the user set them.
void DaqAmplifier::updateRtAmplifierProperties() const {
    giveValue(Consts::Range, &Amplifier::rangeIndex);
    ifPresent(Consts::DeviceRanges, [&] {
        const Numbers deviceRanges = settingOf(&Amplifier::deviceRanges);
        if (!deviceRanges.empty()) {
            channel_.setPropertyValue(Consts::DeviceRanges,
                                      Amplifier::valueAt(deviceRanges, settingOf(&Amplifier::deviceRangeIndex)));
        }
    });
    giveValue(Consts::HPFilter, &Amplifier::hpFilterIndex);
    giveValue(Consts::InputType, &Amplifier::inputTypeIndex);
    if (hasProperty(Consts::ExcitationValue)) {
        if (excitationIsChoice()) {
            giveValue(Consts::ExcitationValue, &Amplifier::excitationIndex);
        } else {
            giveValue(Consts::ExcitationValue, &Amplifier::excitationValue);
        }
    }
    giveValue(Consts::ExcitationType, &Amplifier::excitationTypeIndex);
    giveValue(Consts::ExcitationUnit, &Amplifier::excitationUnitIndex);
    giveValue(Consts::Short, &Amplifier::shortOn);
    giveValue(Consts::Shunt, &Amplifier::shunt);
    giveValue(Consts::BridgeType, &Amplifier::bridgeTypeIndex);
    giveValue(Consts::BridgeShunt, &Amplifier::bridgeShuntIndex);
    giveValue(Consts::BridgeLeg, &Amplifier::bridgeLeg);
    giveValue(Consts::ExternalShunt, &Amplifier::externalShuntIndex);
    giveValue(Consts::BridgeShuntValue, &Amplifier::bridgeShuntValue);
    ifPresent(Consts::BridgeOffset,
              [&] { channel_.setPropertyValue(Consts::BridgeOffset, amplifier_->bridgeOffset.load()); });
    giveValue(Consts::AltExcPolarity, &Amplifier::altExcPolarity);
    giveValue(Consts::BridgeWires, &Amplifier::bridgeWires);
}

// Operations.

bool DaqAmplifier::hasProperty(const StringPtr& name) const {
    return channel_.hasProperty(name);
}

template <class Body>
void DaqAmplifier::setProcedure(const char* name, Body body) {
    channel_.setPropertyValue(name, makeProc(life_.guard(std::move(body))));
}

// `body` turns the argument into the result.
template <class Body>
void DaqAmplifier::setFunction(const char* name, Body body) {
    channel_.setPropertyValue(
        name, makeFunc(life_.guard([body = std::move(body)](const BasePtr& argument, BasePtr& result) -> ErrCode {
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
