// Entering a node of the attribute tree in its profile's attribute map.
#pragma once

#include <any>
#include <stdexcept>
#include <string>

#include "tavrin/gatt/attribute_map.hpp"

namespace zelvo::tavrin::gatt::detail {

// Enters `node` under `handle` and returns its entry, which the node erases in
// its destructor. A handle that is taken, by a node of any kind, throws
// runtime_error "can't assigne handle [H] to gatt <kind>"; called from a
// constructor, that means the node never exists. `Node` must be the node's
// own class, not the adapter it is made through: the type in the any is the
// kind of the attribute.
template <typename Node>
attribute_map::iterator register_attribute(attribute_map& attributes, unsigned int handle,
                                           Node* node, char const* kind) {
    auto const [entry, inserted] = attributes.emplace(handle, std::any(node));
    if (!inserted) {
        throw std::runtime_error("can't assigne handle [" + std::to_string(handle) + "] to gatt " +
                                 kind);
    }
    return entry;
}

}  // namespace zelvo::tavrin::gatt::detail
