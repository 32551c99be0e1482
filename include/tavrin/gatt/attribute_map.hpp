// gatt::attribute_map: the one flat index of a profile's attribute tree, from
// controller handle to node.
//
// Each entry's std::any holds exactly one of gatt::service*,
// gatt::characteristic* or gatt::descriptor*, and the type in the any is the
// kind of the attribute; so a handle is unique across all three kinds. The
// pointers do not own: a node enters the map when it is constructed and
// leaves it in its destructor. The map itself is held by shared_ptr by the
// profile and by every node, so it outlives each of them whatever order they
// die in.
#pragma once

#include <any>
#include <map>

namespace zelvo::tavrin::gatt {

class service;
class characteristic;
class descriptor;

using attribute_map = std::map<unsigned int, std::any>;

}  // namespace zelvo::tavrin::gatt
