#include <cmath>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <zorn/objects/serialization.h>
#include <zorn/types/object_impl.h>
#include <zorn/types/values.h>

#include "host/coreobjects/serializer_factories.h"

namespace Harvane::RT::Core {
namespace {

using Json = nlohmann::ordered_json;

constexpr int maxDepth = 64;  // objects and lists within each other, read or written

// ---- Reading ------------------------------------------------------------------------------------

// A place in a text: the whole stays alive as long as a part of it is in use.
struct Place {
    std::shared_ptr<const Json> root;
    const Json* node = nullptr;
    std::string path;  // "/properties/3/values"; empty for the whole

    Place at(const Json& child, const std::string& step) const { return {root, &child, path + "/" + step}; }
    const char* name() const { return path.empty() ? "/" : path.c_str(); }
};

[[noreturn]] void refuse(const Place& place, const std::string& reason) {
    throw DeserializeException("%s: %s", place.name(), reason.c_str());
}

SerializedType typeOf(const Place& place) {
    switch (place.node->type()) {
        case Json::value_t::object:
            return SerializedType::Object;
        case Json::value_t::array:
            return SerializedType::List;
        case Json::value_t::number_float:
            return SerializedType::Float;
        case Json::value_t::number_integer:
        case Json::value_t::number_unsigned:
            return SerializedType::Int;
        case Json::value_t::boolean:
            return SerializedType::Bool;
        case Json::value_t::string:
            return SerializedType::String;
        default:
            return SerializedType::Null;
    }
}

void expect(const Place& place, SerializedType type, const char* what) {
    if (typeOf(place) != type) {
        refuse(place, std::string("must be ") + what);
    }
}

int64_t readInteger(const Place& place) {
    expect(place, SerializedType::Int, "an integer");
    if (place.node->is_number_unsigned() && place.node->get<uint64_t>() > static_cast<uint64_t>(INT64_MAX)) {
        refuse(place, "the integer is too large");
    }
    return place.node->get<int64_t>();
}

BasePtr makeValue(const Place& place);

class SerializedListImpl final : public ObjectImpl<ISerializedList> {
public:
    explicit SerializedListImpl(Place place) : place_(std::move(place)) {}

    ErrCode getCount(size_t* count) override { return handOut(place_.node->size(), count); }
    ErrCode getType(size_t index, SerializedType* type) override {
        if (type == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] { *type = typeOf(item(index)); });
    }
    ErrCode readObject(size_t index, ISerializedObject** value) override;
    ErrCode readList(size_t index, ISerializedList** value) override {
        if (value == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] {
            const Place place = item(index);
            expect(place, SerializedType::List, "a list");
            *value = new SerializedListImpl(place);
        });
    }
    ErrCode readValue(size_t index, IBaseObject** value) override {
        if (value == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] { *value = makeValue(item(index)).detach(); });
    }

private:
    Place item(size_t index) const {
        if (index >= place_.node->size()) {
            throw OutOfRangeException("%s has no item %zu", place_.name(), index);
        }
        return place_.at((*place_.node)[index], std::to_string(index));
    }

    Place place_;
};

class SerializedObjectImpl final : public ObjectImpl<ISerializedObject> {
public:
    explicit SerializedObjectImpl(Place place) : place_(std::move(place)) {}

    ErrCode hasKey(const char* key, unsigned char* found) override {
        if (key == nullptr || found == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] { *found = place_.node->contains(key) ? 1 : 0; });
    }
    ErrCode getType(const char* key, SerializedType* type) override {
        return readTo(key, type, [](const Place& place) { return typeOf(place); });
    }
    ErrCode readInt(const char* key, int64_t* value) override { return readTo(key, value, &readInteger); }
    ErrCode readFloat(const char* key, double* value) override {
        return readTo(key, value, [](const Place& place) {
            if (!place.node->is_number()) {
                refuse(place, "must be a number");
            }
            return place.node->get<double>();
        });
    }
    ErrCode readBool(const char* key, unsigned char* value) override {
        return readTo(key, value, [](const Place& place) -> unsigned char {
            expect(place, SerializedType::Bool, "true or false");
            return place.node->get<bool>() ? 1 : 0;
        });
    }
    ErrCode readString(const char* key, IString** value) override {
        return readTo(key, value, [](const Place& place) {
            expect(place, SerializedType::String, "a string");
            return StringPtr(place.node->get_ref<const std::string&>()).detach();
        });
    }
    ErrCode readObject(const char* key, ISerializedObject** value) override {
        return readTo(key, value, [](const Place& place) -> ISerializedObject* {
            expect(place, SerializedType::Object, "an object");
            return new SerializedObjectImpl(place);
        });
    }
    ErrCode readList(const char* key, ISerializedList** value) override {
        return readTo(key, value, [](const Place& place) -> ISerializedList* {
            expect(place, SerializedType::List, "a list");
            return new SerializedListImpl(place);
        });
    }
    ErrCode readValue(const char* key, IBaseObject** value) override {
        return readTo(key, value, [](const Place& place) { return makeValue(place).detach(); });
    }
    ErrCode getKeys(IList** keys) override {
        if (keys == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] {
            ListPtr list = ListPtr::create();
            for (const auto& entry : place_.node->items()) {
                list.pushBack(toValue(entry.key()));
            }
            *keys = list.detach();
        });
    }

