#include "tools/zornhost/NamedValues.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

using namespace Harvane::RT::Core;

namespace zornhost {

NamedValues::NamedValues(const BasePtr& answer, std::string subject) : subject_(std::move(subject)) {
    const ListPtr list(answer.asPtr<IList>());
    for (size_t i = 0, n = list.getCount(); i < n; ++i) {
        const ListPtr pair(list.getItemAt(i).asPtr<IList>());
        values_.emplace(fromValue<std::string>(pair.getItemAt(0)), pair.getItemAt(1));
    }
}

const BasePtr& NamedValues::at(const std::string& name) const {
    const auto found = values_.find(name);
    if (found == values_.end()) {
        throw std::runtime_error(fmt::format("{} says nothing of \"{}\"", subject_, name));
    }
    return found->second;
}

}  // namespace zornhost
