#include "tavrin/gatt/profile.hpp"

#include <utility>

#include "tavrin/misc/aggregate_adapter.hpp"

namespace zelvo::tavrin::gatt {

template <typename T>
T* profile::find_attribute_impl(unsigned int handle) const {
    auto const found = attributes->find(handle);
    if (found == attributes->end()) {
        return nullptr;
    }
    // Null when the entry is empty or holds another kind of node.
    auto* const held = std::any_cast<T*>(&found->second);
    return held != nullptr ? *held : nullptr;
}

profile::profile()
    : attributes(std::make_shared<attribute_map>()),
      root(std::make_shared<misc::aggregate_adapter<service>>(attributes)) {}

profile::profile(profile&& other) : profile() {
    attributes.swap(other.attributes);
    root.swap(other.root);
}

profile& profile::operator=(profile&& other) {
    // The temporary takes the source's tree, then leaves with this one's old
    // tree, which dies with it here rather than at some later point.
    profile replaced(std::move(other));
    attributes.swap(replaced.attributes);
    root.swap(replaced.root);
    return *this;
}

profile::~profile() = default;

std::any profile::find_attribute(unsigned int handle) {
    auto const found = attributes->find(handle);
    return found != attributes->end() ? found->second : std::any();
}

std::any profile::find_attribute(unsigned int handle) const {
    if (auto* node = find_attribute_impl<service>(handle)) {
        return static_cast<service const*>(node);
    }
    if (auto* node = find_attribute_impl<characteristic>(handle)) {
        return static_cast<characteristic const*>(node);
    }
    if (auto* node = find_attribute_impl<descriptor>(handle)) {
        return static_cast<descriptor const*>(node);
    }
    return {};
}

service* profile::find_service(unsigned int handle) {
    return find_attribute_impl<service>(handle);
}

service const* profile::find_service(unsigned int handle) const {
    return find_attribute_impl<service>(handle);
}

characteristic* profile::find_characteristic(unsigned int handle) {
    return find_attribute_impl<characteristic>(handle);
}

characteristic const* profile::find_characteristic(unsigned int handle) const {
    return find_attribute_impl<characteristic>(handle);
}

descriptor* profile::find_descriptor(unsigned int handle) {
    return find_attribute_impl<descriptor>(handle);
}

descriptor const* profile::find_descriptor(unsigned int handle) const {
    return find_attribute_impl<descriptor>(handle);
}

}  // namespace zelvo::tavrin::gatt
