#include "modules/daq/bridge/HostTree.h"

#include <algorithm>
#include <limits>
#include <utility>

#include <boost/filesystem/operations.hpp>

#include <zorn/structure/property_classes.h>

#include "modules/daq/amplifier/DaqAmplifier.h"
#include "modules/daq/amplifier/DefinitionTrial.h"
#include "modules/daq/bridge/CntProperties.h"
#include "modules/daq/bridge/DaqRTOperation.h"
#include "modules/daq/bridge/DaqStructureConsts.h"
#include "modules/daq/bridge/HostHealth.h"
#include "modules/daq/bridge/HostRates.h"
#include "modules/daq/bridge/HostSynchronization.h"
#include "modules/daq/bridge/HostValues.h"
#include "modules/daq/controller/DaqController.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/AIDevice.h"
#include "modules/daq/objectmodel/AOChannel.h"
#include "modules/daq/objectmodel/Amplifier.h"
#include "modules/daq/objectmodel/CANChannel.h"
#include "modules/daq/objectmodel/ChannelFolder.h"
#include "modules/daq/objectmodel/CntChannel.h"
#include "modules/daq/objectmodel/DaqDevice.h"
#include "modules/daq/objectmodel/DaqLoop.h"
#include "modules/daq/objectmodel/Log.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

HostTree::HostTree(BridgeState& state, HostRates& rates, HostSynchronization& synchronization,
                   std::function<void()> beforeStart)
    : state_(state),
      controller_(state.controller),
      hooks_(state.hooks),
      rates_(rates),
      synchronization_(synchronization),
      beforeStart_(std::move(beforeStart)) {
    boost::system::error_code error;
    const auto directory = boost::filesystem::current_path(error).string();
    amplifierFactory_.registerAmplifiers((error ? std::string(".") : directory) + "/amplifiers/");
}

HostTree::~HostTree() {
    amplifierFactory_.unregisterAmplifiers();
}

void HostTree::buildDataModuleProps(const DataModulePtr& dataModule) {
    const UpdatingScope scope(state_);
    state_.dataModule = dataModule;

    const int minRate = controller_.getMinSampleRate();
    const int maxRate = controller_.getMaxSampleRate();
    const auto sampleRate = PropertyInfoPtr::create(DataModuleConsts::SampleRateProp, CoreType::Ratio)
                                .defaultValue(rateValue(1000))
                                .min(rateValue(minRate))
                                .max(rateValue(maxRate));
    hooks_.subscribe(valueChangedEvent(sampleRate),
                     [this](auto& sender, auto& args) { rates_.onSampleRateChanged(sender, args); });
    dataModule.registerProperty(sampleRate);
    // The handler is quiet here, so the devices get the rate directly.
    try {
        rates_.applyInitialRate();
    } catch (const std::exception& exception) {
        LOG_(0, plog::error) << "Error executing DaqStructure::onSampleRateChanged: " << textOf(exception);
    }

    dataModule.registerProperty(
        PropertyInfoPtr::create(DataModuleConsts::MinSampleRateProp, CoreType::Ratio).defaultValue(rateValue(minRate)));
    dataModule.registerProperty(
        PropertyInfoPtr::create(DataModuleConsts::MaxSampleRateProp, CoreType::Ratio).defaultValue(rateValue(maxRate)));
    registerFunction(dataModule, DataModuleConsts::CheckSampleRateProp,
                     makeFunc(hooks_.whileAlive([this](const BasePtr& argument, BasePtr& result) -> ErrCode {
                         result = toValue(rateValue(controller_.checkSampleRate(intOf(argument))));
                         return Errors::Success;
                     })));
    registerLoopProperties();

    dataModule.registerProperty(PropertyInfoPtr::create(DataModuleConsts::BeforeStartProp, CoreType::Proc));
    dataModule.setPropertyValue(DataModuleConsts::BeforeStartProp,
                                makeProc(hooks_.whileAlive([this](const BasePtr&) -> ErrCode {
                                    beforeStart_();
                                    return Errors::Success;
                                })));
    synchronization_.registerProperties();
    HostHealth::registerProperties(state_);
    takeBackOnChange(dataModule.getOnPropertyValueChanged());
}

