// gatt::descriptor: one descriptor of a characteristic in the attribute tree.
//
// A descriptor is owned by its characteristic alone and made only by
// characteristic::add_descriptor. It keeps a reference to that characteristic,
// which outlives it, and is registered in the profile's attribute map under
// its handle for exactly as long as it lives. Copying is refused: a node is
// its handle.
#pragma once

#include <memory>
#include <set>

#include "tavrin/export.hpp"
#include "tavrin/gatt/attribute_map.hpp"
#include "tavrin/gatt/attribute_permission.hpp"
#include "tavrin/gatt/uuid.hpp"

namespace zelvo::tavrin::gatt {

class TAVRIN_API descriptor {
public:
    descriptor(descriptor const&) = delete;
    descriptor& operator=(descriptor const&) = delete;
    virtual ~descriptor();

    unsigned int get_handle() const { return handle; }
    gatt::uuid const& get_uuid() const { return uuid; }
    std::set<attribute_permission> const& get_permissions() const { return permissions; }
    gatt::characteristic& get_characteristic() { return characteristic; }
    gatt::characteristic const& get_characteristic() const { return characteristic; }

    void add_permission(attribute_permission permission);
    void add_permissions(std::set<attribute_permission> const& added);
    void del_permission(attribute_permission permission);
    void del_permissions(std::set<attribute_permission> const& deleted);
    void del_permissions();

protected:
    // Reached only through misc::aggregate_adapter, from add_descriptor.
    // Throws runtime_error "can't assigne handle [H] to gatt descriptor" if
    // the handle is taken anywhere in the profile.
    descriptor(std::shared_ptr<attribute_map> const& attributes, gatt::characteristic& owner,
               unsigned int handle, gatt::uuid const& uuid);

private:
    std::shared_ptr<attribute_map> attributes;
    gatt::characteristic& characteristic;
    unsigned int handle;
    gatt::uuid uuid;
    std::set<attribute_permission> permissions;
    attribute_map::iterator entry;
};

}  // namespace zelvo::tavrin::gatt
