#include "tavrin/gatt/descriptor.hpp"

#include "gatt/attribute_registration.hpp"
#include "gatt/node_sets.hpp"

namespace zelvo::tavrin::gatt {

descriptor::descriptor(std::shared_ptr<attribute_map> const& attributes,
                       gatt::characteristic& owner, unsigned int handle, gatt::uuid const& uuid)
    : attributes(attributes),
      characteristic(owner),
      handle(handle),
      uuid(uuid),
      entry(detail::register_attribute(*attributes, handle, this, "descriptor")) {}

descriptor::~descriptor() {
    attributes->erase(entry);
}

void descriptor::add_permission(attribute_permission permission) {
    permissions.insert(permission);
}

void descriptor::add_permissions(std::set<attribute_permission> const& added) {
    permissions.insert(added.begin(), added.end());
}

void descriptor::del_permission(attribute_permission permission) {
    permissions.erase(permission);
}

void descriptor::del_permissions(std::set<attribute_permission> const& deleted) {
    detail::erase_each(permissions, deleted);
}

void descriptor::del_permissions() {
    permissions.clear();
}

}  // namespace zelvo::tavrin::gatt
