#include "host/coreobjects/serializer_factories.h"

#include <dlfcn.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <zorn/objects/property_object_impl.h>

#include "host/coreobjects/class_form.h"

namespace Harvane::RT::Core {
namespace {

// The shared object that an address lies in; null when it lies in none.
const void* libraryOf(const void* address) {
    Dl_info info{};
    return address != nullptr && dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

// Never destroyed: libraries take their factories back while the process ends.
class FactoryRegistry {
public:
    static FactoryRegistry& instance() {
        static FactoryRegistry* const registry = new FactoryRegistry;
        return *registry;
    }

    void add(const char* id, SerializerFactory factory) {
        std::lock_guard lock(mutex_);
        auto& factories = factories_[id];
        std::erase(factories, factory);
        factories.push_back(factory);
    }
    void drop(const void* library) {
        // The loader is not asked under the lock: it may be waiting for that in a library's initialisation.
        std::vector<SerializerFactory> going;
        {
            std::lock_guard lock(mutex_);
            for (const auto& [id, factories] : factories_) {
                going.insert(going.end(), factories.begin(), factories.end());
            }
        }
        std::erase_if(going, [&](SerializerFactory factory) {
            return libraryOf(reinterpret_cast<const void*>(factory)) != library;
        });
        std::lock_guard lock(mutex_);
        for (auto& [id, factories] : factories_) {
            std::erase_if(factories, [&](SerializerFactory factory) {
                return std::find(going.begin(), going.end(), factory) != going.end();
            });
        }
    }
    SerializerFactory find(std::string_view id) const {
        std::lock_guard lock(mutex_);
        const auto found = factories_.find(id);
        return found == factories_.end() || found->second.empty() ? nullptr : found->second.back();
    }

private:
    FactoryRegistry() {
        factories_["PropertyObject"] = {&deserialize};
        factories_[ClassFormId] = {&deserializeClass};
        factories_[EvalFormId] = {&deserializeEval};
    }

    mutable std::mutex mutex_;
    // Older ones stay behind the newest, for the time when its library goes.
    std::map<std::string, std::vector<SerializerFactory>, std::less<>> factories_;
};

}  // namespace

SerializerFactory findSerializerFactory(std::string_view id) {
    return FactoryRegistry::instance().find(id);
}

ErrCode zornRegisterSerializerFactory(const char* id, SerializerFactory factory) {
    if (id == nullptr || factory == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    return wrapHandler([&] { FactoryRegistry::instance().add(id, factory); });
}

ErrCode zornDropSerializerFactories(const void* address) {
    if (address == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    return wrapHandler([&] {
        if (const void* library = libraryOf(address)) {
            FactoryRegistry::instance().drop(library);
        }
    });
}

}  // namespace Harvane::RT::Core
