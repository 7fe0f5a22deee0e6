#pragma once

#include <zorn/structure/channel.h>

// The contract between host and module: what the host passes in, what a module offers and how it is driven.
namespace Harvane::RT::Core {

class IAcquisitionInfo : public IBaseObject {
    ZORN_INTERFACE(IAcquisitionInfo, IBaseObject)

    virtual ErrCode getCycleTime(long* milliseconds) = 0;
};

// Held by the scheduler for the whole of each cycle. Whoever else takes it may read samples undisturbed, and delays the
// cycle for as long.
class IAcquisitionSync : public IBaseObject {
    ZORN_INTERFACE(IAcquisitionSync, IBaseObject)

    virtual ErrCode lock() = 0;
    virtual ErrCode unlock() = 0;
};

// Time since the start of the acquisition, in ticks of the clock base (1 ns). -1 s while there is none. Any thread.
class IClockProvider : public IBaseObject {
    ZORN_INTERFACE(IClockProvider, IBaseObject)

    virtual ErrCode getUnit(IString** unit) = 0;
    virtual ErrCode getClockBase(IRatio** base) = 0;
    virtual ErrCode getResolution(IRatio** resolution) = 0;
    virtual ErrCode getCurrentClock(long* ticks) = 0;
    virtual ErrCode getAcquiredClock(long* ticks) = 0;
};

enum class TrackingEnum : int32_t { No = 0, Yes = 1 };
enum class TimingErrorEnum : int32_t { No = 0, Yes = 1 };

// Microseconds since 1970, -1 unknown. Any thread.
class IAbsTimeProvider : public IBaseObject {
    ZORN_INTERFACE(IAbsTimeProvider, IBaseObject)

    virtual ErrCode getStartAbsTime(long* microseconds) = 0;
    virtual ErrCode getCurrentAbsTime(long* microseconds) = 0;
    virtual ErrCode getTracking(TrackingEnum* tracking) = 0;
    virtual ErrCode getTimingError(TimingErrorEnum* error) = 0;
    virtual ErrCode getIsAbsTimeSynchronized(unsigned char* synchronized) = 0;
};

// A module that cycles the host by itself.
class ILoopProvider : public IBaseObject {
    ZORN_INTERFACE(ILoopProvider, IBaseObject)

    virtual ErrCode initializeLoop() = 0;
    // `cycle` dispatched with a null argument runs one cycle.
    virtual ErrCode startLoop(IProcObject* cycle, IBaseObject* context) = 0;
    virtual ErrCode stopLoop() = 0;
    virtual ErrCode getInterval(long* milliseconds) const = 0;  // 0 possible
};

class IDataModule : public INode {
    ZORN_INTERFACE(IDataModule, INode)

    virtual ErrCode getRootFolder(IChannelFolder** folder) = 0;
};

// The top of the tree. Properties: int "OperationMode" (2 is real-time, anything else stands for 1) and bool
// "isUpdatingFromConfiguration" (true while a setup is loaded).
class IData : public INode {
    ZORN_INTERFACE(IData, INode)

    virtual ErrCode getAcquisitionInfo(IAcquisitionInfo** info) = 0;
    virtual ErrCode getDataModules(IList** modules) = 0;
    virtual ErrCode addDataModule(IDataModule* module) = 0;  // becomes its parent
    // The clock of the last configure; Uninitialized before.
    virtual ErrCode getClockProvider(IClockProvider** provider) = 0;
};

class IModuleAddParams : public IBaseObject {
    ZORN_INTERFACE(IModuleAddParams, IBaseObject)

    virtual ErrCode getData(IData** data) = 0;
    virtual ErrCode getDataModule(IDataModule** module) = 0;
    virtual ErrCode getAcquisitionSync(IAcquisitionSync** sync) = 0;
};

class IModuleConfig : public IBaseObject {
    ZORN_INTERFACE(IModuleConfig, IBaseObject)

    virtual ErrCode setClockProvider(IClockProvider* provider) = 0;
    virtual ErrCode setLoopProvider(ILoopProvider* provider) = 0;
    virtual ErrCode setAbsTimeProvider(IAbsTimeProvider* provider) = 0;
};

class IInputGroups : public IBaseObject {
    ZORN_INTERFACE(IInputGroups, IBaseObject)
};

// Lifecycle calls arrive on one thread and never overlap processData.
class IModule : public IBaseObject {
    ZORN_INTERFACE(IModule, IBaseObject)

