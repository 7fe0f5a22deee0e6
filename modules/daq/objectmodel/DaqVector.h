#pragma once

#include <algorithm>
#include <vector>

namespace Harvane::RT::Modules::Daq {

// The list type of the trees: a vector that can delete by value.
template <class T>
class DaqVector : public std::vector<T> {
public:
    using std::vector<T>::vector;

    // Removes the first element equal to the argument; without one nothing happens.
    void deleteElement(T element) {
        auto it = std::find(this->begin(), this->end(), element);
        if (it != this->end()) {
            this->erase(it);
        }
    }
};

}  // namespace Harvane::RT::Modules::Daq
