#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <zorn/objects/property_object_impl.h>

#include "host/coreobjects/class_form.h"

namespace Harvane::RT::Core {
namespace {

// Starts at 1: the engine's "no chain yet" is the largest number.
constinit std::atomic<uint64_t> classGeneration{1};

void classesChanged() {
    classGeneration.fetch_add(1, std::memory_order_release);
}

class PropertyObjectClassImpl final : public ObjectImpl<IPropertyObjectClass, ISerializable> {
public:
    explicit PropertyObjectClassImpl(IString* name) : name_(name) {}

    ErrCode getName(IString** name) override { return handOut(name_, name); }
    ErrCode setName(IString* name) override {
        name_ = StringPtr(name);
        classesChanged();
        return Errors::Success;
    }
    ErrCode getParent(IString** name) override { return handOut(parent_, name); }
    ErrCode setParent(IString* name) override {
        parent_ = StringPtr(name);
        classesChanged();
        return Errors::Success;
    }

    ErrCode registerProperty(IPropertyInfo* raw) override {
        return wrapHandler([&] {
            if (raw == nullptr) {
                throw InvalidParameterException("A property class can't register a null property");
            }
            const PropertyInfoPtr info(raw);
            const StringPtr name = enrol(info, infos_.size());
            if (!byName_.emplace(name, info).second) {
                throw AlreadyExistsException("Property %s already exists", name.toStdString().c_str());
            }
            infos_.push_back(info);
            classesChanged();
        });
    }
    ErrCode hasProperty(IString* name, unsigned char* found) override {
        if (name == nullptr || found == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] { *found = byName_.contains(HashedName(viewOf(name))) ? 1 : 0; });
    }
    ErrCode getProperty(IString* name, IPropertyInfo** info) override {
        if (name == nullptr || info == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *info = nullptr;
        return wrapHandler([&] {
            const auto found = byName_.find(HashedName(viewOf(name)));
            if (found == byName_.end()) {
                throw NotFoundException("Class %s has no property %s", name_.toStdString().c_str(),
                                        std::string(viewOf(name)).c_str());
            }
            *info = PropertyInfoPtr(found->second).detach();
        });
    }
    ErrCode enumProperties(PropertyOrder order, IList** infos) override {
        if (infos == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *infos = nullptr;
        return wrapHandler([&] {
            auto sorted = infos_;
            if (order == PropertyOrder::Name) {
                std::stable_sort(sorted.begin(), sorted.end(),
                                 [](const auto& left, const auto& right) { return left.getName() < right.getName(); });
            }
            ListPtr list = ListPtr::create();
            for (const auto& info : sorted) {
                list.pushBack(asBase(info));
            }
            *infos = list.detach();
        });
    }

    ErrCode serialize(ISerializer* serializer) override {
        if (serializer == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] { writeClassForm(serializer, name_, parent_, infos_); });
    }
    ErrCode getSerializeId(const char** id) override { return handOut(ClassFormId, id); }
    ErrCode toString(char** text) override {
        return text == nullptr ? plainError(Errors::ArgumentNull) : zornDuplicateCharPtr(text, "PropertyObjectClass");
    }

private:
    StringPtr name_;
    StringPtr parent_;
    std::vector<PropertyInfoPtr> infos_;
    PropertyNameMap<PropertyInfoPtr> byName_;
};

std::string withoutCase(std::string_view name) {
    std::string key(name);
    for (char& character : key) {
        if (character >= 'A' && character <= 'Z') {
            character = static_cast<char>(character - 'A' + 'a');
        }
    }
    return key;
}

// The classes of the process. Built at the first use, which may be another library's static initialisation, and never
// destroyed, because such a library may also use it while the process ends.
class ClassRegistry {
public:
    static ClassRegistry& instance() {
        static ClassRegistry* const registry = new ClassRegistry;
        return *registry;
    }

    void add(const PropertyObjectClassPtr& objectClass) {
        const std::string name = objectClass.getName().toStdString();
        if (name.empty()) {
            throw InvalidParameterException("A property class without a name can't be added");
        }
        std::lock_guard lock(mutex_);
        if (!classes_.emplace(withoutCase(name), objectClass).second) {
            throw AlreadyExistsException("Property class \"%s\" already exists", name.c_str());
        }
        classesChanged();
    }
    void remove(std::string_view name) {
        decltype(classes_)::node_type removed;  // dies without the lock
        std::lock_guard lock(mutex_);
        removed = classes_.extract(withoutCase(name));
        if (removed.empty()) {
            throw NotFoundException("Property class \"%s\" is not registered", std::string(name).c_str());
        }
        classesChanged();
    }
    PropertyObjectClassPtr find(std::string_view name) const {
        std::lock_guard lock(mutex_);
        const auto found = classes_.find(withoutCase(name));
        return found == classes_.end() ? PropertyObjectClassPtr() : found->second;
    }
    ListPtr list() const {
        ListPtr result = ListPtr::create();
        std::lock_guard lock(mutex_);
        for (const auto& [name, objectClass] : classes_) {
            result.pushBack(asBase(objectClass));
        }
        return result;
    }

private:
    mutable std::mutex mutex_;
    std::map<std::string, PropertyObjectClassPtr> classes_;
};

class PropertyObjectManagerImpl final : public ObjectImpl<IPropertyObjectManager> {
public:
    ErrCode addClass(IPropertyObjectClass* objectClass) override {
        if (objectClass == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] { ClassRegistry::instance().add(PropertyObjectClassPtr(objectClass)); });
    }
    ErrCode removeClass(IString* name) override {
        if (name == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] { ClassRegistry::instance().remove(viewOf(name)); });
    }
    ErrCode getClass(IString* name, IPropertyObjectClass** objectClass) override {
        if (name == nullptr || objectClass == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *objectClass = nullptr;
        return wrapHandler([&]() -> ErrCode {
            *objectClass = ClassRegistry::instance().find(viewOf(name)).detach();
            if (*objectClass != nullptr) {
                return Errors::Success;
            }
            return plainError(Errors::NotFound);
        });
    }
    ErrCode enumClasses(IList** classes) override {
        if (classes == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *classes = nullptr;
        return wrapHandler([&] { *classes = ClassRegistry::instance().list().detach(); });
    }
    ErrCode toString(char** text) override {
        return text == nullptr ? plainError(Errors::ArgumentNull) : zornDuplicateCharPtr(text, "PropertyObjectManager");
    }
};

}  // namespace

uint64_t zornGetClassGeneration() {
    return classGeneration.load(std::memory_order_acquire);
}

ErrCode createPropertyObjectClass(IPropertyObjectClass** object) {
    return createObject<PropertyObjectClassImpl>(object, nullptr);
}
ErrCode createProperyObjectClassWithName(IPropertyObjectClass** object, IString* name) {
    return createObject<PropertyObjectClassImpl>(object, name);
}
ErrCode createPropertyObjectManager(IPropertyObjectManager** object) {
    return createObject<PropertyObjectManagerImpl>(object);
}

}  // namespace Harvane::RT::Core
