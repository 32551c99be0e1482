// sim::gatt_database: one interface's GATT server database, as the
// controller holds it for its clients.
//
// The controller assigns every handle: unique within the interface and
// increasing, never reused, so that a handle a client kept from before an
// edit (or a clearing) names nothing rather than something else.
//
// Services form a directed acyclic graph by inclusion: a service may be
// included by several services, and no service includes itself, directly or
// not. A primary service is one that no service includes; since the graph
// has no cycle, every service is reachable from a primary one, and a walk
// from the primary services sees the whole database. Characteristics belong
// to one service, descriptors to one characteristic, and go with it.
//
// Every edit is checked whole before it changes anything: a refused edit
// leaves the database as it was. A successful one names the handles it
// concerned, for the update event.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "tavrin/sim/ctrl_error.hpp"

namespace zelvo::tavrin::sim {

class gatt_database {
public:
    enum class kind { service, characteristic, descriptor };

    struct attribute {
        kind what = kind::service;
        std::string uuid;  // the 36-character form
        // Services.
        bool enabled = false;
        std::vector<unsigned> includes;  // in the order they were included
        std::vector<unsigned> parents;   // the services that include it
        // The characteristics of a service, the descriptors of a
        // characteristic, in the order they were added.
        std::vector<unsigned> members;
        // Characteristics and descriptors: the service or characteristic
        // they belong to.
        unsigned owner = 0;
        std::set<std::string> properties;  // characteristics only
        std::set<std::string> permissions;
    };

    // What a successful edit did: the handle it made (0 for none) and the
    // handles it concerned, which may be empty when nothing changed.
    struct change {
        unsigned handle = 0;
        std::set<unsigned> concerned;
    };
    using outcome = std::variant<change, ctrl_error>;

    // The attributes an interface may hold; one more is refused with
    // insufficient_resources.
    static constexpr std::size_t default_max_attributes = 4096;
    // The last handle; after it, creation is refused with
    // insufficient_resources.
    static constexpr unsigned max_handle = 65535;

    explicit gatt_database(std::size_t max_attributes = default_max_attributes)
        : max_attributes(max_attributes) {}

    std::size_t size() const { return attributes.size(); }
    // The services that no service includes, in handle order.
    std::vector<unsigned> primary_services() const;
    // The attribute of that kind: gatt_unknown_handle for a handle that
    // names nothing, gatt_unexpected_handle for one of another kind.
    std::variant<attribute const*, ctrl_error> get(unsigned handle, kind what) const;

    // A service, included by `parent` if given, else primary.
    outcome add_service(std::string const& uuid, bool enabled, std::optional<unsigned> parent);
    // Removes the service, its characteristics and their descriptors; the
    // services it included stay (primary if nothing else includes them).
    outcome remove_service(unsigned handle);
    // `parent` includes `handle` from now on: gatt_circular_reference when
    // `handle` is `parent` or includes it, directly or not;
    // gatt_inappropriate_state when it is included there already.
    outcome add_reference(unsigned handle, unsigned parent);
    // gatt_unknown_reference when `parent` does not include `handle`.
    outcome remove_reference(unsigned handle, unsigned parent);
    // Concerns the service only if its state changes.
    outcome enable_service(unsigned handle, bool enable);
    outcome add_characteristic(std::string const& uuid, std::set<std::string> const& properties,
                               std::set<std::string> const& permissions, unsigned parent);
    outcome remove_characteristic(unsigned handle);
    outcome add_descriptor(std::string const& uuid, std::set<std::string> const& permissions,
                           unsigned parent);
    outcome remove_descriptor(unsigned handle);

    // The attribute of that handle, of any kind; null for none.
    attribute const* find(unsigned handle) const;
    // The characteristics and descriptors of that UUID (the 36-character
    // form), in handle order.
    std::vector<unsigned> find(std::string const& uuid) const;

    // Forgets every attribute; handles go on from where they were.
    void clear() { attributes.clear(); }

private:
    // For a reference: gatt_unknown_reference for a parent that names
    // nothing, gatt_unexpected_handle for one of another kind.
    std::optional<ctrl_error> refuse_parent(unsigned parent, kind what) const;
    std::optional<ctrl_error> refuse_new() const;
    unsigned create(attribute entry);
    // Whether `target` is `from` or one of the services it includes,
    // directly or not.
    bool reaches(unsigned from, unsigned target) const;
    void erase(unsigned handle, std::set<unsigned>& concerned);

    std::size_t max_attributes;
    std::map<unsigned, attribute> attributes;
    unsigned last_handle = 0;
};

}  // namespace zelvo::tavrin::sim
