#include "modules/daq/bridge/DaqRTOperation.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <utility>

#include <zorn/objects/property_object.h>
#include <zorn/structure/property_classes.h>

#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/bridge/DaqStructureConsts.h"
#include "modules/daq/objectmodel/AOChannel.h"
#include "modules/daq/objectmodel/CANChannel.h"
#include "modules/daq/objectmodel/CanMessage.h"
#include "modules/daq/objectmodel/Log.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

namespace {

constexpr int realTimeMode = 2;
constexpr int fromRange = 1;
constexpr std::int64_t greatestCanId = 0x1FFFFFFF;

// ---- Classes --------------------------------------------------------------------------------------------------------

// Nobody makes objects of this class. All who need the classes of the routes hold it, so that its count of references
// tells the last one; its properties are the names of the classes that they have registered.
constexpr const char* usersClass = "RTC_USERS";

std::mutex& classesMutex() {
    static std::mutex mutex;
    return mutex;
}

PropertyObjectClassPtr newClass(const char* name, const char* parent = nullptr) {
    auto objectClass = PropertyObjectClassPtr::create();
    objectClass.setName(name);
    if (parent != nullptr) {
        objectClass.setParent(parent);
    }
    return objectClass;
}

PropertyObjectClassPtr joinUsers() {
    const auto manager = PropertyObjectManagerPtr::create();
    auto users = manager.findClass(usersClass);
    if (!users) {
        users = newClass(usersClass);
        manager.addClass(users);
    }
    return users;
}

// Whether nobody but the registry and this one holds it.
bool isOnlyUser(const PropertyObjectClassPtr& users) {
    users->addRef();
    return users->releaseRef() == 2;
}

bool isRegisteredByUsers(const PropertyObjectClassPtr& users, const char* name) {
    unsigned char found = 0;
    checkErrorInfo(users->hasProperty(StringPtr(name).get(), &found));
    return found != 0;
}

// The routes belong to a setup: loading one takes them over whatever the state before was.
PropertyInfoPtr routeProperty(const char* name, CoreType type) {
    constexpr ConfigurationMode load = 1;
    constexpr PropertyState anyState = 7;
    return PropertyInfoPtr::create(name, type).configurationAction(load, anyState, ConfigurationAction::TakeOver);
}

// A class that is there already stays as it is, and stays somebody else's when it is.
void addClass(const PropertyObjectClassPtr& users, const PropertyObjectClassPtr& objectClass) {
    const ErrCode code = PropertyObjectManagerPtr::create()->addClass(objectClass.get());
    if (code == Errors::AlreadyExists) {
        zornClearErrorInfo();
        return;
    }
    checkErrorInfo(code);
    const std::string name = objectClass.getName().toStdString();
    if (!isRegisteredByUsers(users, name.c_str())) {
        users.registerProperty(PropertyInfoPtr::create(name.c_str(), CoreType::Bool));
    }
}

void removeClass(const PropertyObjectClassPtr& users, const char* name) noexcept {
    try {
        if (!isRegisteredByUsers(users, name)) {
            return;
        }
        if (failed(PropertyObjectManagerPtr::create()->removeClass(StringPtr(name).get()))) {
            zornClearErrorInfo();
        }
    } catch (const std::exception&) {
        // Without memory for a name the class stays, which harms nobody.
    }
}

// ---- Routes ---------------------------------------------------------------------------------------------------------

// The object on a channel that describes its routes; an empty pointer without one, and for one that isn't enabled.
GenericPropertyObjectPtr routeOf(const ChannelPtr<IChannel>& hostChannel) {
    if (!hostChannel.hasProperty(OutputChannelConsts::RtcProp)) {
        return {};
    }
    GenericPropertyObjectPtr route;
    try {
        route = hostChannel.getPropertyValue(OutputChannelConsts::RtcProp).asPtr<IPropertyObject>();
    } catch (const NotAssignedException&) {
        return {};
    }
    return route.getPropertyValue<bool>(DaqRTOperation::EnabledProp) ? route : GenericPropertyObjectPtr();
}

std::string nameOf(const ChannelPtr<IChannel>& channel) {
    return channel.getName().toStdString();
}

// What the host refuses, with the channel that it belongs to.
template <class Prepare>
void naming(const ChannelPtr<IChannel>& channel, Prepare&& prepare) {
    try {
        prepare();
    } catch (const ZornException& exception) {
        ErrorCodeToException::GetInstance().throwExceptionFromErrorCode(
            exception.errorCode, "The route of channel \"" + nameOf(channel) + "\": " + exception.message);
    }
}

// Truncated; what doesn't fit goes round, as a converter of that width does. 0 for what is no number at all.
template <class T>
T truncatedTo(double value) {
    constexpr double limit = 9.2e18;
    return std::abs(value) < limit ? static_cast<T>(static_cast<std::int64_t>(value)) : T{};
}

template <class T>
void addTo(const AsyncChannelPtr& channel, long now, const T& sample) {
    checkErrorInfo(channel->addSample(now, &sample));
}

double newestOf(const ChannelPtr<IChannel>& source) {
    return source.getSampleAtRelativePos(-1);
}

// Runs one part; of several that fail the first failure is kept.
template <class Part>
void attempt(std::exception_ptr& failure, Part&& part) {
    try {
        part();
    } catch (...) {
        failure = failure ? failure : std::current_exception();
    }
}

void rethrow(const std::exception_ptr& failure) {
    if (failure) {
        std::rethrow_exception(failure);
    }
}

}  // namespace

