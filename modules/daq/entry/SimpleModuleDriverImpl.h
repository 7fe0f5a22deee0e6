#pragma once

#include <utility>

#include <zorn/structure/module.h>
#include <zorn/types/object_impl.h>

namespace Harvane::RT::Modules::Daq {

// A driver with one kind of module. Each enumeration makes a new factory.
template <const char* Name, class Factory>
class SimpleModuleDriverImpl final : public Core::ObjectImpl<Core::IModuleDriver> {
public:
    explicit SimpleModuleDriverImpl(Core::ObjectPtr<Core::IVersionInfo> version) : version_(std::move(version)) {}

    Core::ErrCode getName(Core::IString** name) override {
        return name == nullptr ? Core::Errors::ArgumentNull : Core::createString(name, Name);
    }

    Core::ErrCode enumerateModuleFactories(Core::IList** factories) override {
        if (factories == nullptr) {
            return Core::plainError(Core::Errors::ArgumentNull);
        }
        return Core::wrapHandler([&] {
            Core::ListPtr list = Core::ListPtr::create();
            list.pushBack(Core::BasePtr::take(new Factory()));
            *factories = list.detach();
        });
    }

    Core::ErrCode getVersionInfo(Core::IVersionInfo** version) override {
        if (version == nullptr) {
            return Core::plainError(Core::Errors::ArgumentNull);
        }
        *version = Core::ObjectPtr<Core::IVersionInfo>(version_).detach();
        return Core::Errors::Success;
    }

private:
    Core::ObjectPtr<Core::IVersionInfo> version_;
};

}  // namespace Harvane::RT::Modules::Daq
