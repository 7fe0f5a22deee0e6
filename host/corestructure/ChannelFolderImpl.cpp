#include "host/corestructure/NodeImpl.h"

namespace Harvane::RT::Core {

namespace {

class ChannelFolderImpl final : public NodeImpl<IChannelFolder> {
public:
    explicit ChannelFolderImpl(IString* id) : NodeImpl(ChannelNodePropertyClass::ClassName, NodeType::Folder, id) {
        startValue(NodePropertyClass::NodeTypeProp, NodeType::Folder);
        startValue(ChannelNodePropertyClass::ChannelNodeTypeProp, ChannelNodeType::Folder);
    }

    ErrCode getName(IString** name) override { return getText(ChannelNodePropertyClass::NameProp, name); }
    ErrCode setName(IString* name) override { return setText(ChannelNodePropertyClass::NameProp, name); }
    ErrCode getChannelNodeType(ChannelNodeType* type) override { return handOut(ChannelNodeType::Folder, type); }

    ErrCode addChild(IChannelNode* child) override {
        if (child == nullptr) {
            return argumentNull();
        }
        return guarded([&] {
            // A folder that was made without an identifier of its own goes by its name.
            IString* name = nullptr;
            checkErrorInfo(child->getName(&name));
            const std::string fallback = StringPtr(ObjectPtr<IString>::take(name)).toStdString();
            children_.reserve(children_.size() + 1);
            adoptChild(this, children_, child, fallback.empty() ? "node" : fallback);
            children_.emplace_back(static_cast<INode*>(child));
        });
    }
    ErrCode getChildren(IList** children) override {
        if (children == nullptr) {
            return argumentNull();
        }
        *children = nullptr;
        return guarded([&] {
            const ListPtr list = ListPtr::create();
            for (const auto& child : children_) {
                list.pushBack(asBase(child));
            }
            *children = ListPtr(list).detach();
        });
    }

    ErrCode dispose() override {
        std::exchange(children_, {});
        return NodeImpl::dispose();
    }

protected:
    std::string_view requiredBaseClass() const override { return ChannelNodePropertyClass::ClassName; }

private:
    std::vector<ObjectPtr<INode>> children_;
};

}  // namespace

ErrCode createChannelFolder(IChannelFolder** folder, IString* id) {
    return createObject<ChannelFolderImpl>(folder, id);
}

}  // namespace Harvane::RT::Core
