// Small set operations shared by the nodes of the attribute tree.
#pragma once

#include <set>

namespace zelvo::tavrin::gatt::detail {

// The nodes of a handle-keyed map of shared_ptrs, as plain pointers ordered by
// address. `Node` may add const to the map's node type.
template <typename Node, typename Map>
std::set<Node*> node_pointers(Map const& nodes) {
    std::set<Node*> result;
    for (auto const& entry : nodes) {
        result.insert(entry.second.get());
    }
    return result;
}

template <typename Value>
void erase_each(std::set<Value>& from, std::set<Value> const& values) {
    for (auto const& value : values) {
        from.erase(value);
    }
}

}  // namespace zelvo::tavrin::gatt::detail