    virtual ErrCode add(IModuleAddParams* parameters) = 0;
    virtual ErrCode remove() = 0;
    virtual ErrCode configure(IModuleConfig* config) = 0;
    virtual ErrCode initialize() = 0;
    virtual ErrCode start() = 0;
    virtual ErrCode postStart() = 0;
    virtual ErrCode preStop() = 0;
    virtual ErrCode stop() = 0;
    virtual ErrCode finalize() = 0;
    virtual ErrCode processData() = 0;                     // once a cycle, on the scheduler's thread
    virtual ErrCode getTaskList(IList** tasks) = 0;        // may be null
    virtual ErrCode getInputs(IInputGroups** inputs) = 0;  // may be null
    virtual ErrCode getConfigurationMode(ConfigurationMode* mode) = 0;
};

class IModuleFactory : public IBaseObject {
    ZORN_INTERFACE(IModuleFactory, IBaseObject)

    virtual ErrCode getName(IString** name) = 0;
    virtual ErrCode createInstance(IString** name, IModule** module) = 0;
};

class IModuleDriver : public IBaseObject {
    ZORN_INTERFACE(IModuleDriver, IBaseObject)

    virtual ErrCode getName(IString** name) = 0;
    virtual ErrCode enumerateModuleFactories(IList** factories) = 0;
    virtual ErrCode getVersionInfo(IVersionInfo** version) = 0;
};

// Host side makers.
ZORN_FUNCTION ErrCode createAcquisitionSync(IAcquisitionSync** sync);
ZORN_FUNCTION ErrCode createData(IData** data, IString* id, long cycleTimeMs);
ZORN_FUNCTION ErrCode createDataModule(IDataModule** module, IString* id);
ZORN_FUNCTION ErrCode createModuleAddParams(IModuleAddParams** parameters, IData* data, IDataModule* module,
                                            IAcquisitionSync* sync);
// Takes the providers that a module registers and hands the clock to `data`.
ZORN_FUNCTION ErrCode createModuleConfig(IModuleConfig** config, IData* data);
// What was registered; null and 0 when nothing was.
ZORN_FUNCTION ErrCode zornGetRegisteredProviders(IModuleConfig* config, IClockProvider** clock, ILoopProvider** loop,
                                                 IAbsTimeProvider** absTime);
ZORN_FUNCTION void zornSchedulerGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch);
ZORN_FUNCTION void zornModuleManagerGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch);

class DataModulePtr : public NodePtr<IDataModule> {
public:
    using NodePtr::NodePtr;
    DataModulePtr(const ObjectPtr<IDataModule>& other) : NodePtr(other) {}
    DataModulePtr(ObjectPtr<IDataModule>&& other) : NodePtr(std::move(other)) {}
    ChannelFolderPtr getRootFolder() const { return fetch(&IDataModule::getRootFolder); }
};

class DataPtr : public NodePtr<IData> {
public:
    using NodePtr::NodePtr;
    DataPtr(const ObjectPtr<IData>& other) : NodePtr(other) {}
    DataPtr(ObjectPtr<IData>&& other) : NodePtr(std::move(other)) {}
    long getCycleTimeMs() const {
        auto info = fetch(&IData::getAcquisitionInfo);
        return read<long>([&](long* r) { return info->getCycleTime(r); });
    }
    std::vector<DataModulePtr> getDataModules() const {
        const ListPtr list = fetch(&IData::getDataModules);
        std::vector<DataModulePtr> modules;
        for (size_t i = 0, n = list.getCount(); i < n; ++i) {
            modules.emplace_back(list.getItemAt(i).asPtr<IDataModule>());
        }
        return modules;
    }
    ObjectPtr<IClockProvider> getClockProvider() const { return fetch(&IData::getClockProvider); }
};

class AcquisitionSyncPtr : public ObjectPtr<IAcquisitionSync> {
public:
    using ObjectPtr::ObjectPtr;
    AcquisitionSyncPtr(ObjectPtr<IAcquisitionSync>&& other) : ObjectPtr(std::move(other)) {}
    void lock() const { checkErrorInfo(checked()->lock()); }
    void unlock() const { checkErrorInfo(checked()->unlock()); }
};

class ModuleAddParamsPtr : public ObjectPtr<IModuleAddParams> {
public:
    using ObjectPtr::ObjectPtr;
    DataPtr getData() const { return fetch(&IModuleAddParams::getData); }
    DataModulePtr getDataModule() const { return fetch(&IModuleAddParams::getDataModule); }
    AcquisitionSyncPtr getAcquisitionSync() const { return fetch(&IModuleAddParams::getAcquisitionSync); }
};

using ModuleConfigPtr = ObjectPtr<IModuleConfig>;

}  // namespace Harvane::RT::Core
