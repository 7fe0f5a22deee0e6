#pragma once

#include <zorn/objects/property_object.h>

// The host's tree: data, data modules, channel folders, channels. All are property objects.
namespace Harvane::RT::Core {

enum class NodeType : int32_t { Unknown = 0, DataModule = 1, Folder = 2, Channel = 3, Data = 4 };
enum class ChannelNodeType : int32_t { Folder = 0, Channel = 1 };

class INode : public IPropertyObject {
    ZORN_INTERFACE(INode, IPropertyObject)

    // Unique in the whole tree and the same from run to run: parent's NodeId, "/", local identifier ("~2" for a brother
    // with the same one).
    virtual ErrCode getNodeId(IString** id) = 0;
    virtual ErrCode getParent(INode** parent) = 0;  // 0 and null at the top
    virtual ErrCode getNodeType(NodeType* type) = 0;
    virtual ErrCode getUniqueId(IString** id) = 0;  // the same as the node id
    // For the parent that takes the node in. Weak.
    virtual ErrCode setParent(INode* parent, IString* localId) = 0;
    virtual ErrCode getLocalId(IString** id) = 0;
};

class IChannelNode : public INode {
    ZORN_INTERFACE(IChannelNode, INode)

    virtual ErrCode getName(IString** name) = 0;
    virtual ErrCode setName(IString* name) = 0;
    virtual ErrCode getChannelNodeType(ChannelNodeType* type) = 0;
};

class IChannelFolder : public IChannelNode {
    ZORN_INTERFACE(IChannelFolder, IChannelNode)

    virtual ErrCode addChild(IChannelNode* child) = 0;
    virtual ErrCode getChildren(IList** children) = 0;  // in the order of adding
};

ZORN_FUNCTION ErrCode createChannelFolder(IChannelFolder** folder, IString* id);
ZORN_FUNCTION void zornCoreStructureGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch);

template <class I = INode>
class NodePtr : public PropertyObjectPtr<I> {
public:
    using PropertyObjectPtr<I>::PropertyObjectPtr;
    NodePtr(const ObjectPtr<I>& other) : PropertyObjectPtr<I>(other) {}
    NodePtr(ObjectPtr<I>&& other) : PropertyObjectPtr<I>(std::move(other)) {}
    StringPtr getNodeId() const { return this->fetch(&INode::getNodeId); }
    NodePtr<INode> getParent() const { return this->fetch(&INode::getParent); }
};

template <class I = IChannelNode>
class ChannelNodePtr : public NodePtr<I> {
public:
    using NodePtr<I>::NodePtr;
    ChannelNodePtr(const ObjectPtr<I>& other) : NodePtr<I>(other) {}
    ChannelNodePtr(ObjectPtr<I>&& other) : NodePtr<I>(std::move(other)) {}
    StringPtr getName() const { return this->fetch(&IChannelNode::getName); }
    void setName(const StringPtr& name) const { checkErrorInfo(this->checked()->setName(name.get())); }
};

class ChannelFolderPtr : public ChannelNodePtr<IChannelFolder> {
public:
    using ChannelNodePtr::ChannelNodePtr;
    ChannelFolderPtr(const ObjectPtr<IChannelFolder>& other) : ChannelNodePtr(other) {}
    ChannelFolderPtr(ObjectPtr<IChannelFolder>&& other) : ChannelNodePtr(std::move(other)) {}
    static ChannelFolderPtr create(const StringPtr& id) {
        return fetch<IChannelFolder>([&](IChannelFolder** result) { return createChannelFolder(result, id.get()); });
    }
    template <class I>
    void addChild(const ObjectPtr<I>& child) const {
        checkErrorInfo(checked()->addChild(child.get()));
    }
    std::vector<ChannelNodePtr<>> getChildren() const {
        const ListPtr list = fetch(&IChannelFolder::getChildren);
        std::vector<ChannelNodePtr<>> children;
        for (size_t i = 0, n = list.getCount(); i < n; ++i) {
            children.emplace_back(list.getItemAt(i).asPtr<IChannelNode>());
        }
        return children;
    }
};

}  // namespace Harvane::RT::Core
