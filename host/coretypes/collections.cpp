#include <string>
#include <unordered_map>
#include <vector>

#include <zorn/types/object_impl.h>
#include <zorn/types/values.h>

namespace Harvane::RT::Core {
namespace {

class ListImpl final : public ObjectImpl<IList, ICoreType> {
public:
    ErrCode getCount(size_t* count) override { return handOut(items_.size(), count); }
    ErrCode getItemAt(size_t index, IBaseObject** item) override {
        if (item == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *item = nullptr;
        if (index >= items_.size()) {
            return beyond(index);
        }
        *item = BasePtr(items_[index]).detach();
        return Errors::Success;
    }
    ErrCode pushBack(IBaseObject* item) override {
        return wrapHandler([&] { items_.emplace_back(item); });
    }
    ErrCode setItemAt(size_t index, IBaseObject* item) override {
        if (index >= items_.size()) {
            return beyond(index);
        }
        const BasePtr replaced = std::exchange(items_[index], BasePtr(item));
        return Errors::Success;
    }
    ErrCode removeAt(size_t index) override {
        if (index >= items_.size()) {
            return beyond(index);
        }
        const BasePtr removed = items_[index];
        items_.erase(items_.begin() + static_cast<std::ptrdiff_t>(index));
        return Errors::Success;
    }
    ErrCode clear() override {
        const auto removed = std::exchange(items_, {});
        return Errors::Success;
    }
    ErrCode dispose() override { return clear(); }
    ErrCode getCoreType(CoreType* type) override { return handOut(CoreType::List, type); }
    ErrCode toString(char** text) override {
        return text == nullptr ? plainError(Errors::ArgumentNull) : zornDuplicateCharPtr(text, "List");
    }

private:
    ErrCode beyond(size_t index) const {
        return wrapHandler([&]() -> ErrCode {
            const std::string text =
                "Index " + std::to_string(index) + " is beyond the list of " + std::to_string(items_.size()) + " items";
            return makeError(Errors::OutOfRange, text.c_str());
        });
    }

    std::vector<BasePtr> items_;
};

struct ContentHash {
    size_t operator()(const BasePtr& key) const {
        size_t hash = 0;
        checkErrorInfo(key->getHashCode(&hash));
        return hash;
    }
};
struct ContentEqual {
    bool operator()(const BasePtr& left, const BasePtr& right) const { return left.equals(right); }
};

class DictImpl final : public ObjectImpl<IDict, ICoreType> {
public:
    ErrCode getItem(IBaseObject* key, IBaseObject** value) override {
        if (key == nullptr || value == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *value = nullptr;
        return wrapHandler([&] {
            const auto found = items_.find(BasePtr(key));
            if (found == items_.end()) {
                throw NotFoundException("The dictionary has no key \"%s\"", textOf(BasePtr(key)).c_str());
            }
            *value = BasePtr(found->second).detach();
        });
    }
    ErrCode setItem(IBaseObject* key, IBaseObject* value) override {
        if (key == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] { const BasePtr replaced = std::exchange(items_[BasePtr(key)], BasePtr(value)); });
    }
    ErrCode hasKey(IBaseObject* key, unsigned char* found) override {
        if (key == nullptr || found == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] { *found = items_.contains(BasePtr(key)) ? 1 : 0; });
    }
    ErrCode removeItem(IBaseObject* key) override {
        if (key == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] {
            const auto removed = items_.extract(BasePtr(key));
            if (removed.empty()) {
                throw NotFoundException("The dictionary has no key \"%s\"", textOf(BasePtr(key)).c_str());
            }
        });
    }
    ErrCode getKeys(IList** keys) override {
        if (keys == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *keys = nullptr;
        return wrapHandler([&] {
            ListPtr list = ListPtr::create();
            for (const auto& [key, value] : items_) {
                list.pushBack(key);
            }
            *keys = list.detach();
        });
    }
    ErrCode getCount(size_t* count) override { return handOut(items_.size(), count); }
    ErrCode dispose() override {
        const auto removed = std::exchange(items_, {});
        return Errors::Success;
    }
    ErrCode getCoreType(CoreType* type) override { return handOut(CoreType::Dict, type); }
    ErrCode toString(char** text) override {
        return text == nullptr ? plainError(Errors::ArgumentNull) : zornDuplicateCharPtr(text, "Dict");
    }

private:
    std::unordered_map<BasePtr, BasePtr, ContentHash, ContentEqual> items_;
};

}  // namespace

ErrCode createList(IList** object) {
    return createObject<ListImpl>(object);
}
ErrCode createDict(IDict** object) {
    return createObject<DictImpl>(object);
}

}  // namespace Harvane::RT::Core