// What the user changes between the set-up of a run and its start must be in force in that run.
void HostTree::takeBackOnChange(const ObjectPtr<IEvent>& event) {
    hooks_.subscribe(event, [this](auto&, auto&) {
        if (state_.updating == 0) {
            controller_.invalidate();
        }
    });
}

void HostTree::registerLoopProperties() {
    const auto loop = controller_.loopDevice;
    if (!loop) {
        return;
    }
    state_.dataModule.registerProperty(PropertyInfoPtr::create(DataModuleConsts::CycleRateProp, CoreType::Ratio)
                                           .defaultValue(rateValue(100))
                                           .min(rateValue(loop->minCycleRate))
                                           .max(rateValue(loop->maxCycleRate)));
    state_.dataModule.setPropertyValue(DataModuleConsts::CycleRateProp, rateValue(loop->cycleRate));

    const auto currentLoop = [this] {
        if (!controller_.loopDevice) {
            throw InvalidStateException("No device drives the cycle.");
        }
        return controller_.loopDevice;
    };
    registerFunction(state_.dataModule, DataModuleConsts::CheckCycleRateProp,
                     makeFunc(hooks_.whileAlive([currentLoop](const BasePtr& argument, BasePtr& result) -> ErrCode {
                         result = toValue(rateValue(currentLoop()->checkCycleRate(intOf(argument))));
                         return Errors::Success;
                     })));
    registerFunction(state_.dataModule, DataModuleConsts::CheckCycleRateBasedOnDeviceSampleRatesProp,
                     makeFunc(hooks_.whileAlive([currentLoop](const BasePtr& arguments, BasePtr& result) -> ErrCode {
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

// Every change of a channel takes the set-up of the coming run back; a rate moves to one that can be had, and nobody
// but the bridge says what the exact rate is.
void HostTree::onChannelChanged(GenericPropertyObjectPtr& sender, PropertyValueChangedEventArgsPtr& args) {
    if (state_.updating > 0) {
        return;
    }
    controller_.invalidate();
    rates_.onChannelSampleRateChanged(sender, args);
    if (args.getPropertyName().view() == DaqChannelConsts::ExactSampleRateProp) {
        const UpdatingScope scope(state_);
        for (const auto& [channel, hostChannel] : state_.channels) {
            if (isSameObject(asBase(sender), hostChannel)) {
                HostRates::writeExactRate(*channel, hostChannel);
            }
        }
    }
}

void HostTree::buildDeviceTree(const std::shared_ptr<TopologyElement>& element, const ChannelFolderPtr& folder,
                               const AcquisitionSyncPtr& sync) {
    // No scope object: after an exception the count stays up.
    ++state_.updating;
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
    --state_.updating;
}

void HostTree::buildDaqDeviceTree(const std::shared_ptr<DaqDevice>& device, const ChannelFolderPtr& folder) {
    using Consts = DeviceFolderConsts;
    state_.devices.emplace_back(device, folder);

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
    hooks_.subscribe(valueChangedEvent(sampleRate),
                     [this](auto& sender, auto& args) { rates_.onDaqDeviceSampleRateChanged(sender, args); });
    folder.registerProperty(sampleRate);
    folder.registerProperty(
        PropertyInfoPtr::create(Consts::MinSampleRateProp, CoreType::Ratio).defaultValue(rateValue(device->minRate)));
    folder.registerProperty(
        PropertyInfoPtr::create(Consts::MaxSampleRateProp, CoreType::Ratio).defaultValue(rateValue(device->maxRate)));

    // The functions belong to the host's tree, which may outlive the device tree: no owning pointer in them.
    Device* const plainDevice = device.get();
    DaqDevice* const daqDevice = device.get();
    registerFunction(folder, Consts::CheckRateProp,
                     makeFunc(hooks_.whileAlive([plainDevice](const BasePtr& arguments, BasePtr& result) -> ErrCode {
                         const auto [first, second] = twoRates(arguments);
                         result = toValue(rateValue(plainDevice->checkRate(first, second)));
                         return Errors::Success;
                     })));
    registerFunction(
        folder, Consts::IOCtlProp,
        makeFunc(hooks_.whileAlive([this, daqDevice](const BasePtr& arguments, BasePtr& result) -> ErrCode {
            const ListPtr list = arguments.asPtr<IList>();
            std::string reply;
            const auto usbMode = [&] { return daqDevice->aiDevice && daqDevice->aiDevice->usbMode; };
            const bool before = usbMode();
            if (!daqDevice->ioctl(fromValue<int>(list.getItemAt(0)), fromValue<std::string>(list.getItemAt(1)),
                                  reply)) {
                return 1;
            }
            if (usbMode() != before) {
                controller_.invalidate();
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
        hooks_.subscribe(valueChangedEvent(baseClock),
                         [this](auto& sender, auto& args) { rates_.onDaqDeviceBaseClockChanged(sender, args); });
        folder.registerProperty(baseClock);
    }
    takeBackOnChange(folder.getOnPropertyValueChanged());
}

void HostTree::buildChannelView(const std::shared_ptr<Device>& device,
                                const std::shared_ptr<ChannelFolder>& channelFolder, const ChannelFolderPtr& hostFolder,
                                const AcquisitionSyncPtr& sync) {
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

ChannelPtr<IChannel> HostTree::createHostChannel(const Channel& channel) const {
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

void HostTree::describeChannel(const Channel& channel, const ChannelPtr<IChannel>& hostChannel) {
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
void HostTree::registerChannelProperties(const Channel& channel, const ChannelPtr<IChannel>& hostChannel,
                                         size_t place) {
    using Consts = DaqChannelConsts;
    hostChannel.registerProperty(readOnlyInfo(Consts::MinSampleRateProp, CoreType::Ratio, rateValue(channel.minRate)));
    hostChannel.registerProperty(
        PropertyInfoPtr::create(Consts::MaxSampleRateProp, CoreType::Ratio).defaultValue(rateValue(channel.maxRate)));
    registerFunction(hostChannel, Consts::CheckRateProp,
                     makeFunc(hooks_.whileAlive([this, place](const BasePtr& arguments, BasePtr& result) -> ErrCode {
                         const auto [first, second] = twoRates(arguments);
                         const auto& ownChannel = state_.channels.at(place).first;
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

void HostTree::buildChannel(const std::shared_ptr<Channel>& channel, const ChannelFolderPtr& hostFolder,
                            const AcquisitionSyncPtr& sync) {
    const ChannelPtr<IChannel> hostChannel = createHostChannel(*channel);
    hostFolder.addChild(hostChannel);
    describeChannel(*channel, hostChannel);
    hooks_.subscribe(hostChannel.getOnPropertyValueChanged(),
                     [this](auto& sender, auto& args) { onChannelChanged(sender, args); });
    registerChannelProperties(*channel, hostChannel, state_.channels.size());
    if (isSync(*channel)) {
        hostChannel.registerProperty(PropertyInfoPtr::create(DaqChannelConsts::ExactSampleRateProp, CoreType::Ratio)
                                         .defaultValue(rateValue(channel->getRate()))
                                         .hidden());
        HostRates::writeExactRate(*channel, hostChannel);
    }

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
        state_.channelBuffers[channel] = channel->buffer;
    }
    state_.channels.emplace_back(channel, hostChannel);
}

// The properties of each kind of channel.
void HostTree::buildAIChannel(const std::shared_ptr<AIChannel>& channel, const ChannelPtr<IChannel>& hostChannel,
                              const AcquisitionSyncPtr& sync) {
    // Of the channels that share an amplifier the first one shows its properties, and each how the amplifier stands.
    const auto shared = std::find_if(state_.amplifiers.begin(), state_.amplifiers.end(),
                                     [&](const auto& other) { return other->getAmplifier() == channel->amplifier; });
    if (shared != state_.amplifiers.end()) {
        (*shared)->addSharer(hostChannel);
        return;
    }
    if (!channel->amplifier) {
        throw InvalidParameterException("Channel \"%s\" has no amplifier.", channel->name.c_str());
    }
    const auto amplifier = std::make_shared<DaqAmplifier>(hostChannel, channel->amplifier, sync);
    amplifier->init(usableAmplifierClass(*channel, hostChannel.getParent()));
    state_.amplifiers.push_back(amplifier);
}

// A bad definition costs its own amplifier only, also one that shows its fault when its properties are read. One that
// fails in another measurement only can be used until that is chosen.
std::string HostTree::usableAmplifierClass(const AIChannel& channel, const NodePtr<>& folder) {
    std::string className = amplifierFactory_.getAmplifierClassName(channel.amplifier->getId());
    if (className == DaqAmplifiersFactory::unknownAmplifierClass) {
        return className;
    }
    ChannelFolderPtr trialFolder;
    const auto failures = DefinitionTrial::run(className, [&] {
        trialFolder = ChannelFolderPtr::create("Trial");
        if (const auto named = folder ? folder.asPtrOrNull<IChannelNode>() : ObjectPtr<IChannelNode>()) {
            trialFolder.setName(ChannelNodePtr<>(named).getName());
        }
        auto trial = createHostChannel(channel);
        trialFolder.addChild(trial);
        describeChannel(channel, trial);
        registerChannelProperties(channel, trial, state_.channels.size());
        if (isSync(channel)) {
            trial.registerProperty(PropertyInfoPtr::create(DaqChannelConsts::ExactSampleRateProp, CoreType::Ratio)
                                       .defaultValue(rateValue(channel.getRate()))
                                       .hidden());
        }
        return trial;
    });
    const std::string file = amplifierFactory_.getDefinitionFile(className);
    for (const auto& failure : failures) {
        if (failure.measurement < 0) {
            LOG_(0, plog::error) << "The amplifier definition \"" << file
                                 << "\" can't be used, its amplifier is shown as unknown. " << failure.text;
            return DaqAmplifiersFactory::unknownAmplifierClass;
        }
        LOG_(0, plog::warning) << "The amplifier definition \"" << file << "\" fails in measurement "
                               << failure.measurement << " (" << failure.name << "). " << failure.text;
    }
    return className;
}

// The settings of a route out of the instrument, as an object of one of the host's classes for routes.
void HostTree::addRoute(const ChannelPtr<IChannel>& hostChannel, const char* className) {
    constexpr ConfigurationMode load = 1;
    constexpr PropertyState inTheSetup = 6;
    hostChannel.registerProperty(PropertyInfoPtr::create(OutputChannelConsts::RtcProp, CoreType::Object)
                                     .configurationAction(load, inTheSetup, ConfigurationAction::TakeOver));
    IPropertyObject* route = nullptr;
    checkErrorInfo(createPropertyObject(&route, nullptr, StringPtr(className).get()));
    const GenericPropertyObjectPtr object(ObjectPtr<IPropertyObject>::take(route));
    hostChannel.setPropertyValue(OutputChannelConsts::RtcProp, object);
    takeBackOnChange(object.getOnPropertyValueChanged());
}

void HostTree::buildAOChannel(const std::shared_ptr<AOChannel>&, const ChannelPtr<IChannel>& hostChannel) {
    addRoute(hostChannel, DaqRTOperation::AOClass);
}

void HostTree::buildCntChannel(const std::shared_ptr<CntChannel>& channel, const ChannelPtr<IChannel>& hostChannel) {
    if (channel->hasCntSettings()) {
        CntProperties::registerOn(hostChannel.getParent(), *channel);
        takeBackOnChange(hostChannel.getParent().getOnPropertyValueChanged());
    }
}

void HostTree::buildCANChannel(const std::shared_ptr<CANChannel>& channel, const ChannelPtr<IChannel>& hostChannel) {
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
    addRoute(hostChannel, DaqRTOperation::CanV1Class);
}

}  // namespace Harvane::RT::Modules::Daq
