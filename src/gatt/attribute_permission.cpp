#include "tavrin/gatt/attribute_permission.hpp"

#include <stdexcept>

#include "tavrin/misc/strings.hpp"

namespace zelvo::tavrin::gatt {

std::string to_string(attribute_permission permission) {
    switch (permission) {
        case attribute_permission::read:
            return "read";
        case attribute_permission::write:
            return "write";
    }
    throw std::logic_error("Unknown attribute permission");
}

attribute_permission to_attribute_permission(std::string const& text) {
    auto const lowered = misc::to_lower(text);
    if (lowered == "read") {
        return attribute_permission::read;
    }
    if (lowered == "write") {
        return attribute_permission::write;
    }
    throw std::logic_error("Unknown attribute permission str");
}

}  // namespace zelvo::tavrin::gatt