DaqRTOperation::DaqRTOperation(DaqStructure& structure, const DataPtr& data) : data_(data), structure_(structure) {
    const std::lock_guard lock(classesMutex());
    users_ = joinUsers();
    registerCanClass();
    registerAOClass();
}

DaqRTOperation::~DaqRTOperation() {
    const std::lock_guard lock(classesMutex());
    if (isOnlyUser(users_)) {
        unregisterCanClass();
        unregisterAOClass();
        try {
            PropertyObjectManagerPtr::create().removeClass(usersClass);
        } catch (const std::exception&) {
            // Somebody has taken it away.
        }
    }
    users_.release();
}

void DaqRTOperation::registerCanClass() {
    const auto can = newClass(CanClass);
    can.registerProperty(routeProperty(EnabledProp, CoreType::Bool).defaultValue(false));
    can.registerProperty(routeProperty(MessagesProp, CoreType::List).defaultValue(ListPtr::create()));
    addClass(users_, can);
    const auto canV1 = newClass(CanV1Class, CanClass);
    canV1.registerProperty(routeProperty(OutputRateProp, CoreType::Int).defaultValue(10));
    addClass(users_, canV1);
}

void DaqRTOperation::registerAOClass() {
    const auto analogOutput = newClass(AOClass);
    analogOutput.registerProperty(routeProperty(EnabledProp, CoreType::Bool).defaultValue(false));
    analogOutput.registerProperty(routeProperty(ChIndexProp, CoreType::String));
    analogOutput.registerProperty(routeProperty(ScalingTypeProp, CoreType::Enum)
                                      .values(ListPtr::create({toValue("Direct"), toValue("From range")}))
                                      .defaultValue(0));
    addClass(users_, analogOutput);
}

void DaqRTOperation::unregisterCanClass() noexcept {
    removeClass(users_, CanV1Class);
    removeClass(users_, CanClass);
}

void DaqRTOperation::unregisterAOClass() noexcept {
    removeClass(users_, AOClass);
}

void DaqRTOperation::prepareAcquisition(int rate) {
    cycleCounter_ = 0;
    active_ = data_.getPropertyValue<int>(DataModuleConsts::OperationModeProp) == realTimeMode;
    remarks_.clear();
    prepareCanMessages(rate);
    prepareAO();
}

void DaqRTOperation::tellRemarks() const {
    for (const auto& text : remarks_) {
        LOG_(0, plog::warning) << text;
    }
}

void DaqRTOperation::remark(const ChannelPtr<IChannel>& channel, const std::string& text) {
    remarks_.push_back("The route of channel \"" + nameOf(channel) + "\": " + text);
}

