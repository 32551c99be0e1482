// gatt::attribute_permission: what a peer may do with the value of a
// characteristic or descriptor. The texts are the controller's words.
#pragma once

#include <string>

#include "tavrin/export.hpp"

namespace zelvo::tavrin::gatt {

enum class attribute_permission {
    read = 0,
    write = 1,
};

// "read" or "write"; any other value throws logic_error
// "Unknown attribute permission".
TAVRIN_API std::string to_string(attribute_permission permission);

// Accepts "read" and "write" in any case; anything else throws logic_error
// "Unknown attribute permission str".
TAVRIN_API attribute_permission to_attribute_permission(std::string const& text);

}  // namespace zelvo::tavrin::gatt
