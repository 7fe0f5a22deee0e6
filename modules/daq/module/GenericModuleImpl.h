#pragma once

#include <utility>

#include <zorn/objects/property_object_impl.h>
#include <zorn/structure/module.h>

namespace Harvane::RT::Modules::Daq {

// A module of the host: a property object that maps each call of the host's lifecycle to a handler. A handler fails
// by exception, which the host gets as a code and a text. The handlers of the base do nothing.
template <class First, class... Interfaces>
class GenericModuleImpl : public Core::GenericPropertyObjectImpl<First, Core::IModule, Interfaces...> {
public:
    // What a refused or failed call brings is not kept.
    Core::ErrCode add(Core::IModuleAddParams* parameters) override {
        return Core::wrapHandler([&] {
            const Core::ModuleAddParamsPtr params(parameters);
            auto kept = std::pair(params.getData(), params.getDataModule());
            std::swap(data, kept.first);
            std::swap(dataModule, kept.second);
            try {
                onAdd(params);
            } catch (...) {
                std::swap(data, kept.first);
                std::swap(dataModule, kept.second);
                throw;
            }
        });
    }
    Core::ErrCode remove() override {
        return Core::wrapHandler([&] { onRemove(); });
    }
    Core::ErrCode configure(Core::IModuleConfig* config) override {
        return Core::wrapHandler([&] { onConfigure(Core::ModuleConfigPtr(config)); });
    }
    Core::ErrCode initialize() override {
        return Core::wrapHandler([&] { onInitialize(); });
    }
    Core::ErrCode start() override {
        return Core::wrapHandler([&] { onStart(); });
    }
    Core::ErrCode postStart() override {
        return Core::wrapHandler([&] { onPostStart(); });
    }
    Core::ErrCode preStop() override {
        return Core::wrapHandler([&] { onPreStop(); });
    }
    Core::ErrCode stop() override {
        return Core::wrapHandler([&] { onStop(); });
    }
    Core::ErrCode finalize() override {
        return Core::wrapHandler([&] { onFinalize(); });
    }
    Core::ErrCode processData() override {
        return Core::wrapHandler([&] { onProcessData(); });
    }
    Core::ErrCode getTaskList(Core::IList** tasks) override {
        if (tasks == nullptr) {
            return Core::plainError(Core::Errors::ArgumentNull);
        }
        return Core::wrapHandler([&] { *tasks = onGetTaskList().detach(); });
    }
    Core::ErrCode getInputs(Core::IInputGroups** inputs) override {
        if (inputs == nullptr) {
            return Core::plainError(Core::Errors::ArgumentNull);
        }
        return Core::wrapHandler([&] { *inputs = onGetInputs().detach(); });
    }
    Core::ErrCode getConfigurationMode(Core::ConfigurationMode* mode) override {
        if (mode == nullptr) {
            return Core::plainError(Core::Errors::ArgumentNull);
        }
        return Core::wrapHandler([&] { *mode = onGetConfigurationMode(); });
    }

protected:
    virtual void onAdd(const Core::ModuleAddParamsPtr&) {}
    virtual void onRemove() {}
    virtual void onConfigure(const Core::ModuleConfigPtr&) {}
    virtual void onInitialize() {}
    virtual void onStart() {}
    virtual void onPostStart() {}
    virtual void onPreStop() {}
    virtual void onStop() {}
    virtual void onFinalize() {}
    virtual void onProcessData() {}
    virtual Core::ListPtr onGetTaskList() { return {}; }
    virtual Core::ObjectPtr<Core::IInputGroups> onGetInputs() { return {}; }
    // Bits 1 and 2: the host may load and store the configuration.
    virtual Core::ConfigurationMode onGetConfigurationMode() { return 3; }

    Core::DataPtr data;              // from `add` on
    Core::DataModulePtr dataModule;  // from `add` on
};

}  // namespace Harvane::RT::Modules::Daq
