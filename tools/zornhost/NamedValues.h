#pragma once

#include <map>
#include <string>

#include <zorn/types/values.h>

namespace zornhost {

// What a function of the module answers as a list of [name, value].
class NamedValues {
public:
    // `subject` stands in messages: "the module's clock". Raises std::runtime_error for what is no such list.
    NamedValues(const Harvane::RT::Core::BasePtr& answer, std::string subject);

    bool empty() const { return values_.empty(); }
    // Raises std::runtime_error with subject and name for what isn't there.
    const Harvane::RT::Core::BasePtr& at(const std::string& name) const;
    template <class T>
    T get(const std::string& name) const {
        return Harvane::RT::Core::fromValue<T>(at(name));
    }

private:
    const std::string subject_;
    std::map<std::string, Harvane::RT::Core::BasePtr> values_;
};

}  // namespace zornhost
