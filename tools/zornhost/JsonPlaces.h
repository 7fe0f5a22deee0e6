#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

// Where the parts of a JSON text stand, by their path ("/properties/3/values"). For messages only: the text has been
// read by a real parser, and what that refuses is mapped as far as it goes.
namespace zornhost {

class JsonPlaces {
public:
    struct Place {
        size_t line = 0;    // from 1
        size_t column = 0;  // from 1, in bytes
    };

    explicit JsonPlaces(std::string_view text);

    // A member stands where its key begins, an item where its value begins. A path that is not there: the nearest part
    // around it.
    Place find(std::string path) const;
    // The second of two equal keys of one object.
    std::optional<Place> repeatedKey() const;

private:
    void value(const std::string& path, int depth);
    void object(const std::string& path, int depth);
    void list(const std::string& path, int depth);
    std::string string();
    void space();
    bool take(char character);
    Place placeOf(size_t offset) const;

    std::string_view text_;
    size_t at_ = 0;
    bool failed_ = false;
    std::map<std::string, size_t> offsets_;
    std::optional<size_t> repeated_;
};

}  // namespace zornhost