void DaqRTOperation::prepareCanMessages(int rate) {
    canRoutes_.clear();
    if (!active_) {
        return;
    }
    for (const auto& [channel, hostChannel] : structure_.getChannelsMap()) {
        if (dynamic_cast<const CANChannel*>(channel.get()) != nullptr) {
            naming(hostChannel, [&, &hostChannel = hostChannel] { prepareCanRoutes(rate, hostChannel); });
        }
    }
}

void DaqRTOperation::prepareCanRoutes(int rate, const ChannelPtr<IChannel>& hostChannel) {
    const auto route = routeOf(hostChannel);
    if (!route) {
        return;
    }
    // The older class knows no rate and sends in each cycle.
    const int outputRate = route.hasProperty(OutputRateProp) ? route.getPropertyValue<int>(OutputRateProp) : 0;
    const int divider = outputRate > 0 ? std::max(rate / outputRate, 1) : 1;
    const auto target = getCanChannel(hostChannel, true);
    if (!target) {
        remark(hostChannel, "the port has no output channel");
        return;
    }
    if (!target.getActive()) {
        remark(hostChannel, "the output channel is not in use, and nothing will be sent");
    }
    const auto messages = route.getPropertyValue<ListPtr>(MessagesProp);
    for (size_t i = 0, count = messages.getCount(); i < count; ++i) {
        const auto message = fromValue<ListPtr>(messages.getItemAt(i));
        const auto messageId = fromValue<std::int64_t>(message.getItemAt(0));
        const auto source = findSource(hostChannel, fromValue<StringPtr>(message.getItemAt(1)));
        if (messageId < 0 || messageId > greatestCanId) {
            remark(hostChannel, std::to_string(messageId) + " is no identifier of a CAN message");
        } else if (source) {
            canRoutes_.push_back(
                {target.asPtr<IAsyncChannel>(), source, static_cast<std::int32_t>(messageId), 0, divider});
        }
    }
}

void DaqRTOperation::prepareAO() {
    aoRoutes_.clear();
    if (!active_) {
        return;
    }
    for (const auto& [channel, hostChannel] : structure_.getChannelsMap()) {
        if (dynamic_cast<const AOChannel*>(channel.get()) != nullptr) {
            naming(hostChannel, [&, &hostChannel = hostChannel] { prepareAORoute(hostChannel); });
        }
    }
}

void DaqRTOperation::prepareAORoute(const ChannelPtr<IChannel>& hostChannel) {
    const auto route = routeOf(hostChannel);
    if (!route) {
        return;
    }
    const auto chosen = route.getPropertyValue(ChIndexProp);
    const auto source = findSource(hostChannel, chosen ? fromValue<StringPtr>(chosen) : StringPtr(""));
    if (!source) {
        return;
    }
    if (!hostChannel.getActive()) {
        remark(hostChannel, "the channel is not in use, and nothing will be put out");
    }
    RtcAOStruct prepared;
    prepared.aoChannel = hostChannel.asPtr<IAsyncChannel>();
    prepared.channel = source;
    if (route.getPropertyValue<int>(ScalingTypeProp) == fromRange) {
        prepared.scale =
            (hostChannel.getMaxValue() - hostChannel.getMinValue()) / (source.getMaxValue() - source.getMinValue());
        prepared.offset = hostChannel.getMinValue() - prepared.scale * source.getMinValue();
    }
    prepared.type = hostChannel.getSampleDataType();
    prepared.channelScale = hostChannel.getScale();
    prepared.channelOffset = hostChannel.getOffset();
    aoRoutes_.push_back(std::move(prepared));
}

// A channel whose samples are numbers.
ChannelPtr<IChannel> DaqRTOperation::findSource(const ChannelPtr<IChannel>& target, const StringPtr& identifier) {
    auto source = findChannel(identifier);
    if (!source) {
        remark(target, "there is no channel \"" + identifier.toStdString() + "\"");
        return {};
    }
    if (source.getSampleDataType() == SampleDataType::Opaque) {
        remark(target, "the samples of channel \"" + identifier.toStdString() + "\" are no numbers");
        return {};
    }
    if (!source.getActive()) {
        remark(target, "its source \"" + identifier.toStdString() + "\" is not in use");
    }
    return source;
}

