// The top of the tree and the data modules below it.

#include <zorn/structure/module.h>

#include "host/corestructure/Internal.h"
#include "host/corestructure/NodeImpl.h"

namespace Harvane::RT::Core {

namespace {

constexpr const char* OperationModeProp = "OperationMode";
constexpr const char* UpdatingProp = "isUpdatingFromConfiguration";
constexpr int StandardMode = 1;
constexpr const char* RootFolderId = "channels";

class AcquisitionInfoImpl final : public ObjectImpl<IAcquisitionInfo> {
public:
    explicit AcquisitionInfoImpl(long cycleTimeMs) : cycleTimeMs_(cycleTimeMs) {}
    ErrCode getCycleTime(long* milliseconds) override { return handOut(cycleTimeMs_, milliseconds); }

private:
    const long cycleTimeMs_;
};

class DataImpl final : public NodeImpl<IData, IClockReceiver> {
public:
    DataImpl(IString* id, long cycleTimeMs)
        : NodeImpl(StringPtr(), NodeType::Data, id),
          info_(ObjectPtr<IAcquisitionInfo>::take(new AcquisitionInfoImpl(cycleTimeMs))) {
        checkErrorInfo(registerProperty(
            PropertyInfoPtr::create(OperationModeProp, CoreType::Int).defaultValue(StandardMode).get()));
        checkErrorInfo(
            registerProperty(PropertyInfoPtr::create(UpdatingProp, CoreType::Bool).defaultValue(false).get()));
    }

    ErrCode getAcquisitionInfo(IAcquisitionInfo** info) override { return handOut(info_, info); }
    ErrCode getDataModules(IList** modules) override {
        if (modules == nullptr) {
            return argumentNull();
        }
        *modules = nullptr;
        return guarded([&] {
            const ListPtr list = ListPtr::create();
            for (const auto& module : modules_) {
                list.pushBack(asBase(module));
            }
            *modules = ListPtr(list).detach();
        });
    }
    ErrCode addDataModule(IDataModule* module) override {
        if (module == nullptr) {
            return argumentNull();
        }
        return guarded([&] {
            modules_.reserve(modules_.size() + 1);
            adoptChild(this, modules_, module, "module");
            modules_.emplace_back(static_cast<INode*>(module));
        });
    }
    // Called in every cycle: no more than a reference.
    ErrCode getClockProvider(IClockProvider** provider) override {
        if (provider == nullptr) {
            return argumentNull();
        }
        *provider = nullptr;
        if (!clock_) {
            return makeError(Errors::Uninitialized, "No clock has been registered yet", self());
        }
        *provider = ObjectPtr<IClockProvider>(clock_).detach();
        return Errors::Success;
    }
    ErrCode setClockProvider(IClockProvider* clock) override {
        clock_ = clock;
        return Errors::Success;
    }

    ErrCode dispose() override {
        clock_.release();
        std::exchange(modules_, {});
        return NodeImpl::dispose();
    }

private:
    const ObjectPtr<IAcquisitionInfo> info_;
    std::vector<ObjectPtr<INode>> modules_;
    ObjectPtr<IClockProvider> clock_;
};

class DataModuleImpl final : public NodeImpl<IDataModule> {
public:
    explicit DataModuleImpl(IString* id) : NodeImpl(StringPtr(), NodeType::DataModule, id) {
        IChannelFolder* folder = nullptr;
        checkErrorInfo(createChannelFolder(&folder, StringPtr(RootFolderId).get()));
        root_ = ObjectPtr<IChannelFolder>::take(folder);
    }

    // The root folder's parent is given here and not in the constructor, where nobody holds this object yet.
    void adoptRoot() { adoptChild(this, {}, root_.get(), RootFolderId); }

    ErrCode getRootFolder(IChannelFolder** folder) override { return handOut(root_, folder); }

private:
    ObjectPtr<IChannelFolder> root_;
};

}  // namespace

ErrCode createData(IData** data, IString* id, long cycleTimeMs) {
    if (cycleTimeMs < 1) {
        return makeError(Errors::InvalidParameter, "The cycle time must be 1 ms or more");
    }
    return createObject<DataImpl>(data, id, cycleTimeMs);
}

ErrCode createDataModule(IDataModule** module, IString* id) {
    if (module == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    return wrapHandler([&] {
        auto* made = new DataModuleImpl(id);
        auto holder = ObjectPtr<IDataModule>::take(made);
        made->adoptRoot();
        *module = holder.detach();
    });
}

}  // namespace Harvane::RT::Core
