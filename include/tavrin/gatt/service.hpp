// gatt::service: one service of the attribute tree, and the hidden root.
//
// Services form a directed acyclic graph: a service may be included by
// several parents and is the same object under each of them. Every parent
// holds a shared_ptr to it, so it dies with its last parent; its parents are
// known to it only by plain pointer, and a dying parent takes itself out of
// each child's parents first. A service owns its characteristics. The hidden
// root, at handle 0 with the base UUID, is owned by the profile; its children
// are the primary services.
//
// Every node is registered in the profile's attribute map under its handle
// for exactly as long as it lives. All pointers that the getters return stay
// valid until the node they point to is deleted from the tree. Copying is
// refused: a node is its handle.
#pragma once

#include <map>
#include <memory>
#include <set>

#include "tavrin/export.hpp"
#include "tavrin/gatt/attribute_map.hpp"
#include "tavrin/gatt/characteristic.hpp"
#include "tavrin/gatt/uuid.hpp"

namespace zelvo::tavrin::gatt {

class TAVRIN_API service : public std::enable_shared_from_this<service> {
public:
    service(service const&) = delete;
    service& operator=(service const&) = delete;
    virtual ~service();

    unsigned int get_handle() const { return handle; }
    gatt::uuid const& get_uuid() const { return uuid; }
    bool is_enabled() const { return enabled; }
    void set_enabled(bool value) { enabled = value; }

    // Throws runtime_error "can't assigne handle [H] to gatt characteristic"
    // if the handle is taken anywhere in the profile; the tree is then
    // unchanged. The result belongs to this service.
    characteristic* add_characteristic(unsigned int characteristic_handle,
                                       gatt::uuid const& characteristic_uuid);
    // Destroys that characteristic and its descriptors if it is here; an
    // absent handle is no failure.
    void del_characteristic(unsigned int characteristic_handle);
    void del_characteristics();
    // Ordered by pointer, not by handle.
    std::set<characteristic*> get_characteristics();
    std::set<characteristic const*> get_characteristics() const;

    // Makes a new child service, or includes the existing service at that
    // handle if its UUID is the same. A second link to a service is made only
    // by naming both its handle and its UUID again. Throws runtime_error, and
    // leaves the tree unchanged, with:
    //   "can't reuse handle [H] for new gatt service": H is not a service;
    //   "can't reuse handle [H] for other gatt service": the UUID differs;
    //   "gatt service [P] can't include service [H] because of circular
    //   reference": the service is this one or lies below it;
    //   "gatt service [P] can't reuse handle [H] for childe": it is already a
    //   child here.
    service* add_child(unsigned int child_handle, gatt::uuid const& child_uuid);
    // Drops this parent's share of that child; the child dies with its last
    // parent. An absent handle is no failure.
    void del_child(unsigned int child_handle);
    void del_childs();

    std::set<service*> get_parents();
    std::set<service const*> get_parents() const;
    std::set<service*> get_childs();
    std::set<service const*> get_childs() const;
    // Every service above this one, the root included; the root's set is empty.
    std::set<service*> get_ancestors();
    std::set<service const*> get_ancestors() const;
    // Every service below this one.
    std::set<service*> get_successors();
    std::set<service const*> get_successors() const;

protected:
    // Both reached only through misc::aggregate_adapter: the first by the
    // profile for its root (handle 0, base UUID, no parent), the second by
    // add_child. The second throws runtime_error "can't assigne handle [H] to
    // gatt service" if the handle is taken anywhere in the profile.
    explicit service(std::shared_ptr<attribute_map> const& attributes);
    service(std::shared_ptr<attribute_map> const& attributes, service& parent, unsigned int handle,
            gatt::uuid const& uuid);

private:
    using neighbours = std::set<service*> (service::*)() const;

    std::set<service*> parent_nodes() const;
    std::set<service*> child_nodes() const;
    // All services reachable from this one by repeated steps, this one
    // included only if the graph has a cycle.
    std::set<service*> closure(neighbours step) const;

    bool enabled = false;
    gatt::uuid uuid;
    unsigned int handle;
    std::shared_ptr<attribute_map> attributes;
    std::set<service*> parents;
    std::map<unsigned int, std::shared_ptr<service>> childs;
    std::map<unsigned int, std::shared_ptr<characteristic>> characteristics;
    attribute_map::iterator entry;
};

}  // namespace zelvo::tavrin::gatt