ChannelPtr<IChannel> DaqRTOperation::findChannel(const StringPtr& identifier) const {
    for (const auto& module : data_.getDataModules()) {
        if (auto found = findChannel(NodePtr<INode>(module.getRootFolder().asPtr<INode>()), identifier)) {
            return found;
        }
    }
    return {};
}

ChannelPtr<IChannel> DaqRTOperation::findChannel(const NodePtr<INode>& node, const StringPtr& identifier) const {
    if (node.getNodeId() == identifier) {
        return node.asPtrOrNull<IChannel>();
    }
    if (const auto folder = node.asPtrOrNull<IChannelFolder>()) {
        for (const auto& child : ChannelFolderPtr(folder).getChildren()) {
            if (auto found = findChannel(NodePtr<INode>(child.asPtr<INode>()), identifier)) {
                return found;
            }
        }
    }
    return {};
}

ChannelPtr<IChannel> DaqRTOperation::getCanChannel(const ChannelPtr<IChannel>& channel, bool) const {
    const auto folder = channel.getParent().asPtrOrNull<IChannelFolder>();
    if (!folder) {
        return {};
    }
    for (const auto& child : ChannelFolderPtr(folder).getChildren()) {
        ChannelPtr<IChannel> candidate = child.asPtrOrNull<IChannel>();
        if (candidate && candidate.getSampleDataType() == SampleDataType::Opaque &&
            candidate.getPropertyValue<bool>(ChannelPropertyClass::IsControlProp)) {
            return candidate;
        }
    }
    return {};
}

// ---- Cycle ----------------------------------------------------------------------------------------------------------

void DaqRTOperation::processData() {
    ++cycleCounter_;
    if (!active_) {
        return;
    }
    std::exception_ptr failure;
    attempt(failure, [&] { processCanMessages(); });
    attempt(failure, [&] { processAO(); });
    rethrow(failure);
}

long DaqRTOperation::currentClock() const {
    long now = 0;
    checkErrorInfo(data_.getClockProvider()->getCurrentClock(&now));
    return now;
}

void DaqRTOperation::processCanMessages() {
    if (canRoutes_.empty()) {
        return;
    }
    const long now = currentClock();
    std::exception_ptr failure;
    for (auto& route : canRoutes_) {
        if (cycleCounter_ % static_cast<std::uint64_t>(route.outputDivider) == 0) {
            attempt(failure, [&] { process(route, now); });
        }
    }
    rethrow(failure);
}

void DaqRTOperation::process(RtcCanStruct& route, long now) {
    const std::int64_t count = route.channel.getSamplesAcquired();
    if (route.lastSampleCount >= count) {
        return;
    }
    const auto value = static_cast<float>(newestOf(route.channel));
    CanMessage message;
    message.id = static_cast<std::uint32_t>(route.messageId);
    message.dataLength = sizeof value;
    std::memcpy(message.data, &value, sizeof value);
    addTo(route.canChannel, now, message);
    route.lastSampleCount = count;
}

void DaqRTOperation::processAO() {
    if (aoRoutes_.empty()) {
        return;
    }
    const long now = currentClock();
    std::exception_ptr failure;
    for (const auto& route : aoRoutes_) {
        attempt(failure, [&] { process(route, now); });
    }
    rethrow(failure);
}

void DaqRTOperation::process(const RtcAOStruct& route, long now) {
    if (route.channel.getSamplesAcquired() <= 0) {
        return;
    }
    const double value = route.scale * newestOf(route.channel) + route.offset;
    const double raw = (value - route.channelOffset) / route.channelScale;
    switch (route.type) {
        case SampleDataType::Int16:
            return addTo(route.aoChannel, now, truncatedTo<std::int16_t>(raw));
        case SampleDataType::Int32:
            return addTo(route.aoChannel, now, truncatedTo<std::int32_t>(raw));
        case SampleDataType::Float32:
            return addTo(route.aoChannel, now, static_cast<float>(value));
        default:
            throw std::runtime_error("unsupported type");
    }
}

}  // namespace Harvane::RT::Modules::Daq
