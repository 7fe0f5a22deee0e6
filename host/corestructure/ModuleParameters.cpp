// What a module gets at `add` and at `configure`.

#include <zorn/structure/module.h>
#include <zorn/types/object_impl.h>

#include "host/corestructure/Internal.h"

namespace Harvane::RT::Core {

namespace {

class ModuleAddParamsImpl final : public ObjectImpl<IModuleAddParams> {
public:
    ModuleAddParamsImpl(IData* data, IDataModule* module, IAcquisitionSync* sync)
        : data_(data), module_(module), sync_(sync) {}

    ErrCode getData(IData** data) override { return handOut(data_, data); }
    ErrCode getDataModule(IDataModule** module) override { return handOut(module_, module); }
    ErrCode getAcquisitionSync(IAcquisitionSync** sync) override { return handOut(sync_, sync); }

private:
    const ObjectPtr<IData> data_;
    const ObjectPtr<IDataModule> module_;
    const ObjectPtr<IAcquisitionSync> sync_;
};

class ModuleConfigImpl final : public ObjectImpl<IModuleConfig, IRegisteredProviders> {
public:
    explicit ModuleConfigImpl(IData* data) : clockReceiver_(ObjectPtr<IData>(data).asPtrOrNull<IClockReceiver>()) {}

    ErrCode setClockProvider(IClockProvider* provider) override {
        clock_ = provider;
        return clockReceiver_ ? clockReceiver_->setClockProvider(provider) : Errors::Success;
    }
    ErrCode setLoopProvider(ILoopProvider* provider) override {
        loop_ = provider;
        return Errors::Success;
    }
    ErrCode setAbsTimeProvider(IAbsTimeProvider* provider) override {
        absTime_ = provider;
        return Errors::Success;
    }
    ErrCode dispose() override {
        loop_.release();
        absTime_.release();
        return setClockProvider(nullptr);
    }

    ErrCode getProviders(IClockProvider** clock, ILoopProvider** loop, IAbsTimeProvider** absTime) override {
        if (clock != nullptr) {
            handOut(clock_, clock);
        }
        if (loop != nullptr) {
            handOut(loop_, loop);
        }
        if (absTime != nullptr) {
            handOut(absTime_, absTime);
        }
        return Errors::Success;
    }

private:
    const ObjectPtr<IClockReceiver> clockReceiver_;
    ObjectPtr<IClockProvider> clock_;
    ObjectPtr<ILoopProvider> loop_;
    ObjectPtr<IAbsTimeProvider> absTime_;
};

}  // namespace

ErrCode createModuleAddParams(IModuleAddParams** parameters, IData* data, IDataModule* module, IAcquisitionSync* sync) {
    if (data == nullptr || module == nullptr || sync == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    return createObject<ModuleAddParamsImpl>(parameters, data, module, sync);
}

ErrCode createModuleConfig(IModuleConfig** config, IData* data) {
    if (data == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    const ErrCode code = createObject<ModuleConfigImpl>(config, data);
    // A new round of registrations: the clock of the last one is forgotten even if none comes.
    if (succeeded(code)) {
        (*config)->setClockProvider(nullptr);
    }
    return code;
}

ErrCode zornGetRegisteredProviders(IModuleConfig* config, IClockProvider** clock, ILoopProvider** loop,
                                   IAbsTimeProvider** absTime) {
    if (config == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    void* providers = nullptr;
    const ErrCode code = config->borrowInterface(IRegisteredProviders::Id, &providers);
    return failed(code) ? plainError(code)
                        : static_cast<IRegisteredProviders*>(providers)->getProviders(clock, loop, absTime);
}

}  // namespace Harvane::RT::Core
