#include "modules/daq/bridge/DaqStructure.h"

#include <algorithm>
#include <limits>
#include <string>

#include <boost/filesystem/operations.hpp>

#include <zorn/structure/property_classes.h>

#include "modules/daq/amplifier/DaqAmplifier.h"
#include "modules/daq/bridge/CntProperties.h"
#include "modules/daq/bridge/DaqChannelBuffer.h"
#include "modules/daq/bridge/DaqStructureConsts.h"
#include "modules/daq/bridge/RtcClasses.h"
#include "modules/daq/controller/DaqController.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/AIDevice.h"
#include "modules/daq/objectmodel/AOChannel.h"
#include "modules/daq/objectmodel/Amplifier.h"
#include "modules/daq/objectmodel/CANChannel.h"
#include "modules/daq/objectmodel/Channel.h"
#include "modules/daq/objectmodel/ChannelFolder.h"
#include "modules/daq/objectmodel/CntChannel.h"
#include "modules/daq/objectmodel/DaqDevice.h"
#include "modules/daq/objectmodel/DaqLoop.h"
#include "modules/daq/objectmodel/Log.h"
#include "modules/daq/synchronization/Synchronization.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

namespace {

Ratio rateValue(int rate) {
    return Ratio{rate, 1};
}

int toInt(int64_t value) {
    return static_cast<int>(
        std::clamp<int64_t>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

// Rates are 32 bits wide: a larger request means "as fast as possible".
int intOf(const BasePtr& value) {
    return toInt(fromValue<int64_t>(value));
}

// After the property was cleared there is no new value: then what the object shows counts.
BasePtr changedObject(const GenericPropertyObjectPtr& sender, const PropertyValueChangedEventArgsPtr& args) {
    int32_t changeType = 0;
    checkErrorInfo(args->getChangeType(&changeType));
    const bool cleared = changeType == static_cast<int32_t>(PropertyChangeType::Cleared);
    return cleared ? sender.getPropertyValue(args.getPropertyName()) : args.getValue();
}

int changedValue(const GenericPropertyObjectPtr& sender, const PropertyValueChangedEventArgsPtr& args) {
    return intOf(changedObject(sender, args));
}

std::pair<int, int> twoRates(const BasePtr& arguments) {
    const ListPtr list = arguments.asPtr<IList>();
    return {intOf(list.getItemAt(0)), intOf(list.getItemAt(1))};
}

// Position of the clock in force in the list of selectable ones; -1 when it isn't there.
int baseClockIndex(const AIDevice& device) {
    const auto& clocks = device.baseClocks;
    const auto found = std::find(clocks.begin(), clocks.end(), device.baseClock);
    return found == clocks.end() ? -1 : static_cast<int>(found - clocks.begin());
}

bool isSync(const Channel& channel) {
    return channel.sampleType == SampleType::Sync;
}

template <class I>
bool isSameObject(const BasePtr& sender, const ObjectPtr<I>& object) {
    const BasePtr other = asBase(object);
    if (auto comparable = sender.asPtrOrNull<IComparable>()) {
        int result = 0;
        if (succeeded(comparable->compareTo(other.get(), &result))) {
            return result == 0;
        }
        zornClearErrorInfo();
        return false;
    }
    return sender.equals(other);
}

template <class T>
PropertyInfoPtr readOnlyInfo(const char* name, CoreType type, const T& value) {
    return PropertyInfoPtr::create(name, type).readOnly(value);
}

template <class I>
void registerFunction(const PropertyObjectPtr<I>& object, const char* name, const ObjectPtr<IFuncObject>& function) {
    object.registerProperty(PropertyInfoPtr::create(name, CoreType::Func));
    object.setPropertyValue(name, function);
}

ObjectPtr<IEvent> valueChangedEvent(const PropertyInfoPtr& info) {
    IEvent* event = nullptr;
    checkErrorInfo(info->getOnValueChanged(&event));
    return ObjectPtr<IEvent>::take(event);
}

// The settings of a route out of the instrument, as an object of one of the host's classes for routes.
void addRoute(const ChannelPtr<IChannel>& hostChannel, const char* className) {
    constexpr ConfigurationMode load = 1;
    constexpr PropertyState inTheSetup = 6;
    hostChannel.registerProperty(PropertyInfoPtr::create(OutputChannelConsts::RtcProp, CoreType::Object)
                                     .configurationAction(load, inTheSetup, ConfigurationAction::TakeOver));
    IPropertyObject* route = nullptr;
    checkErrorInfo(createPropertyObject(&route, nullptr, StringPtr(className).get()));
    hostChannel.setPropertyValue(OutputChannelConsts::RtcProp,
                                 GenericPropertyObjectPtr(ObjectPtr<IPropertyObject>::take(route)));
}

}  // namespace

// Keeps the handlers from answering the bridge's own writes. Scopes nest.
class DaqStructure::UpdatingScope {
public:
    explicit UpdatingScope(int& depth) : depth_(depth) { ++depth_; }
    ~UpdatingScope() { --depth_; }
    UpdatingScope(const UpdatingScope&) = delete;
    UpdatingScope& operator=(const UpdatingScope&) = delete;

private:
    int& depth_;
};

template <class Body>
auto DaqStructure::whileAlive(Body body) const {
    return life_.guard(std::move(body));
}

void DaqStructure::subscribe(const ObjectPtr<IEvent>& event, Handler handler) {
    auto object = makeHandler(
        [life = life_.watch(), this, handler](const BasePtr& sender, const ObjectPtr<IEventArgs>& arguments) {
            if (life.expired()) {
                return;
            }
            GenericPropertyObjectPtr owner = sender.asPtr<IPropertyObject>();
            PropertyValueChangedEventArgsPtr args = arguments.asPtr<IPropertyValueChangedEventArgs>();
            (this->*handler)(owner, args);
        });
    checkErrorInfo(event->addHandler(object.get()));
    subscriptions_.emplace_back(event, std::move(object));
}

template <class Body>
void DaqStructure::runHandler(const char* name, Body&& body) {
    if (updating_ > 0 || controller_.acqRunning) {
        return;
    }
    const UpdatingScope scope(updating_);
    try {
        body();
    } catch (const std::exception& exception) {
        LOG_(0, plog::error) << "Error executing DaqStructure::" << name << ": " << textOf(exception);
    }
}

DaqStructure::DaqStructure(DaqController& controller) : controller_(controller) {
    boost::system::error_code error;
    const auto directory = boost::filesystem::current_path(error).string();
    amplifierFactory_.registerAmplifiers((error ? std::string(".") : directory) + "/amplifiers/");
}

DaqStructure::~DaqStructure() {
    amplifierFactory_.unregisterAmplifiers();
    life_.end();
    for (const auto& [event, handler] : subscriptions_) {
        if (failed(event->removeHandler(handler.get()))) {
            zornClearErrorInfo();
        }
    }
}

// Building.

void DaqStructure::buildDataModuleProps(const DataModulePtr& dataModule) {
    const UpdatingScope scope(updating_);
    dataModule_ = dataModule;

    const int minRate = controller_.getMinSampleRate();
    const int maxRate = controller_.getMaxSampleRate();
    const auto sampleRate = PropertyInfoPtr::create(DataModuleConsts::SampleRateProp, CoreType::Ratio)
                                .defaultValue(rateValue(1000))
                                .min(rateValue(minRate))
                                .max(rateValue(maxRate));
    subscribe(valueChangedEvent(sampleRate), &DaqStructure::onSampleRateChanged);
    dataModule.registerProperty(sampleRate);
    // The handler is quiet here, so the devices get the rate directly.
    try {
        dataModule.setPropertyValue(DataModuleConsts::SampleRateProp, rateValue(controller_.sampleRate));
        applySystemRate(checkedSystemRate(controller_.sampleRate, GenericPropertyObjectPtr(dataModule.get())));
    } catch (const std::exception& exception) {
        LOG_(0, plog::error) << "Error executing DaqStructure::onSampleRateChanged: " << textOf(exception);
    }

    dataModule.registerProperty(
        PropertyInfoPtr::create(DataModuleConsts::MinSampleRateProp, CoreType::Ratio).defaultValue(rateValue(minRate)));
    dataModule.registerProperty(
        PropertyInfoPtr::create(DataModuleConsts::MaxSampleRateProp, CoreType::Ratio).defaultValue(rateValue(maxRate)));
    registerFunction(dataModule, DataModuleConsts::CheckSampleRateProp,
                     makeFunc(whileAlive([this](const BasePtr& argument, BasePtr& result) -> ErrCode {
                         result = toValue(rateValue(controller_.checkSampleRate(intOf(argument))));
                         return Errors::Success;
                     })));
    registerLoopProperties();

    dataModule.registerProperty(PropertyInfoPtr::create(DataModuleConsts::BeforeStartProp, CoreType::Proc));
    dataModule.setPropertyValue(DataModuleConsts::BeforeStartProp,
                                makeProc(whileAlive([this](const BasePtr&) -> ErrCode {
                                    beforeStart();
                                    return Errors::Success;
                                })));
    registerSynchronization();
}

void DaqStructure::registerSynchronization() {
    const ListPtr options = ListPtr::create();
    for (const auto& option : controller_.getSynchronizationOptions()) {
        options.pushBack(asBase(syncOptionValueToRtCore(option)));
    }
    dataModule_.registerProperty(readOnlyInfo(DataModuleConsts::SynchronizationOptionsProp, CoreType::List, options));

    const auto info = PropertyInfoPtr::create(DataModuleConsts::SynchronizationProp, CoreType::List);
    const auto event = valueChangedEvent(info);
    dataModule_.registerProperty(info);
    dataModule_.setPropertyValue(DataModuleConsts::SynchronizationProp,
                                 syncOptionValueToRtCore(controller_.synchronization));
    // Only now: what was just written is the controller's own option.
    subscribe(event, &DaqStructure::onSynchronizationChanged);
}

ListPtr DaqStructure::syncOptionValueToRtCore(const std::pair<SynchronizationMode, SynchronizationModes>& option) {
    const ListPtr sources = ListPtr::create();
    for (const SynchronizationMode mode : option.second) {
        sources.pushBack(toValue(static_cast<int>(mode)));
    }
    return ListPtr::create({toValue(static_cast<int>(option.first)), asBase(sources)});
}

std::pair<SynchronizationMode, SynchronizationModes> DaqStructure::syncOptionValueFromRtCore(
    const ObjectPtr<IBaseObject>& value) {
    const auto listOf = [](const BasePtr& object) {
        auto list = object ? object.asPtrOrNull<IList>() : ObjectPtr<IList>();
        if (!list) {
            throw InvalidParameterException(
                "A synchronisation option is a list of a mode and the list of the modes that it sources.");
        }
        return ListPtr(list);
    };
    const auto modeOf = [](int64_t number) { return static_cast<SynchronizationMode>(toInt(number)); };

    const ListPtr items = listOf(value);
    const SynchronizationMode slaveMode = modeOf(fromValue<int64_t>(items.getItemAt(0)));
    const ListPtr sources = listOf(items.getItemAt(1));
    SynchronizationModes sourceModes;
    for (size_t i = 0, count = sources.getCount(); i < count; ++i) {
        const BasePtr item = sources.getItemAt(i);
        const auto number = item ? item.asPtrOrNull<IIntObject>() : ObjectPtr<IIntObject>();
        if (!number) {
            throw ConversionFailedException("A source mode of a synchronisation option is an int.");
        }
        int64_t mode = 0;
        checkErrorInfo(number->getValue(&mode));
        sourceModes.insert(modeOf(mode));
    }
    return Synchronization::CreateSyncOption(slaveMode, sourceModes);
}

// Unlike a rate it may be chosen while an acquisition runs: it counts from the next configuration on. A refusal goes to
// whoever wrote the property.
void DaqStructure::onSynchronizationChanged(GenericPropertyObjectPtr& sender, PropertyValueChangedEventArgsPtr& args) {
    controller_.setSynchronization(syncOptionValueFromRtCore(changedObject(sender, args)));
}

void DaqStructure::registerLoopProperties() {
    const auto loop = controller_.loopDevice;
    if (!loop) {
        return;
    }
    dataModule_.registerProperty(PropertyInfoPtr::create(DataModuleConsts::CycleRateProp, CoreType::Ratio)
                                     .defaultValue(rateValue(100))
                                     .min(rateValue(loop->minCycleRate))
                                     .max(rateValue(loop->maxCycleRate)));
    dataModule_.setPropertyValue(DataModuleConsts::CycleRateProp, rateValue(loop->cycleRate));

    const auto currentLoop = [this] {
        if (!controller_.loopDevice) {
            throw InvalidStateException("No device drives the cycle.");
        }
        return controller_.loopDevice;
    };
    registerFunction(dataModule_, DataModuleConsts::CheckCycleRateProp,
                     makeFunc(whileAlive([currentLoop](const BasePtr& argument, BasePtr& result) -> ErrCode {
                         result = toValue(rateValue(currentLoop()->checkCycleRate(intOf(argument))));
                         return Errors::Success;
                     })));
    registerFunction(dataModule_, DataModuleConsts::CheckCycleRateBasedOnDeviceSampleRatesProp,
                     makeFunc(whileAlive([currentLoop](const BasePtr& arguments, BasePtr& result) -> ErrCode {
                         const ListPtr list = arguments.asPtr<IList>();
                         const ListPtr rates = list.getItemAt(1).asPtr<IList>();
                         std::vector<int> deviceRates;
                         for (size_t i = 0, count = rates.getCount(); i < count; ++i) {
                             deviceRates.push_back(intOf(rates.getItemAt(i)));
                         }
                         result =
                             toValue(rateValue(currentLoop()->checkCycleRate(intOf(list.getItemAt(0)), deviceRates)));
                         return Errors::Success;
                     })));
}

void DaqStructure::buildDeviceTree(const std::shared_ptr<TopologyElement>& element, const ChannelFolderPtr& folder,
                                   const AcquisitionSyncPtr& sync) {
    // No scope object: after an exception the count stays up.
    ++updating_;
    folder.setName(element->getDisplayName());
    if (auto daqDevice = std::dynamic_pointer_cast<DaqDevice>(element)) {
        buildDaqDeviceTree(daqDevice, folder);
    }
    if (auto device = std::dynamic_pointer_cast<Device>(element)) {
        if (device->channelView) {
            buildChannelView(device, device->channelView, folder, sync);
        }
    }
    for (const auto& child : *element) {
        if (child->kind != 0) {
            continue;
        }
        const auto childFolder = ChannelFolderPtr::create(child->getElementId());
        childFolder.setName(child->getDisplayName());
        folder.addChild(childFolder);
        buildDeviceTree(child, childFolder, sync);
    }
    --updating_;
}

void DaqStructure::buildDaqDeviceTree(const std::shared_ptr<DaqDevice>& device, const ChannelFolderPtr& folder) {
    using Consts = DeviceFolderConsts;
    devicesMap_.emplace_back(device, folder);

    folder.registerProperty(readOnlyInfo(Consts::SerialNumberProp, CoreType::String, device->serialNumber));
    folder.registerProperty(readOnlyInfo(Consts::RevisionCounterProp, CoreType::Int, device->revisionCounter).hidden());
    folder.registerProperty(readOnlyInfo(Consts::ManufacturerProp, CoreType::String, device->manufacturer));
    folder.registerProperty(readOnlyInfo(Consts::ModelProp, CoreType::String, device->model));
    folder.registerProperty(readOnlyInfo(Consts::DeviceManualProp, CoreType::String, device->deviceManual));
    folder.registerProperty(readOnlyInfo(Consts::DeviceRevisionProp, CoreType::String, device->deviceRevision));
    folder.registerProperty(readOnlyInfo(Consts::SoftwareRevisionProp, CoreType::String, device->softwareRevision));
    folder.registerProperty(readOnlyInfo(Consts::HardwareRevisionProp, CoreType::String, device->hardwareRevision));
    folder.registerProperty(PropertyInfoPtr::create(Consts::DeviceHealthProp, CoreType::Enum)
                                .values(ListPtr::create({toValue(0), toValue(1), toValue(2), toValue(3), toValue(4)}))
                                .defaultValue(static_cast<int>(device->deviceHealth)));

    const auto sampleRate = PropertyInfoPtr::create(Consts::SampleRateProp, CoreType::Ratio)
                                .defaultValue(rateValue(device->getRate()))
                                .min(rateValue(device->minRate))
                                .max(rateValue(device->maxRate));
    subscribe(valueChangedEvent(sampleRate), &DaqStructure::onDaqDeviceSampleRateChanged);
    folder.registerProperty(sampleRate);
    folder.registerProperty(
        PropertyInfoPtr::create(Consts::MinSampleRateProp, CoreType::Ratio).defaultValue(rateValue(device->minRate)));
    folder.registerProperty(
        PropertyInfoPtr::create(Consts::MaxSampleRateProp, CoreType::Ratio).defaultValue(rateValue(device->maxRate)));

    // The functions belong to the host's tree, which may outlive the device tree: no owning pointer in them.
    Device* const plainDevice = device.get();
    DaqDevice* const daqDevice = device.get();
    registerFunction(folder, Consts::CheckRateProp,
                     makeFunc(whileAlive([plainDevice](const BasePtr& arguments, BasePtr& result) -> ErrCode {
                         const auto [first, second] = twoRates(arguments);
                         result = toValue(rateValue(plainDevice->checkRate(first, second)));
                         return Errors::Success;
                     })));
    registerFunction(folder, Consts::IOCtlProp,
                     makeFunc(whileAlive([daqDevice](const BasePtr& arguments, BasePtr& result) -> ErrCode {
                         const ListPtr list = arguments.asPtr<IList>();
                         std::string reply;
                         if (!daqDevice->ioctl(fromValue<int>(list.getItemAt(0)),
                                               fromValue<std::string>(list.getItemAt(1)), reply)) {
                             return 1;
                         }
                         result = toValue(reply);
                         return Errors::Success;
                     })));

    if (device->aiDevice && !device->aiDevice->baseClocks.empty()) {
        const ListPtr clocks = ListPtr::create();
        for (const int clock : device->aiDevice->baseClocks) {
            clocks.pushBack(toValue(clock));
        }
        const auto baseClock = PropertyInfoPtr::create(Consts::BaseClockProp, CoreType::Enum)
                                   .values(clocks)
                                   .defaultValue(baseClockIndex(*device->aiDevice));
        subscribe(valueChangedEvent(baseClock), &DaqStructure::onDaqDeviceBaseClockChanged);
        folder.registerProperty(baseClock);
    }
}

void DaqStructure::buildChannelView(const std::shared_ptr<Device>& device,
                                    const std::shared_ptr<ChannelFolder>& channelFolder,
                                    const ChannelFolderPtr& hostFolder, const AcquisitionSyncPtr& sync) {
    for (const auto& child : *channelFolder) {
        const auto childFolder = std::dynamic_pointer_cast<ChannelFolder>(child);
        if (!childFolder) {
            continue;
        }
        const std::string name = childFolder->getDisplayName();
        const auto folder = ChannelFolderPtr::create(name);
        folder.setName(name);
        if (childFolder->sharedInputs) {
            folder.registerProperty(readOnlyInfo(DeviceFolderConsts::SharedInputsProp, CoreType::Bool, true));
        }
        hostFolder.addChild(folder);
        buildChannelView(device, childFolder, folder, sync);
    }
    for (const auto& channel : channelFolder->channels) {
        // Single values have no place in the host's tree.
        if (channel->sampleType == SampleType::Sync || channel->sampleType == SampleType::Async) {
            buildChannel(channel, hostFolder, sync);
        }
    }
}

ChannelPtr<IChannel> DaqStructure::createHostChannel(const Channel& channel) const {
    if (!channel.buffer) {
        throw InvalidParameterException("Channel \"%s\" has no sample buffer.", channel.name.c_str());
    }
    const unsigned long size = channel.buffer->getSampleSize();
    SampleDataType type = SampleDataType::Opaque;
    if (channel.isFloat) {
        type = size == 4 ? SampleDataType::Float32 : SampleDataType::Float64;
    } else if (size == 1) {
        type = SampleDataType::Int8;
    } else if (size == 2) {
        type = SampleDataType::Int16;
    } else if (size == 4) {
        type = SampleDataType::Int32;
    }

    const StringPtr id(std::to_string(channel.number));
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const int code = static_cast<int>(type);
    IChannel* made = nullptr;
    if (type == SampleDataType::Opaque) {
        checkErrorInfo(isSync(channel) ? createSyncVectorChannel(&made, id.get(), code, size, nan)
                                       : createAsyncVectorChannel(&made, id.get(), code, size, nan));
    } else {
        checkErrorInfo(isSync(channel) ? createSyncChannel(&made, id.get(), code, nan)
                                       : createAsyncChannel(&made, id.get(), code, nan));
    }
    return ObjectPtr<IChannel>::take(made);
}

void DaqStructure::describeChannel(const Channel& channel, const ChannelPtr<IChannel>& hostChannel) {
    hostChannel.setName(channel.name);
    hostChannel.setUnit(channel.unit);
    hostChannel.setMaxValue(channel.maxValue);
    hostChannel.setMinValue(channel.minValue);
    hostChannel.setPropertyValue(DaqChannelConsts::BufferSizeIsMultipleOfProp, channel.bufferGranularity);
    hostChannel.setPropertyValue(ChannelPropertyClass::IsControlProp, channel.isControl);
    hostChannel.setUsed(channel.enabled);
    hostChannel.setSampleRate(rateValue(channel.getRate()));
}

// `place` is that of the channel in the channels map, where it needn't stand yet.
void DaqStructure::registerChannelProperties(const Channel& channel, const ChannelPtr<IChannel>& hostChannel,
                                             size_t place) {
    using Consts = DaqChannelConsts;
    hostChannel.registerProperty(readOnlyInfo(Consts::MinSampleRateProp, CoreType::Ratio, rateValue(channel.minRate)));
    hostChannel.registerProperty(
        PropertyInfoPtr::create(Consts::MaxSampleRateProp, CoreType::Ratio).defaultValue(rateValue(channel.maxRate)));
    registerFunction(hostChannel, Consts::CheckRateProp,
                     makeFunc(whileAlive([this, place](const BasePtr& arguments, BasePtr& result) -> ErrCode {
                         const auto [first, second] = twoRates(arguments);
                         const auto& ownChannel = channelsMap_.at(place).first;
                         const auto owner = controller_.findDeviceByChannel(ownChannel);
                         if (!owner) {
                             throw NotFoundException("No device has the channel \"%s\".", ownChannel->name.c_str());
                         }
                         result = toValue(rateValue(owner->checkChannelRate(ownChannel->number, first, second)));
                         return Errors::Success;
                     })));
    hostChannel.registerProperty(readOnlyInfo(Consts::EnabledProp, CoreType::Bool, channel.enabled));
    hostChannel.registerProperty(
        PropertyInfoPtr::create(Consts::PhaseDelayProp, CoreType::Int).defaultValue(channel.phaseDelay));
}

void DaqStructure::buildChannel(const std::shared_ptr<Channel>& channel, const ChannelFolderPtr& hostFolder,
                                const AcquisitionSyncPtr& sync) {
    const ChannelPtr<IChannel> hostChannel = createHostChannel(*channel);
    hostFolder.addChild(hostChannel);
    describeChannel(*channel, hostChannel);
    subscribe(hostChannel.getOnPropertyValueChanged(), &DaqStructure::onChannelSampleRateChanged);
    registerChannelProperties(*channel, hostChannel, channelsMap_.size());

    if (auto analogInput = std::dynamic_pointer_cast<AIChannel>(channel)) {
        buildAIChannel(analogInput, hostChannel, sync);
    } else if (auto can = std::dynamic_pointer_cast<CANChannel>(channel)) {
        buildCANChannel(can, hostChannel);
    } else if (auto analogOutput = std::dynamic_pointer_cast<AOChannel>(channel)) {
        buildAOChannel(analogOutput, hostChannel);
    } else if (auto counter = std::dynamic_pointer_cast<CntChannel>(channel)) {
        buildCntChannel(counter, hostChannel);
    }

    if (isSync(*channel)) {
        channelBuffers_[channel] = channel->buffer;
    }
    channelsMap_.emplace_back(channel, hostChannel);
}

// The properties of each kind of channel.
void DaqStructure::buildAIChannel(const std::shared_ptr<AIChannel>& channel, const ChannelPtr<IChannel>& hostChannel,
                                  const AcquisitionSyncPtr& sync) {
    // Of the channels that share an amplifier the first one shows its properties.
    if (std::any_of(amplifiers_.begin(), amplifiers_.end(),
                    [&](const auto& other) { return other->getAmplifier() == channel->amplifier; })) {
        return;
    }
    if (!channel->amplifier) {
        throw InvalidParameterException("Channel \"%s\" has no amplifier.", channel->name.c_str());
    }
    const auto amplifier = std::make_shared<DaqAmplifier>(hostChannel, channel->amplifier, sync);
    amplifier->init(usableAmplifierClass(*channel, hostChannel.getParent()));
    amplifiers_.push_back(amplifier);
}

// A bad definition costs its own amplifier only, also one that shows its fault when its properties are read. That is
// tried on a channel that nobody sees, with an amplifier that has no hardware.
std::string DaqStructure::usableAmplifierClass(const AIChannel& channel, const NodePtr<>& folder) {
    const std::string className = amplifierFactory_.getAmplifierClassName(channel.amplifier->getId());
    if (className == DaqAmplifiersFactory::unknownAmplifierClass) {
        return className;
    }
    try {
        const auto trialFolder = ChannelFolderPtr::create("Trial");
        if (const auto named = folder ? folder.asPtrOrNull<IChannelNode>() : ObjectPtr<IChannelNode>()) {
            trialFolder.setName(ChannelNodePtr<>(named).getName());
        }
        const auto trial = createHostChannel(channel);
        trialFolder.addChild(trial);
        describeChannel(channel, trial);
        registerChannelProperties(channel, trial, channelsMap_.size());
        DaqAmplifier(trial, std::make_shared<Amplifier>(), AcquisitionSyncPtr()).init(className);
        return className;
    } catch (const ZornException& exception) {
        LOG_(0, plog::error) << "The amplifier definition \"" << amplifierFactory_.getDefinitionFile(className)
                             << "\" can't be used, its amplifier is shown as unknown. " << exception.what();
        return DaqAmplifiersFactory::unknownAmplifierClass;
    }
}

void DaqStructure::buildAOChannel(const std::shared_ptr<AOChannel>&, const ChannelPtr<IChannel>& hostChannel) {
    addRoute(hostChannel, RtcClasses::AOClass);
}

void DaqStructure::buildCntChannel(const std::shared_ptr<CntChannel>& channel,
                                   const ChannelPtr<IChannel>& hostChannel) {
    if (channel->hasCntSettings()) {
        CntProperties::registerOn(hostChannel.getParent(), *channel);
    }
}

void DaqStructure::buildCANChannel(const std::shared_ptr<CANChannel>& channel,
                                   const ChannelPtr<IChannel>& hostChannel) {
    using Consts = OutputChannelConsts;
    if (channel->isControl) {
        return;
    }
    const ListPtr baudRates = ListPtr::create();
    for (const int baudRate : channel->getBaudRates()) {
        baudRates.pushBack(toValue(baudRate));
    }
    hostChannel.registerProperty(
        PropertyInfoPtr::create(Consts::BaudRateProp, CoreType::Int).defaultValue(0).values(baudRates));
    hostChannel.setPropertyValue(Consts::BaudRateProp, channel->baudRate);

    hostChannel.registerProperty(
        PropertyInfoPtr::create(Consts::OperationModeProp, CoreType::String)
            .defaultValue(Consts::ReadOnlyMode)
            .values(ListPtr::create({toValue(Consts::ReadOnlyMode), toValue(Consts::ReadWriteMode)})));
    hostChannel.setPropertyValue(Consts::OperationModeProp,
                                 channel->writeEnable != 0 ? Consts::ReadWriteMode : Consts::ReadOnlyMode);
    addRoute(hostChannel, RtcClasses::CanV1Class);
}

// What the user has set on a channel of these kinds.
void DaqStructure::readBack(const std::shared_ptr<Channel>& channel, const ChannelPtr<IChannel>& hostChannel) {
    if (const auto can = std::dynamic_pointer_cast<CANChannel>(channel); can && !can->isControl) {
        can->baudRate = intOf(hostChannel.getPropertyValue(OutputChannelConsts::BaudRateProp));
        const auto mode = hostChannel.getPropertyValue<std::string>(OutputChannelConsts::OperationModeProp);
        can->writeEnable = mode != OutputChannelConsts::ReadOnlyMode ? 1 : 0;
    }
    if (const auto counter = std::dynamic_pointer_cast<CntChannel>(channel); counter && counter->hasCntSettings()) {
        CntProperties::readBack(hostChannel.getParent(), *counter);
    }
}

// From the tree to the host and back.

void DaqStructure::initialize() {
    for (const auto& [channel, hostChannel] : channelsMap_) {
        hostChannel.setPropertyValue(DaqChannelConsts::PhaseDelayProp, channel->phaseDelay);
        hostChannel.setPropertyValue(ChannelPropertyClass::ShouldReserveMemoryProp, !channel->noReserve);
    }
}

void DaqStructure::initializeLoop(const DataPtr& data, const DataModulePtr& dataModule) {
    const auto loop = controller_.loopDevice;
    if (!loop) {
        return;
    }
    constexpr int modeWithOwnRate = 2;
    int cycleRate = 20;
    if (data.getPropertyValue<int64_t>(DataModuleConsts::OperationModeProp) == modeWithOwnRate) {
        cycleRate = intOf(dataModule.getPropertyValue(DataModuleConsts::CycleRateProp));
    }
    loop->cycleRate = loop->checkCycleRate(cycleRate);
}

void DaqStructure::beforeStart() {
    if (controller_.acqRunning) {
        throw InvalidStateException("The acquisition is running: stop it before the next start is prepared.");
    }
    for (const auto& [channel, hostChannel] : channelsMap_) {
        channel->used = hostChannel.getActive();
        readBack(channel, hostChannel);
        if (!isSync(*channel)) {
            continue;
        }
        const auto& ownBuffer = channelBuffers_.at(channel);
        if (!channel->used) {
            channel->buffer = ownBuffer;
            continue;
        }
        ownBuffer->setCapacity(0);
        auto hostBuffer = std::make_shared<DaqChannelBuffer>(hostChannel);
        if (hostBuffer->getPosition() != 0) {
            throw InvalidStateException(
                "The ring of channel \"%s\" still stands at sample %lu: its memory must be reserved again before a "
                "start.",
                channel->name.c_str(), hostBuffer->getPosition());
        }
        channel->buffer = std::move(hostBuffer);
    }
    for (const auto& amplifier : amplifiers_) {
        amplifier->update(false);
    }
    controller_.initializeAcquisition();
    updateScaleFactors();
}

void DaqStructure::updateScaleFactors() {
    for (const auto& amplifier : amplifiers_) {
        amplifier->update(false);
    }
    for (const auto& [channel, hostChannel] : channelsMap_) {
        hostChannel.setScale(channel->scale);
        hostChannel.setOffset(channel->offset);
        hostChannel.setMinValue(channel->minValue);
        hostChannel.setMaxValue(channel->maxValue);
        hostChannel.setUnit(channel->unit);
    }
}

// Rates.

bool DaqStructure::isUpdatingFromConfiguration() const {
    const auto parent = dataModule_.getParent();
    return parent && parent.hasProperty(DataModuleConsts::IsUpdatingFromConfigurationProp) &&
           parent.getPropertyValue<bool>(DataModuleConsts::IsUpdatingFromConfigurationProp);
}

bool DaqStructure::setDaqDeviceBaseClock(const std::shared_ptr<AIDevice>& aiDevice, int clock) {
    if (aiDevice->baseClock == clock) {
        return false;
    }
    aiDevice->setBaseClock(clock);
    if (aiDevice->baseClock != clock) {
        return false;
    }
    for (const auto& [channel, hostChannel] : channelsMap_) {
        if (isSync(*channel) && hostChannel.hasProperty(DaqChannelConsts::MaxSampleRateProp)) {
            hostChannel.setPropertyValue(DaqChannelConsts::MaxSampleRateProp, rateValue(channel->maxRate));
        }
    }
    for (const auto& [device, folder] : devicesMap_) {
        if (folder.hasProperty(DeviceFolderConsts::MaxSampleRateProp)) {
            folder.setPropertyValue(DeviceFolderConsts::MaxSampleRateProp, rateValue(device->maxRate));
        }
    }
    if (dataModule_.hasProperty(DataModuleConsts::MaxSampleRateProp)) {
        dataModule_.setPropertyValue(DataModuleConsts::MaxSampleRateProp, rateValue(controller_.getMaxSampleRate()));
    }
    return true;
}

bool DaqStructure::setDaqDeviceBaseClockFromSampleRate(const std::shared_ptr<DaqDevice>& device,
                                                       const ChannelFolderPtr& folder, int rate) {
    if (!device->aiDevice || !folder.hasProperty(DeviceFolderConsts::BaseClockProp)) {
        return false;
    }
    const auto aiDevice = device->aiDevice;
    const int clock = aiDevice->getBaseClockForSampleRate(rate);
    if (clock == aiDevice->baseClock) {
        return false;
    }
    LOG_(0, plog::warning) << "Device base clock will be changed to " << clock << ", based on SR: " << rate;
    const bool changed = setDaqDeviceBaseClock(aiDevice, clock);
    folder.setPropertyValue(DeviceFolderConsts::BaseClockProp, baseClockIndex(*aiDevice));
    return changed;
}

// The rate that the system can run at, logged and written back when it isn't the one asked for.
int DaqStructure::checkedSystemRate(int value, const GenericPropertyObjectPtr& owner) {
    const int adjusted = controller_.checkSampleRate(value);
    if (adjusted != value) {
        LOG_(0, plog::error) << "Sample rate was set to " << value << ", adjusted to " << adjusted;
        owner.setPropertyValue(DataModuleConsts::SampleRateProp, rateValue(adjusted));
    }
    return adjusted;
}

void DaqStructure::applySystemRate(int rate) {
    controller_.setSampleRate(rate);
    writeDeviceRates();
    writeChannelRates();
}

// A request that no divider of the system rate meets leaves the device where it is. No device is faster than the
// system.
int DaqStructure::checkedDeviceRate(const DaqDevice& device, int value) const {
    const int checked = device.checkRate(controller_.sampleRate, std::min(value, controller_.sampleRate));
    const int adjusted = checked < 1 || checked > controller_.sampleRate ? device.getRate() : checked;
    if (adjusted != value) {
        LOG_(0, plog::error) << "Daq Device Sample rate was set to " << value << ", adjusted to " << adjusted;
    }
    return adjusted;
}

void DaqStructure::writeDeviceRates() {
    for (const auto& [device, folder] : devicesMap_) {
        folder.setPropertyValue(DeviceFolderConsts::SampleRateProp, rateValue(device->getRate()));
    }
}

void DaqStructure::writeChannelRates() {
    for (const auto& [channel, hostChannel] : channelsMap_) {
        if (isSync(*channel)) {
            hostChannel.setPropertyValue(ChannelPropertyClass::SampleRateProp, rateValue(channel->getRate()));
        }
    }
}

// After a clock has changed: rates that the new clock can't do move to the nearest ones that it can. Rates that stay
// possible, also those that devices and channels have of their own, are left alone.
void DaqStructure::recheckRates() {
    const int systemRate = controller_.sampleRate;
    const int checkedRate = checkedSystemRate(systemRate, GenericPropertyObjectPtr(dataModule_.get()));
    if (checkedRate != systemRate) {
        applySystemRate(checkedRate);
        return;
    }
    for (const auto& [device, folder] : devicesMap_) {
        const int rate = device->getRate();
        if (!device->hasDeviceRate() || device->checkRate(systemRate, rate) == rate) {
            continue;
        }
        // Without a divider for its own rate the device goes back to the system's.
        const int adjusted = device->checkRate(systemRate, rate) < 1 ? systemRate : checkedDeviceRate(*device, rate);
        device->setRate(adjusted);
        folder.setPropertyValue(DeviceFolderConsts::SampleRateProp, rateValue(device->getRate()));
    }
    for (const auto& [channel, hostChannel] : channelsMap_) {
        if (!isSync(*channel)) {
            continue;
        }
        if (const auto device = controller_.findDeviceByChannel(channel)) {
            const int rate = channel->getRate();
            const int deviceRate = device->getRate();
            const int adjusted = device->checkChannelRate(channel->number, deviceRate, rate);
            // A truncated rate (1000 / 7 = 142) is what the request just above it gives.
            if (adjusted != rate && device->checkChannelRate(channel->number, deviceRate, rate + 1) != rate) {
                LOG_(0, plog::error) << "Channel rate was set to " << rate << ", adjusted to " << adjusted;
                channel->setRate(adjusted);
            }
        }
    }
    writeChannelRates();
}

void DaqStructure::onSampleRateChanged(GenericPropertyObjectPtr& sender, PropertyValueChangedEventArgsPtr& args) {
    runHandler("onSampleRateChanged", [&] {
        const int value = changedValue(sender, args);
        if (isUpdatingFromConfiguration()) {
            for (const auto& [device, folder] : devicesMap_) {
                setDaqDeviceBaseClockFromSampleRate(device, folder, value);
            }
        }
        applySystemRate(checkedSystemRate(value, sender));
    });
}

void DaqStructure::onDaqDeviceSampleRateChanged(GenericPropertyObjectPtr& sender,
                                                PropertyValueChangedEventArgsPtr& args) {
    runHandler("onDaqDeviceSampleRateChanged", [&] {
        const int value = changedValue(sender, args);
        const auto entry = std::find_if(devicesMap_.begin(), devicesMap_.end(), [&](const auto& candidate) {
            return isSameObject(asBase(sender), candidate.second);
        });
        if (entry == devicesMap_.end()) {
            return;
        }
        const auto& [device, folder] = *entry;
        const bool clockChanged =
            isUpdatingFromConfiguration() && setDaqDeviceBaseClockFromSampleRate(device, folder, value);
        if (clockChanged) {
            recheckRates();
        }
        const int adjusted = checkedDeviceRate(*device, value);
        if (adjusted != value || clockChanged) {
            sender.setPropertyValue(DeviceFolderConsts::SampleRateProp, rateValue(adjusted));
        }
        device->setRate(adjusted);
        writeChannelRates();
    });
}

void DaqStructure::onChannelSampleRateChanged(GenericPropertyObjectPtr& sender,
                                              PropertyValueChangedEventArgsPtr& args) {
    // Every property of every channel comes by here: the name decides before anything else is done.
    if (args.getPropertyName().view() != ChannelPropertyClass::SampleRateProp) {
        return;
    }
    runHandler("onChannelSampleRateChanged", [&] {
        const int value = changedValue(sender, args);
        const auto entry = std::find_if(channelsMap_.begin(), channelsMap_.end(), [&](const auto& candidate) {
            return isSameObject(asBase(sender), candidate.second);
        });
        if (entry == channelsMap_.end()) {
            return;
        }
        const auto& channel = entry->first;
        const auto device = controller_.findDeviceByChannel(channel);
        if (!device) {
            throw NotFoundException("No device has the channel \"%s\".", channel->name.c_str());
        }
        const int adjusted = device->checkChannelRate(channel->number, device->getRate(), value);
        if (adjusted != value) {
            LOG_(0, plog::error) << "Channel rate was set to " << value << ", adjusted to " << adjusted;
            sender.setPropertyValue(ChannelPropertyClass::SampleRateProp, rateValue(adjusted));
        }
        channel->setRate(adjusted);
    });
}

void DaqStructure::onDaqDeviceBaseClockChanged(GenericPropertyObjectPtr& sender,
                                               PropertyValueChangedEventArgsPtr& args) {
    runHandler("onDaqDeviceBaseClockChanged", [&] {
        const int index = changedValue(sender, args);
        bool changed = false;
        for (const auto& [device, folder] : devicesMap_) {
            if (!device->aiDevice || !isSameObject(asBase(sender), folder)) {
                continue;
            }
            const auto aiDevice = device->aiDevice;
            if (index >= 0 && static_cast<size_t>(index) < aiDevice->baseClocks.size() &&
                setDaqDeviceBaseClock(aiDevice, aiDevice->baseClocks[static_cast<size_t>(index)])) {
                changed = true;
                continue;
            }
            sender.setPropertyValue(DeviceFolderConsts::BaseClockProp, baseClockIndex(*aiDevice));
        }
        if (changed) {
            recheckRates();
        }
    });
}

}  // namespace Harvane::RT::Modules::Daq
