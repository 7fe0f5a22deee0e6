#pragma once

#include <memory>
#include <string>

namespace Harvane::RT::Modules::Daq {

// Root class of the device and interface trees. Every object lives in a shared_ptr; parents are weak.
class DaqObject : public std::enable_shared_from_this<DaqObject> {
public:
    DaqObject() = default;
    DaqObject(const DaqObject&) = delete;
    DaqObject& operator=(const DaqObject&) = delete;
    virtual ~DaqObject() = default;

    virtual std::string toString() const;

    void setParent(const std::shared_ptr<DaqObject>& newParent);

    // The parent as a T; null without a parent, with one that is gone, or with one of another class.
    template <class T>
    std::shared_ptr<T> getParent() const {
        return std::dynamic_pointer_cast<T>(parent.lock());
    }

    // Name of the run-time class without its namespace.
    std::string getClassName() const;

    // hash_code() of the run-time class: equal for all objects of one class, what factories are compared by.
    unsigned long getClassId() const;

    std::weak_ptr<DaqObject> parent;
};

}  // namespace Harvane::RT::Modules::Daq
