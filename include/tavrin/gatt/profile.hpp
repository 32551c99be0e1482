// gatt::profile: the local picture of a GATT server database, a hidden root
// service whose children are the primary services, and the flat map that
// finds any node by its controller handle.
//
// The profile owns the root, and through it the whole tree; it shares the
// attribute map with every node. Pointers that it and the nodes return stay
// valid until that node is deleted, the profile is destroyed, or the profile
// is assigned to. The tree holds no attribute values, only what the
// controller's database says about each attribute.
//
// Movable, not copyable. A moved-from profile is a valid empty one.
#pragma once

#include <any>
#include <memory>
#include <set>
#include <utility>

#include "tavrin/export.hpp"
#include "tavrin/gatt/attribute_map.hpp"
#include "tavrin/gatt/characteristic.hpp"
#include "tavrin/gatt/descriptor.hpp"
#include "tavrin/gatt/service.hpp"

namespace zelvo::tavrin::gatt {

class TAVRIN_API profile {
public:
    // An empty profile: the root alone.
    profile();
    profile(profile&& other);
    profile(profile const&) = delete;
    // The old tree of this profile is destroyed before the call returns.
    profile& operator=(profile&& other);
    profile& operator=(profile const&) = delete;
    virtual ~profile();

    service& get_root() { return *root; }
    service const& get_root() const { return *root; }
    std::set<service*> get_primary_services() { return root->get_childs(); }
    std::set<service const*> get_primary_services() const {
        return std::as_const(*root).get_childs();
    }

    // The map's entry for the handle: a service*, characteristic* or
    // descriptor*, or an empty any if the handle is absent. The const form
    // holds a pointer to const.
    std::any find_attribute(unsigned int handle);
    std::any find_attribute(unsigned int handle) const;

    // Null if the handle is absent or is an attribute of another kind.
    // find_service(0) is the root.
    service* find_service(unsigned int handle);
    service const* find_service(unsigned int handle) const;
    characteristic* find_characteristic(unsigned int handle);
    characteristic const* find_characteristic(unsigned int handle) const;
    descriptor* find_descriptor(unsigned int handle);
    descriptor const* find_descriptor(unsigned int handle) const;

private:
    template <typename T>
    T* find_attribute_impl(unsigned int handle) const;

    std::shared_ptr<attribute_map> attributes;
    std::shared_ptr<service> root;
};

}  // namespace zelvo::tavrin::gatt
