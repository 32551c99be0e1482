// gatt::characteristic: one characteristic of a service in the attribute
// tree, with its properties, permissions and descriptors.
//
// A characteristic is owned by its service alone and made only by
// service::add_characteristic; it keeps a reference to that service, which
// outlives it. It owns its descriptors. It is registered in the profile's
// attribute map under its handle for exactly as long as it lives. Copying is
// refused: a node is its handle.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "tavrin/export.hpp"
#include "tavrin/gatt/attribute_map.hpp"
#include "tavrin/gatt/attribute_permission.hpp"
#include "tavrin/gatt/descriptor.hpp"
#include "tavrin/gatt/uuid.hpp"

namespace zelvo::tavrin::gatt {

class TAVRIN_API characteristic {
public:
    enum class property {
        broadcast = 0,
        read = 1,
        write_no_response = 2,
        write = 3,
        notify = 4,
        indicate = 5,
        signed_write = 6,
        extended_props = 7,
    };

    // The controller's word: "broadcast", "read", "writeNoResponse", "write",
    // "notify", "indicate", "signedWrite", "extendedProps". Any other value
    // throws logic_error "unknown characteristic".
    static std::string to_string(property value);
    // The text is lowered before it is looked up among the words above, so
    // the five all-lower-case words are accepted in any case, while
    // "writeNoResponse", "signedWrite" and "extendedProps" never match. Every
    // miss throws logic_error "unknown characteristic str". Not the inverse
    // of to_string for those three properties.
    static property to_property(std::string const& text);

    characteristic(characteristic const&) = delete;
    characteristic& operator=(characteristic const&) = delete;
    virtual ~characteristic();

    unsigned int get_handle() const { return handle; }
    gatt::uuid const& get_uuid() const { return uuid; }
    std::set<property> const& get_properties() const { return properties; }
    std::set<attribute_permission> const& get_permissions() const { return permissions; }
    gatt::service& get_service() { return service; }
    gatt::service const& get_service() const { return service; }

    void add_property(property value);
    void add_properties(std::set<property> const& added);
    void del_property(property value);
    void del_properties(std::set<property> const& deleted);
    void del_properties();

    void add_permission(attribute_permission permission);
    void add_permissions(std::set<attribute_permission> const& added);
    void del_permission(attribute_permission permission);
    void del_permissions(std::set<attribute_permission> const& deleted);
    void del_permissions();

    // Throws runtime_error "can't assigne handle [H] to gatt descriptor" if
    // the handle is taken anywhere in the profile; the tree is then unchanged.
    // The result belongs to this characteristic.
    descriptor* add_descriptor(unsigned int descriptor_handle, gatt::uuid const& descriptor_uuid);
    // Destroys that descriptor if it is here; an absent handle is no failure.
    void del_descriptor(unsigned int descriptor_handle);
    void del_descriptors();
    // Ordered by pointer, not by handle.
    std::set<descriptor*> get_descriptors();
    std::set<descriptor const*> get_descriptors() const;

protected:
    // Reached only through misc::aggregate_adapter, from add_characteristic.
    // Throws runtime_error "can't assigne handle [H] to gatt characteristic"
    // if the handle is taken anywhere in the profile.
    characteristic(std::shared_ptr<attribute_map> const& attributes, gatt::service& owner,
                   unsigned int handle, gatt::uuid const& uuid);

private:
    std::shared_ptr<attribute_map> attributes;
    gatt::service& service;
    unsigned int handle;
    gatt::uuid uuid;
    std::set<property> properties;
    std::set<attribute_permission> permissions;
    std::map<unsigned int, std::shared_ptr<descriptor>> descriptors;
    attribute_map::iterator entry;
};

}  // namespace zelvo::tavrin::gatt
