#pragma once

#include <zorn/structure/channel.h>

// The contract between host and module: what the host passes in, what a module offers and how it is driven.
namespace Harvane::RT::Core {

class IAcquisitionInfo : public IBaseObject {
public:
    using Base = IBaseObject;
    static constexpr IntfID Id = interfaceId("IAcquisitionInfo");
    virtual ErrCode getCycleTime(long* milliseconds) = 0;

protected:
    ~IAcquisitionInfo() = default;
};

// Held by the scheduler for the whole of each cycle. Whoever else takes it may read samples undisturbed, and delays the
// cycle for as long.
class IAcquisitionSync : public IBaseObject {
public:
    using Base = IBaseObject;
    static constexpr IntfID Id = interfaceId("IAcquisitionSync");
    virtual ErrCode lock() = 0;
    virtual ErrCode unlock() = 0;

protected:
    ~IAcquisitionSync() = default;
};

// Time since the start of the acquisition, in ticks of the clock base (1 ns). -1 s while there is none. Any thread.
class IClockProvider : public IBaseObject {
public:
    using Base = IBaseObject;
    static constexpr IntfID Id = interfaceId("IClockProvider");
    virtual ErrCode getUnit(IString** unit) = 0;
    virtual ErrCode getClockBase(IRatio** base) = 0;
    virtual ErrCode getResolution(IRatio** resolution) = 0;
    virtual ErrCode getCurrentClock(long* ticks) = 0;
    virtual ErrCode getAcquiredClock(long* ticks) = 0;

protected:
    ~IClockProvider() = default;
};

enum class TrackingEnum : int32_t { No = 0, Yes = 1 };
enum class TimingErrorEnum : int32_t { No = 0, Yes = 1 };

// Microseconds since 1970, -1 unknown. Any thread.
class IAbsTimeProvider : public IBaseObject {
public:
    using Base = IBaseObject;
    static constexpr IntfID Id = interfaceId("IAbsTimeProvider");
    virtual ErrCode getStartAbsTime(long* microseconds) = 0;
    virtual ErrCode getCurrentAbsTime(long* microseconds) = 0;
    virtual ErrCode getTracking(TrackingEnum* tracking) = 0;
    virtual ErrCode getTimingError(TimingErrorEnum* error) = 0;
    virtual ErrCode getIsAbsTimeSynchronized(unsigned char* synchronized) = 0;

protected:
    ~IAbsTimeProvider() = default;
};

// A module that cycles the host by itself.
class ILoopProvider : public IBaseObject {
public:
    using Base = IBaseObject;
    static constexpr IntfID Id = interfaceId("ILoopProvider");
    virtual ErrCode initializeLoop() = 0;
    // `cycle` dispatched with a null argument runs one cycle.
    virtual ErrCode startLoop(IProcObject* cycle, IBaseObject* context) = 0;
    virtual ErrCode stopLoop() = 0;
    virtual ErrCode getInterval(long* milliseconds) const = 0;  // 0 possible

protected:
    ~ILoopProvider() = default;
};

class IDataModule : public INode {
public:
    using Base = INode;
    static constexpr IntfID Id = interfaceId("IDataModule");
    virtual ErrCode getRootFolder(IChannelFolder** folder) = 0;

protected:
    ~IDataModule() = default;
};

// The top of the tree. Properties: int "OperationMode" (2 is real-time, anything else stands for 1) and bool
// "isUpdatingFromConfiguration" (true while a setup is loaded).
class IData : public INode {
public:
    using Base = INode;
    static constexpr IntfID Id = interfaceId("IData");
    virtual ErrCode getAcquisitionInfo(IAcquisitionInfo** info) = 0;
    virtual ErrCode getDataModules(IList** modules) = 0;
    virtual ErrCode addDataModule(IDataModule* module) = 0;  // becomes its parent
    // The clock of the last configure; Uninitialized before.
    virtual ErrCode getClockProvider(IClockProvider** provider) = 0;

protected:
    ~IData() = default;
};

class IModuleAddParams : public IBaseObject {
public:
    using Base = IBaseObject;
    static constexpr IntfID Id = interfaceId("IModuleAddParams");
    virtual ErrCode getData(IData** data) = 0;
    virtual ErrCode getDataModule(IDataModule** module) = 0;
    virtual ErrCode getAcquisitionSync(IAcquisitionSync** sync) = 0;

protected:
    ~IModuleAddParams() = default;
};

class IModuleConfig : public IBaseObject {
public:
    using Base = IBaseObject;
    static constexpr IntfID Id = interfaceId("IModuleConfig");
    virtual ErrCode setClockProvider(IClockProvider* provider) = 0;
    virtual ErrCode setLoopProvider(ILoopProvider* provider) = 0;
    virtual ErrCode setAbsTimeProvider(IAbsTimeProvider* provider) = 0;

protected:
    ~IModuleConfig() = default;
};

class IInputGroups : public IBaseObject {
public:
    using Base = IBaseObject;
    static constexpr IntfID Id = interfaceId("IInputGroups");

protected:
    ~IInputGroups() = default;
};

// Lifecycle calls arrive on one thread and never overlap processData.
class IModule : public IBaseObject {
public:
    using Base = IBaseObject;
    static constexpr IntfID Id = interfaceId("IModule");
    virtual ErrCode add(IModuleAddParams* parameters) = 0;
    virtual ErrCode remove() = 0;
    virtual ErrCode configure(IModuleConfig* config) = 0;
    virtual ErrCode initialize() = 0;
    virtual ErrCode start() = 0;
    virtual ErrCode postStart() = 0;
    virtual ErrCode preStop() = 0;
    virtual ErrCode stop() = 0;
    virtual ErrCode finalize() = 0;
    virtual ErrCode processData() = 0;  // once a cycle, on the scheduler's thread
    virtual ErrCode getTaskList(IList** tasks) = 0;          // may be null
    virtual ErrCode getInputs(IInputGroups** inputs) = 0;    // may be null
    virtual ErrCode getConfigurationMode(ConfigurationMode* mode) = 0;

protected:
    ~IModule() = default;
};

class IModuleFactory : public IBaseObject {
public:
    using Base = IBaseObject;
    static constexpr IntfID Id = interfaceId("IModuleFactory");
    virtual ErrCode getName(IString** name) = 0;
    virtual ErrCode createInstance(IString** name, IModule** module) = 0;

protected:
    ~IModuleFactory() = default;
};

class IModuleDriver : public IBaseObject {
public:
    using Base = IBaseObject;
    static constexpr IntfID Id = interfaceId("IModuleDriver");
    virtual ErrCode getName(IString** name) = 0;
    virtual ErrCode enumerateModuleFactories(IList** factories) = 0;
    virtual ErrCode getVersionInfo(IVersionInfo** version) = 0;

protected:
    ~IModuleDriver() = default;
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
    ChannelFolderPtr getRootFolder() const {
        return fetch<IChannelFolder>([&](IChannelFolder** r) { return checked()->getRootFolder(r); });
    }
};

class DataPtr : public NodePtr<IData> {
public:
    using NodePtr::NodePtr;
    DataPtr(const ObjectPtr<IData>& other) : NodePtr(other) {}
    DataPtr(ObjectPtr<IData>&& other) : NodePtr(std::move(other)) {}
    long getCycleTimeMs() const {
        auto info = fetch<IAcquisitionInfo>([&](IAcquisitionInfo** r) { return checked()->getAcquisitionInfo(r); });
        return read<long>([&](long* r) { return info->getCycleTime(r); });
    }
    std::vector<DataModulePtr> getDataModules() const {
        const ListPtr list = fetch<IList>([&](IList** r) { return checked()->getDataModules(r); });
        std::vector<DataModulePtr> modules;
        for (size_t i = 0, n = list.getCount(); i < n; ++i)
            modules.emplace_back(list.getItemAt(i).asPtr<IDataModule>());
        return modules;
    }
    ObjectPtr<IClockProvider> getClockProvider() const {
        return fetch<IClockProvider>([&](IClockProvider** r) { return checked()->getClockProvider(r); });
    }
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
    DataPtr getData() const { return fetch<IData>([&](IData** r) { return checked()->getData(r); }); }
    DataModulePtr getDataModule() const { return fetch<IDataModule>([&](IDataModule** r) { return checked()->getDataModule(r); }); }
    AcquisitionSyncPtr getAcquisitionSync() const {
        return fetch<IAcquisitionSync>([&](IAcquisitionSync** r) { return checked()->getAcquisitionSync(r); });
    }
};

using ModuleConfigPtr = ObjectPtr<IModuleConfig>;

}  // namespace Harvane::RT::Core
