#include "host/corestructure/NodeImpl.h"

namespace Harvane::RT::Core {

namespace {

std::string localIdOf(INode* node) {
    IString* id = nullptr;
    checkErrorInfo(node->getLocalId(&id));
    return StringPtr(ObjectPtr<IString>::take(id)).toStdString();
}

}  // namespace

void adoptChild(INode* parent, const std::vector<ObjectPtr<INode>>& brothers, INode* child,
                const std::string& fallback) {
    if (child == nullptr) {
        throw ArgumentNullException();
    }
    INode* formerParent = nullptr;
    checkErrorInfo(child->getParent(&formerParent));
    if (ObjectPtr<INode>::take(formerParent)) {
        throw InvalidOperationException("Node %s has a parent already", localIdOf(child).c_str());
    }
    for (ObjectPtr<INode> level(parent); level;) {
        if (level.get() == child) {
            throw InvalidOperationException("Node %s can't stand below itself", localIdOf(child).c_str());
        }
        INode* next = nullptr;
        checkErrorInfo(level->getParent(&next));
        level = ObjectPtr<INode>::take(next);
    }

    std::string base = localIdOf(child);
    if (base.empty()) {
        base = fallback;
    }
    std::replace(base.begin(), base.end(), '/', '_');
    auto taken = [&](const std::string& id) {
        return std::any_of(brothers.begin(), brothers.end(),
                           [&](const auto& brother) { return localIdOf(brother.get()) == id; });
    };
    std::string id = base;
    for (int number = 2; taken(id); ++number) {
        id = base + "~" + std::to_string(number);
    }
    checkErrorInfo(child->setParent(parent, StringPtr(id).get()));
}

}  // namespace Harvane::RT::Core
