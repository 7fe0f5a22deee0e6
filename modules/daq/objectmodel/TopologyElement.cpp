#include "modules/daq/objectmodel/TopologyElement.h"

#include "libraries/utils/StringHelper.h"

namespace Harvane::RT::Modules::Daq {

std::string TopologyElement::toString() const {
    std::string text = getDisplayName();
    for (const auto& child : *this) {
        for (const auto& line : Utils::DataTypes::StringHelper::tokenize(child->toString(), '\n')) {
            text += "\n+" + line;
        }
    }
    return text;
}

std::string TopologyElement::getElementId() const {
    auto owner = getParent<TopologyElement>();
    if (!owner) {
        return getDisplayName();
    }
    int place = -1;
    for (size_t i = 0; i < owner->size(); ++i) {
        if ((*owner)[i].get() == this) {
            place = static_cast<int>(i);
            break;
        }
    }
    return getDisplayName() + " " + std::to_string(place);
}

std::string TopologyElement::getDisplayName() const {
    return getClassName();
}

}  // namespace Harvane::RT::Modules::Daq
