#pragma once

#include <zorn/objects/property_object_impl.h>
#include <zorn/structure/node.h>
#include <zorn/structure/property_classes.h>

namespace Harvane::RT::Core {

// What all nodes of the tree share: identity, the weak link to the parent, what a setup leaves out.
template <class... Interfaces>
class NodeImpl : public GenericPropertyObjectImpl<Interfaces...> {
    using Object = GenericPropertyObjectImpl<Interfaces...>;

public:
    NodeImpl(const StringPtr& className, NodeType type, IString* id)
        : Object(className), type_(type), localId_(id != nullptr ? StringPtr(id) : StringPtr("")) {}

    ErrCode getNodeId(IString** id) override {
        if (id == nullptr) {
            return this->argumentNull();
        }
        *id = nullptr;
        return this->guarded([&] { *id = nodeId().detach(); });
    }
    ErrCode getUniqueId(IString** id) override { return getNodeId(id); }
    ErrCode getParent(INode** parent) override { return handOut(parentNode(), parent); }
    ErrCode getNodeType(NodeType* type) override { return handOut(type_, type); }
    ErrCode setParent(INode* parent, IString* localId) override {
        return this->guarded([&] {
            parent_ = this->weakRefTo(parent);
            if (localId != nullptr) {
                localId_ = StringPtr(localId);
            }
        });
    }
    ErrCode getLocalId(IString** id) override { return handOut(localId_, id); }

    // "NodeId" and "Parent" come from the tree and are never held as values: the one changes when a parent finds its
    // place, the other would be a circle of references.
    ErrCode getProperty(IString* name, IBaseObject** value) override {
        if (name != nullptr && value != nullptr) {
            const std::string_view text = viewOf(name);
            if (text == NodePropertyClass::NodeIdProp || text == NodePropertyClass::ParentProp) {
                *value = nullptr;
                return this->guarded([&] {
                    *value = text == NodePropertyClass::NodeIdProp ? asBase(nodeId()).detach()
                                                                   : asBase(parentNode()).detach();
                });
            }
        }
        return Object::getProperty(name, value);
    }

    ErrCode toString(char** text) override {
        if (text == nullptr) {
            return this->argumentNull();
        }
        return this->guarded([&] { checkErrorInfo(zornDuplicateCharPtr(text, nodeId().toStdString().c_str())); });
    }

protected:
    StringPtr nodeId() const {
        const auto parent = parentNode();
        if (!parent) {
            return localId_;
        }
        IString* id = nullptr;
        checkErrorInfo(parent->getNodeId(&id));
        return StringPtr(StringPtr(ObjectPtr<IString>::take(id)).toStdString() + "/" + localId_.toStdString());
    }

    ObjectPtr<INode> parentNode() const {
        IBaseObject* object = nullptr;
        if (!parent_ || failed(parent_->getRef(&object))) {
            return {};
        }
        return BasePtr::take(object).asPtrOrNull<INode>();
    }

    // Functions and procedures have no written form, and what the tree says of a node is no setting.
    void serializeProperty(const StringPtr& name, const BasePtr& value, ISerializer* serializer) override {
        const CoreType type = value ? coreTypeOf(value) : CoreType::Undefined;
        if (type == CoreType::Proc || type == CoreType::Func || isIdentity(name.view())) {
            return;
        }
        Object::serializeProperty(name, value, serializer);
    }

    // For values that a new node starts with.
    template <class T>
    void startValue(std::string_view name, const T& value) {
        checkErrorInfo(Object::setProperty(StringPtr(name).get(), toValue(value).get()));
    }

    // Typed accessors of a property: by the engine, so that limits of its rules and its events are the same.
    template <class T>
    T valueOf(std::string_view name) {
        IBaseObject* value = nullptr;
        checkErrorInfo(this->getProperty(StringPtr(name).get(), &value));
        return fromValue<T>(BasePtr::take(value));
    }
    template <class Plain, class T = Plain>
    ErrCode getTyped(std::string_view name, Plain* result) {
        if (result == nullptr) {
            return this->argumentNull();
        }
        return this->guarded([&] { *result = static_cast<Plain>(valueOf<T>(name)); });
    }
    ErrCode getText(std::string_view name, IString** result) {
        if (result == nullptr) {
            return this->argumentNull();
        }
        *result = nullptr;
        return this->guarded([&] { *result = valueOf<StringPtr>(name).detach(); });
    }
    template <class T>
    ErrCode setTyped(std::string_view name, const T& value) {
        return this->guarded([&] { checkErrorInfo(this->setProperty(StringPtr(name).get(), toValue(value).get())); });
    }
    ErrCode setText(std::string_view name, IString* text) {
        if (text == nullptr) {
            return this->argumentNull();
        }
        return this->guarded([&] { checkErrorInfo(this->setProperty(StringPtr(name).get(), text)); });
    }

private:
    static bool isIdentity(std::string_view name) {
        return name == NodePropertyClass::NodeTypeProp || name == NodePropertyClass::NodeIdProp ||
               name == ChannelNodePropertyClass::ChannelNodeTypeProp || name == ChannelPropertyClass::ChannelIdProp ||
               name == ChannelPropertyClass::SampleDataTypeProp || name == ChannelPropertyClass::DimensionProp ||
               name == ChannelPropertyClass::TypeProp;
    }

    const NodeType type_;
    StringPtr localId_;
    ObjectPtr<IWeakRef> parent_;
};

// Takes a child into its parent's list: refuses one that has a parent, and gives it a local identifier that no brother
// has. Slashes separate the levels of a node id, so that none stands inside of one.
void adoptChild(INode* parent, const std::vector<ObjectPtr<INode>>& brothers, INode* child,
                const std::string& fallback);

}  // namespace Harvane::RT::Core
