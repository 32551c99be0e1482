#include "tavrin/gatt/service.hpp"

#include <any>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>

#include "gatt/attribute_registration.hpp"
#include "gatt/node_sets.hpp"
#include "tavrin/misc/aggregate_adapter.hpp"

namespace zelvo::tavrin::gatt {

service::service(std::shared_ptr<attribute_map> const& attributes)
    : handle(0),
      attributes(attributes),
      entry(detail::register_attribute(*attributes, handle, this, "service")) {}

service::service(std::shared_ptr<attribute_map> const& attributes, service& parent,
                 unsigned int handle, gatt::uuid const& uuid)
    : uuid(uuid),
      handle(handle),
      attributes(attributes),
      parents{&parent},
      entry(detail::register_attribute(*attributes, handle, this, "service")) {}

service::~service() {
    // A child that another parent still holds must not keep a pointer to this
    // one; del_childs unlinks before it drops the shares.
    del_childs();
    attributes->erase(entry);
}

characteristic* service::add_characteristic(unsigned int characteristic_handle,
                                            gatt::uuid const& characteristic_uuid) {
    auto const made = std::make_shared<misc::aggregate_adapter<characteristic>>(
        attributes, *this, characteristic_handle, characteristic_uuid);
    if (!characteristics.emplace(characteristic_handle, made).second) {
        throw std::runtime_error("gatt service [" + std::to_string(handle) +
                                 "] can't reuse handle [" + std::to_string(characteristic_handle) +
                                 "] for characteristics");
    }
    return made.get();
}

void service::del_characteristic(unsigned int characteristic_handle) {
    characteristics.erase(characteristic_handle);
}

void service::del_characteristics() {
    characteristics.clear();
}

std::set<characteristic*> service::get_characteristics() {
    return detail::node_pointers<characteristic>(characteristics);
}

std::set<characteristic const*> service::get_characteristics() const {
    return detail::node_pointers<characteristic const>(characteristics);
}

service* service::add_child(unsigned int child_handle, gatt::uuid const& child_uuid) {
    std::shared_ptr<service> child;
    auto const found = attributes->find(child_handle);
    if (found == attributes->end()) {
        child = std::make_shared<misc::aggregate_adapter<service>>(attributes, *this, child_handle,
                                                                   child_uuid);
    } else {
        auto* const held = std::any_cast<service*>(&found->second);
        auto* const existing = held != nullptr ? *held : nullptr;
        if (existing == nullptr) {
            throw std::runtime_error("can't reuse handle [" + std::to_string(child_handle) +
                                     "] for new gatt service");
        }
        if (!existing->uuid.is_equal(child_uuid)) {
            throw std::runtime_error("can't reuse handle [" + std::to_string(child_handle) +
                                     "] for other gatt service");
        }
        if (existing == this || existing->get_successors().count(this) != 0) {
            throw std::runtime_error("gatt service [" + std::to_string(handle) +
                                     "] can't include service [" + std::to_string(child_handle) +
                                     "] because of circular reference");
        }
        child = existing->shared_from_this();
        // If it is a child here already, this insert changes nothing and the
        // emplace below refuses.
        existing->parents.insert(this);
    }
    if (!childs.emplace(child_handle, child).second) {
        throw std::runtime_error("gatt service [" + std::to_string(handle) +
                                 "] can't reuse handle [" + std::to_string(child_handle) +
                                 "] for childe");
    }
    return child.get();
}

void service::del_child(unsigned int child_handle) {
    auto const found = childs.find(child_handle);
    if (found == childs.end()) {
        return;
    }
    found->second->parents.erase(this);
    childs.erase(found);
}

void service::del_childs() {
    for (auto const& [key, child] : childs) {
        child->parents.erase(this);
    }
    childs.clear();
}

std::set<service*> service::get_parents() {
    return parent_nodes();
}

std::set<service const*> service::get_parents() const {
    return {parents.begin(), parents.end()};
}

std::set<service*> service::get_childs() {
    return child_nodes();
}

std::set<service const*> service::get_childs() const {
    auto const nodes = child_nodes();
    return {nodes.begin(), nodes.end()};
}

std::set<service*> service::get_ancestors() {
    return closure(&service::parent_nodes);
}

std::set<service const*> service::get_ancestors() const {
    auto const nodes = closure(&service::parent_nodes);
    return {nodes.begin(), nodes.end()};
}

std::set<service*> service::get_successors() {
    return closure(&service::child_nodes);
}

std::set<service const*> service::get_successors() const {
    auto const nodes = closure(&service::child_nodes);
    return {nodes.begin(), nodes.end()};
}

std::set<service*> service::parent_nodes() const {
    return parents;
}

std::set<service*> service::child_nodes() const {
    return detail::node_pointers<service>(childs);
}

std::set<service*> service::closure(neighbours step) const {
    // Each node is expanded once, when it is first met unmarked; the marks
    // make this end on any graph, so add_child can use it for its cycle test
    // whatever state the graph is in.
    std::map<service*, bool> visited;
    for (auto* node : (this->*step)()) {
        visited.emplace(node, false);
    }
    std::size_t size_before = 0;
    while (visited.size() != size_before) {
        size_before = visited.size();
        for (auto& [node, done] : visited) {
            if (done) {
                continue;
            }
            done = true;
            for (auto* next : (node->*step)()) {
                visited.emplace(next, false);
            }
        }
    }
    std::set<service*> result;
    for (auto const& [node, done] : visited) {
        result.insert(node);
    }
    return result;
}

}  // namespace zelvo::tavrin::gatt
