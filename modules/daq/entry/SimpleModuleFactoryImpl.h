#pragma once

#include <cstdint>
#include <exception>

#include <zorn/structure/module.h>
#include <zorn/types/object_impl.h>

namespace Harvane::RT::Modules::Daq {

// Makes modules of one class; with SingleInstance at most one.
template <bool SingleInstance, const char* Name, class Module>
class SimpleModuleFactoryImpl final : public Core::ObjectImpl<Core::IModuleFactory> {
public:
    Core::ErrCode getName(Core::IString** name) override {
        return name == nullptr ? Core::Errors::ArgumentNull : Core::createString(name, Name);
    }

    // InstanceLimit (0x80000009) for one module too many. The outputs are written on success only.
    Core::ErrCode createInstance(Core::IString** name, Core::IModule** module) override {
        if (name == nullptr || module == nullptr) {
            return Core::plainError(Core::Errors::ArgumentNull);
        }
        if (SingleInstance && instances_ > 0) {
            return Core::plainError(Core::Errors::InstanceLimit);
        }
        try {
            Core::StringPtr text(Name);
            *module = new Module();
            *name = text.detach();
        } catch (const Core::ZornException& exception) {
            return Core::errorFromException(exception);
        } catch (...) {
            return Core::plainError(Core::Errors::GeneralError);
        }
        ++instances_;
        return Core::Errors::Success;
    }

private:
    std::int32_t instances_ = 0;
};

}  // namespace Harvane::RT::Modules::Daq
