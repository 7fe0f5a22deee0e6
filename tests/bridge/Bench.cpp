#include "tests/bridge/Bench.h"

#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/controller/DaqController.h"
#include "modules/daq/module/LoggerConnection.h"
#include "modules/daq/objectmodel/DaqObjectFactory.h"
#include "modules/daq/objectmodel/DaqObjectFactoryManager.h"
#include "modules/daq/objectmodel/DeviceFactory.h"
#include "modules/daq/objectmodel/FixedInterfaceHelper.h"
#include "modules/daq/objectmodel/FixedInterfacePort.h"
#include "modules/daq/objectmodel/GenericInterface.h"
#include "modules/daq/objectmodel/SystemDevice.h"

namespace Harvane::RT::Modules::Daq::Test {

using namespace Core;

namespace {

struct TestDeviceFactory : DeviceFactory {
    std::vector<std::string> supportsInterfaces() const override { return {"FixedInterface"}; }
    std::shared_ptr<Device> createDevice(const std::shared_ptr<ConnectionPoint>& connectionPoint) override {
        const auto found = devicesToFind().find(connectionPoint->name);
        return found == devicesToFind().end() ? nullptr : found->second;
    }
};

const bool factoriesRegistered = [] {
    static DaqObjectFactory<GenericInterface<FixedInterfaceHelper, FixedInterfacePort>, DaqObjectFactoryType::Interface>
        interfaces;
    static DaqObjectFactory<TestDeviceFactory, DaqObjectFactoryType::DeviceFactory> devices;
    DaqObjectFactoryManager::registerObjectFactory(&interfaces);
    DaqObjectFactoryManager::registerObjectFactory(&devices);
    return true;
}();

ChannelNodePtr<> findNode(const ChannelFolderPtr& root, const std::string& name) {
    for (const auto& child : root.getChildren()) {
        if (child.getName() == name) {
            return child;
        }
        if (auto folder = child.asPtrOrNull<IChannelFolder>()) {
            if (auto found = findNode(folder, name)) {
                return found;
            }
        }
    }
    return {};
}

}  // namespace

std::map<std::string, std::shared_ptr<Device>>& devicesToFind() {
    static std::map<std::string, std::shared_ptr<Device>> devices;
    return devices;
}

LogCapture::LogCapture() {
    connectLogger();
    addLogSink(this, 0);
}

LogCapture::~LogCapture() {
    removeLogSink(this);
}

void LogCapture::write(const LogRecord& record) {
    if (std::string(record.logger) != "DaqModule") {
        return;
    }
    const std::string message = record.message;
    const size_t end = message.find("] ");
    const size_t start = end == std::string::npos ? 0 : end + 2;
    entries.push_back({record.level, record.function, message.substr(0, start), message.substr(start)});
}

Texts LogCapture::take(int level) {
    Texts texts;
    for (const auto& entry : entries) {
        if (entry.level == level) {
            texts.push_back(entry.text);
        }
    }
    entries.clear();
    return texts;
}

HostData::HostData()
    : data(made<IData>(createData, StringPtr("Data").get(), 10)),
      dataModule(made<IDataModule>(createDataModule, StringPtr("Module").get())),
      sync(made<IAcquisitionSync>(createAcquisitionSync)) {
    checkErrorInfo(data->addDataModule(dataModule.get()));
}

HostData::~HostData() {
    devicesToFind().clear();
}

void HostData::plug(const std::vector<std::shared_ptr<Device>>& devices) {
    devicesToFind().clear();
    int place = 10;
    for (const auto& device : devices) {
        devicesToFind()["ID_" + std::to_string(place++)] = device;
    }
}

void HostData::reserveMemory(DaqStructure& structure, const Texts& used) {
    for (const auto& [channel, hostChannel] : structure.getChannelsMap()) {
        hostChannel.setUsed(std::find(used.begin(), used.end(), channel->name) != used.end());
        checkErrorInfo(hostChannel->initializeAcquisition());
    }
}

ErrCode HostData::add(IModule& module, const DataModulePtr& place) const {
    return module.add(made<IModuleAddParams>(createModuleAddParams, data.get(), place.get(), sync.get()).get());
}

void HostData::configure(IModule& module) {
    const auto config = made<IModuleConfig>(createModuleConfig, data.get());
    checkErrorInfo(module.configure(config.get()));
    IClockProvider* newClock = nullptr;
    ILoopProvider* newLoop = nullptr;
    IAbsTimeProvider* newAbsTime = nullptr;
    checkErrorInfo(zornGetRegisteredProviders(config.get(), &newClock, &newLoop, &newAbsTime));
    clock = ObjectPtr<IClockProvider>::take(newClock);
    loop = ObjectPtr<ILoopProvider>::take(newLoop);
    absTime = ObjectPtr<IAbsTimeProvider>::take(newAbsTime);
}

void HostData::forgetProviders() {
    made<IModuleConfig>(createModuleConfig, data.get());
    clock.release();
    loop.release();
    absTime.release();
}

ChannelPtr<> HostData::channel(const std::string& name) const {
    return findNode(dataModule.getRootFolder(), name).asPtrOrNull<IChannel>();
}

ChannelFolderPtr HostData::folder(const std::string& name) const {
    return findNode(dataModule.getRootFolder(), name).asPtrOrNull<IChannelFolder>();
}

Bench::Bench()
    : controller(std::make_unique<DaqController>()), structure(std::make_unique<DaqStructure>(*controller)) {}

Bench::~Bench() = default;

void Bench::scan(const std::vector<std::shared_ptr<Device>>& devices) {
    plug(devices);
    controller->initialize();
    controller->scan();
    controller->initializeHardware();
    log.entries.clear();
}

void Bench::build(const std::vector<std::shared_ptr<Device>>& devices) {
    scan(devices);
    structure->buildDataModuleProps(dataModule);
    structure->buildDeviceTree(controller->systemDevice, dataModule.getRootFolder(), sync);
    buildErrors = log.take();
}

void Bench::reserve(const Texts& used) {
    controller->prepareAcquisition();
    structure->initialize();
    reserveMemory(*structure, used);
}

BasePtr rate(int value) {
    return toValue(Ratio{value, 1});
}

BasePtr rates(int first, int second) {
    return asBase(ListPtr::create({rate(first), rate(second)}));
}

BasePtr listOf(const std::vector<int>& numbers) {
    const ListPtr list = ListPtr::create();
    for (const int number : numbers) {
        list.pushBack(toValue(number));
    }
    return asBase(list);
}

std::string textOf(const BasePtr& value) {
    if (auto list = value ? value.asPtrOrNull<IList>() : ObjectPtr<IList>()) {
        const ListPtr items(list);
        std::string text = "[";
        for (size_t i = 0; i < items.getCount(); ++i) {
            text += (i == 0 ? "" : ", ") + textOf(items.getItemAt(i));
        }
        return text + "]";
    }
    return value ? fromValue<std::string>(value) : "null";
}

}  // namespace Harvane::RT::Modules::Daq::Test