private:
    template <class T, class Read>
    ErrCode readTo(const char* key, T* value, Read&& read) {
        if (key == nullptr || value == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] {
            const auto found = place_.node->find(key);
            if (found == place_.node->end()) {
                refuse(place_, std::string("the key \"") + key + "\" is missing");
            }
            *value = read(place_.at(*found, key));
        });
    }

    Place place_;
};

ErrCode SerializedListImpl::readObject(size_t index, ISerializedObject** value) {
    if (value == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    return wrapHandler([&] {
        const Place place = item(index);
        expect(place, SerializedType::Object, "an object");
        *value = new SerializedObjectImpl(place);
    });
}

BasePtr makeObject(const Place& place) {
    std::string id = "PropertyObject";
    if (const auto type = place.node->find("__type"); type != place.node->end()) {
        expect(place.at(*type, "__type"), SerializedType::String, "a string");
        id = type->get<std::string>();
    }
    const SerializerFactory factory = findSerializerFactory(id);
    if (factory == nullptr) {
        refuse(place, "unknown type \"" + id + "\"");
    }
    const auto serialized = ObjectPtr<ISerializedObject>::take(new SerializedObjectImpl(place));
    IBaseObject* object = nullptr;
    const ErrCode code = factory(serialized.get(), &object);
    if (succeeded(code)) {
        return BasePtr::take(object);
    }
    std::string reason = takeErrorMessage();
    if (code == Errors::NoMemory) {
        throw NoMemoryException();
    }
    // A reason with a place comes from further inside.
    if (reason.starts_with("/")) {
        throw DeserializeException("%s", reason.c_str());
    }
    if (reason.empty()) {
        reason = "can't be read as \"" + id + "\"";
    }
    refuse(place, reason);
}

BasePtr makeValue(const Place& place) {
    switch (typeOf(place)) {
        case SerializedType::Object:
            return makeObject(place);
        case SerializedType::List: {
            ListPtr list = ListPtr::create();
            for (size_t i = 0; i < place.node->size(); ++i) {
                list.pushBack(makeValue(place.at((*place.node)[i], std::to_string(i))));
            }
            return asBase(list);
        }
        case SerializedType::Float:
            return toValue(place.node->get<double>());
        case SerializedType::Int:
            return toValue(readInteger(place));
        case SerializedType::Bool:
            return toValue(place.node->get<bool>());
        case SerializedType::String:
            return toValue(place.node->get_ref<const std::string&>());
        default:
            refuse(place, "null is no value");
    }
}

// Watches the text while it is read: bounds the depth and refuses a key that an object has twice.
class Watch {
public:
    bool operator()(int depth, Json::parse_event_t event, const Json& parsed) {
        switch (event) {
            case Json::parse_event_t::object_start:
            case Json::parse_event_t::array_start:
                if (depth >= maxDepth) {
                    throw DeserializeException("The text is nested more than %d deep", maxDepth);
                }
                keys_.resize(static_cast<size_t>(depth) + 1);
                keys_.back().clear();
                break;
            case Json::parse_event_t::key: {
                const auto& key = parsed.get_ref<const std::string&>();
                if (!keys_.at(static_cast<size_t>(depth) - 1).insert(key).second) {
                    throw DeserializeException("The key \"%s\" stands twice in one object", key.c_str());
                }
                break;
            }
            default:
                break;
        }
        return true;
    }

private:
    std::vector<std::set<std::string>> keys_;  // of the open objects
};

Place parseText(IString* text) {
    const char* characters = nullptr;
    size_t length = 0;
    checkErrorInfo(text->getCharPtr(&characters));
    checkErrorInfo(text->getLength(&length));
    try {
        auto root = std::make_shared<const Json>(
            Json::parse(characters, characters + length,
                        [watch = Watch()](int depth, Json::parse_event_t event, Json& parsed) mutable {
                            return watch(depth, event, parsed);
                        }));
        const Json* node = root.get();
        return {std::move(root), node, {}};
    } catch (const Json::exception& exception) {
        // "[json.exception.parse_error.101] parse error at line 1, column 2: ..." Only the place and the reason count.
        std::string reason = exception.what();
        if (const size_t place = reason.find("] "); place != std::string::npos) {
            reason.erase(0, place + 2);
        }
        throw DeserializeException("Bad JSON: %s", reason.c_str());
    }
}

class JsonDeserializer final : public ObjectImpl<IDeserializer> {
public:
    ErrCode deserialize(IString* text, IBaseObject** object) override {
        if (text == nullptr || object == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *object = nullptr;
        return wrapHandler([&] { *object = makeValue(parseText(text)).detach(); });
    }
    ErrCode parse(IString* text, ISerializedObject** object) override {
        if (text == nullptr || object == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *object = nullptr;
        return wrapHandler([&] {
            const Place place = parseText(text);
            expect(place, SerializedType::Object, "an object");
            *object = new SerializedObjectImpl(place);
        });
    }
};

// ---- Writing ------------------------------------------------------------------------------------

class JsonSerializer final : public ObjectImpl<ISerializer> {
public:
    ErrCode startObject() override {
        return wrapHandler([&] { open(Json::object()); });
    }
    ErrCode startList() override {
        return wrapHandler([&] { open(Json::array()); });
    }
    ErrCode endObject() override {
        return wrapHandler([&] { close(Json::value_t::object); });
    }
    ErrCode endList() override {
        return wrapHandler([&] { close(Json::value_t::array); });
    }
    ErrCode key(const char* name) override {
        if (name == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] {
            if (open_.empty() || !open_.back().value.is_object() || open_.back().hasKey) {
                throw InvalidOperationException("The key \"%s\" is not expected here", name);
            }
            if (open_.back().value.contains(name)) {
                throw InvalidOperationException("The key \"%s\" is written twice", name);
            }
            open_.back().key = name;
            open_.back().hasKey = true;
        });
    }
    ErrCode writeInt(int64_t value) override {
        return wrapHandler([&] { put(value); });
    }
    ErrCode writeFloat(double value) override {
        return wrapHandler([&] {
            if (!std::isfinite(value)) {
                throw NotSerializableException("%g can't be written as a number", value);
            }
            put(value);
        });
    }
    ErrCode writeBool(unsigned char value) override {
        return wrapHandler([&] { put(value != 0); });
    }
    ErrCode writeString(const char* text) override {
        if (text == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] { put(std::string(text)); });
    }
    ErrCode getOutput(IString** text) override {
        if (text == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *text = nullptr;
        return wrapHandler([&] {
            if (!open_.empty() || !complete_) {
                throw InvalidOperationException("The output is not complete");
            }
            try {
                *text = StringPtr(output_.dump(2)).detach();
            } catch (const Json::exception&) {
                throw NotSerializableException("A text is no valid UTF-8");
            }
        });
    }

private:
    struct Open {
        Json value;
        std::string key;
        bool hasKey = false;
    };

    void open(Json value) {
        expectValue();
        if (open_.size() >= static_cast<size_t>(maxDepth)) {
            throw NotSerializableException("Nested more than %d deep", maxDepth);
        }
        open_.push_back({std::move(value), {}, false});
    }
    void close(Json::value_t type) {
        if (open_.empty() || open_.back().value.type() != type || open_.back().hasKey) {
            throw InvalidOperationException("There is nothing to end here");
        }
        Json value = std::move(open_.back().value);
        open_.pop_back();
        put(std::move(value));
    }
    void expectValue() const {
        if (open_.empty() ? complete_ : open_.back().value.is_object() && !open_.back().hasKey) {
            throw InvalidOperationException("A value is not expected here");
        }
    }
    void put(Json value) {
        expectValue();
        if (open_.empty()) {
            output_ = std::move(value);
            complete_ = true;
        } else if (open_.back().value.is_object()) {
            open_.back().value[open_.back().key] = std::move(value);
            open_.back().hasKey = false;
        } else {
            open_.back().value.push_back(std::move(value));
        }
    }

    std::vector<Open> open_;
    Json output_;
    bool complete_ = false;
};

}  // namespace

ErrCode createJsonDeserializer(IDeserializer** deserializer) {
    return createObject<JsonDeserializer>(deserializer);
}
ErrCode createJsonSerializer(ISerializer** serializer) {
    return createObject<JsonSerializer>(serializer);
}

}  // namespace Harvane::RT::Core
