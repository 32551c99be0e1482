#include "gatt_database.hpp"

#include <algorithm>
#include <utility>

namespace zelvo::tavrin::sim {

namespace {

void drop(std::vector<unsigned>& handles, unsigned handle) {
    handles.erase(std::remove(handles.begin(), handles.end(), handle), handles.end());
}

bool contains(std::vector<unsigned> const& handles, unsigned handle) {
    return std::find(handles.begin(), handles.end(), handle) != handles.end();
}

}  // namespace

std::vector<unsigned> gatt_database::primary_services() const {
    std::vector<unsigned> primary;
    for (auto const& [handle, entry] : attributes) {
        if (entry.what == kind::service && entry.parents.empty()) {
            primary.push_back(handle);
        }
    }
    return primary;
}

std::variant<gatt_database::attribute const*, ctrl_error> gatt_database::get(unsigned handle,
                                                                             kind what) const {
    auto const found = attributes.find(handle);
    if (found == attributes.end()) {
        return ctrl_error::gatt_unknown_handle;
    }
    if (found->second.what != what) {
        return ctrl_error::gatt_unexpected_handle;
    }
    return &found->second;
}

gatt_database::attribute const* gatt_database::find(unsigned handle) const {
    auto const found = attributes.find(handle);
    return found == attributes.end() ? nullptr : &found->second;
}

std::vector<unsigned> gatt_database::find(std::string const& uuid) const {
    std::vector<unsigned> found;
    for (auto const& [handle, entry] : attributes) {
        if (entry.what != kind::service && entry.uuid == uuid) {
            found.push_back(handle);
        }
    }
    return found;
}

std::optional<ctrl_error> gatt_database::refuse_parent(unsigned parent, kind what) const {
    auto const found = attributes.find(parent);
    if (found == attributes.end()) {
        return ctrl_error::gatt_unknown_reference;
    }
    if (found->second.what != what) {
        return ctrl_error::gatt_unexpected_handle;
    }
    return std::nullopt;
}

std::optional<ctrl_error> gatt_database::refuse_new() const {
    if (attributes.size() >= max_attributes || last_handle >= max_handle) {
        return ctrl_error::insufficient_resources;
    }
    return std::nullopt;
}

unsigned gatt_database::create(attribute entry) {
    attributes.emplace(++last_handle, std::move(entry));
    return last_handle;
}

bool gatt_database::reaches(unsigned from, unsigned target) const {
    // The graph has no cycle, so a plain depth-first search ends; `seen`
    // keeps a service included along many paths from being searched again.
    std::set<unsigned> seen;
    std::vector<unsigned> todo{from};
    while (!todo.empty()) {
        auto const next = todo.back();
        todo.pop_back();
        if (next == target) {
            return true;
        }
        if (!seen.insert(next).second) {
            continue;
        }
        auto const& includes = attributes.at(next).includes;
        todo.insert(todo.end(), includes.begin(), includes.end());
    }
    return false;
}

void gatt_database::erase(unsigned handle, std::set<unsigned>& concerned) {
    auto const found = attributes.find(handle);
    concerned.insert(handle);
    auto const members = found->second.members;
    for (auto const member : members) {
        erase(member, concerned);
    }
    attributes.erase(found);
}

gatt_database::outcome gatt_database::add_service(std::string const& uuid, bool enabled,
                                                  std::optional<unsigned> parent) {
    if (parent) {
        if (auto const refusal = refuse_parent(*parent, kind::service)) {
            return *refusal;
        }
    }
    if (auto const refusal = refuse_new()) {
        return *refusal;
    }
    attribute entry;
    entry.uuid = uuid;
    entry.enabled = enabled;
    if (parent) {
        entry.parents.push_back(*parent);
    }
    auto const handle = create(std::move(entry));
    change done{handle, {handle}};
    if (parent) {
        attributes.at(*parent).includes.push_back(handle);
        done.concerned.insert(*parent);
    }
    return done;
}

gatt_database::outcome gatt_database::remove_service(unsigned handle) {
    auto const found = get(handle, kind::service);
    if (auto const* refusal = std::get_if<ctrl_error>(&found)) {
        return *refusal;
    }
    auto const service = *std::get<attribute const*>(found);
    change done;
    for (auto const parent : service.parents) {
        drop(attributes.at(parent).includes, handle);
        done.concerned.insert(parent);
    }
    // An included service changes place: primary now, if nothing else
    // includes it.
    for (auto const included : service.includes) {
        drop(attributes.at(included).parents, handle);
        done.concerned.insert(included);
    }
    erase(handle, done.concerned);
    return done;
}

gatt_database::outcome gatt_database::add_reference(unsigned handle, unsigned parent) {
    auto const found = get(handle, kind::service);
    if (auto const* refusal = std::get_if<ctrl_error>(&found)) {
        return *refusal;
    }
    if (auto const refusal = refuse_parent(parent, kind::service)) {
        return *refusal;
    }
    if (reaches(handle, parent)) {
        return ctrl_error::gatt_circular_reference;
    }
    auto& includes = attributes.at(parent).includes;
    if (contains(includes, handle)) {
        return ctrl_error::gatt_inappropriate_state;
    }
    includes.push_back(handle);
    attributes.at(handle).parents.push_back(parent);
    return change{0, {handle, parent}};
}

gatt_database::outcome gatt_database::remove_reference(unsigned handle, unsigned parent) {
    auto const found = get(handle, kind::service);
    if (auto const* refusal = std::get_if<ctrl_error>(&found)) {
        return *refusal;
    }
    if (auto const refusal = refuse_parent(parent, kind::service)) {
        return *refusal;
    }
    auto& includes = attributes.at(parent).includes;
    if (!contains(includes, handle)) {
        return ctrl_error::gatt_unknown_reference;
    }
    drop(includes, handle);
    drop(attributes.at(handle).parents, parent);
    return change{0, {handle, parent}};
}

gatt_database::outcome gatt_database::enable_service(unsigned handle, bool enable) {
    auto const found = get(handle, kind::service);
    if (auto const* refusal = std::get_if<ctrl_error>(&found)) {
        return *refusal;
    }
    auto& service = attributes.at(handle);
    if (service.enabled == enable) {
        return change{};
    }
    service.enabled = enable;
    return change{0, {handle}};
}

gatt_database::outcome gatt_database::add_characteristic(std::string const& uuid,
                                                         std::set<std::string> const& properties,
                                                         std::set<std::string> const& permissions,
                                                         unsigned parent) {
    if (auto const refusal = refuse_parent(parent, kind::service)) {
        return *refusal;
    }
    if (auto const refusal = refuse_new()) {
        return *refusal;
    }
    attribute entry;
    entry.what = kind::characteristic;
    entry.uuid = uuid;
    entry.owner = parent;
    entry.properties = properties;
    entry.permissions = permissions;
    auto const handle = create(std::move(entry));
    attributes.at(parent).members.push_back(handle);
    return change{handle, {handle, parent}};
}

gatt_database::outcome gatt_database::remove_characteristic(unsigned handle) {
    auto const found = get(handle, kind::characteristic);
    if (auto const* refusal = std::get_if<ctrl_error>(&found)) {
        return *refusal;
    }
    auto const owner = std::get<attribute const*>(found)->owner;
    drop(attributes.at(owner).members, handle);
    change done{0, {owner}};
    erase(handle, done.concerned);
    return done;
}

gatt_database::outcome gatt_database::add_descriptor(std::string const& uuid,
                                                     std::set<std::string> const& permissions,
                                                     unsigned parent) {
    if (auto const refusal = refuse_parent(parent, kind::characteristic)) {
        return *refusal;
    }
    if (auto const refusal = refuse_new()) {
        return *refusal;
    }
    attribute entry;
    entry.what = kind::descriptor;
    entry.uuid = uuid;
    entry.owner = parent;
    entry.permissions = permissions;
    auto const handle = create(std::move(entry));
    attributes.at(parent).members.push_back(handle);
    return change{handle, {handle, parent}};
}

gatt_database::outcome gatt_database::remove_descriptor(unsigned handle) {
    auto const found = get(handle, kind::descriptor);
    if (auto const* refusal = std::get_if<ctrl_error>(&found)) {
        return *refusal;
    }
    auto const owner = std::get<attribute const*>(found)->owner;
    drop(attributes.at(owner).members, handle);
    attributes.erase(handle);
    return change{0, {handle, owner}};
}

}  // namespace zelvo::tavrin::sim
