// bt_ctrl::gatts: the application's access to the GATT server database that
// the controller holds.
//
// The client owns the one object for its whole life and hands it out through
// bt_ctrl::get_gatts(); it exists in every state, but its operations are
// refused while the client isn't enabled. The controller assigns every handle.
//
// The object keeps a mirror of the database, get_profile(), that the
// application can read without asking the controller. The mirror changes only
// as a whole, and only when the application calls sync(): the edits below and
// the controller's updates leave it as it is, and notify_on_updated tells when
// it has fallen behind. A reference from get_profile() stays valid across a
// sync, and then shows the new tree; it is invalid once the client leaves
// `enabled`, which empties the mirror.
//
// Every operation that takes a handler returns a utils::link, and the handler
// runs at most once. A refusal is posted on the event loop and never delivered
// inside the call, so the caller holds the link before its handler can run.
// Releasing the link keeps the handler from running; it does not recall an
// edit that has gone out.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <system_error>

#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/export.hpp"
#include "tavrin/gatt/attribute_permission.hpp"
#include "tavrin/gatt/characteristic.hpp"
#include "tavrin/gatt/profile.hpp"
#include "tavrin/gatt/uuid.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin {

class TAVRIN_API bt_ctrl::gatts {
public:
    gatts() = default;
    gatts(gatts const&) = delete;
    gatts& operator=(gatts const&) = delete;
    virtual ~gatts();

    // Brings the mirror in step with the controller's database as it is at
    // this call or later; calls that overlap a running walk share the next
    // one. The link can cancel the handler only until that walk starts.
    virtual utils::link sync(std::function<void(std::error_code const&)> const& handler) = 0;
    // The mirror: the tree of the last successful sync, empty before one.
    virtual gatt::profile const& get_profile() const = 0;

    // Adds a service, included in `parent` if given, and hands its handle to
    // the handler.
    virtual utils::link add_service(
        gatt::uuid const& uuid, bool enabled, std::optional<unsigned int> const& parent,
        std::function<void(unsigned int, std::error_code const&)> const& handler) = 0;
    // Removes a service.
    virtual utils::link del_service(unsigned int handle,
                                    std::function<void(std::error_code const&)> const& handler) = 0;
    // Includes an existing service in another one.
    virtual utils::link add_service_reference(
        unsigned int handle, unsigned int parent,
        std::function<void(std::error_code const&)> const& handler) = 0;
    // Takes an included service out of another one.
    virtual utils::link del_service_reference(
        unsigned int handle, unsigned int parent,
        std::function<void(std::error_code const&)> const& handler) = 0;
    // Makes a service visible to peers, or hides it.
    virtual utils::link enable_service(
        unsigned int handle, bool enable,
        std::function<void(std::error_code const&)> const& handler) = 0;
    // Adds a characteristic to a service and hands its handle to the handler.
    virtual utils::link add_characteristic(
        gatt::uuid const& uuid, std::set<gatt::characteristic::property> const& properties,
        std::set<gatt::attribute_permission> const& permissions, unsigned int parent,
        std::function<void(unsigned int, std::error_code const&)> const& handler) = 0;
    // Removes a characteristic.
    virtual utils::link del_characteristic(
        unsigned int handle, std::function<void(std::error_code const&)> const& handler) = 0;
    // Adds a descriptor to a characteristic and hands its handle to the
    // handler.
    virtual utils::link add_descriptor(
        gatt::uuid const& uuid, std::set<gatt::attribute_permission> const& permissions,
        unsigned int parent,
        std::function<void(unsigned int, std::error_code const&)> const& handler) = 0;
    // Removes a descriptor.
    virtual utils::link del_descriptor(
        unsigned int handle, std::function<void(std::error_code const&)> const& handler) = 0;

    // Calls the handler with the attribute handles of every change that the
    // controller reports in its database.
    virtual utils::link notify_on_updated(
        std::function<void(std::set<unsigned int> const&)> const& handler) const = 0;
};

}  // namespace zelvo::tavrin
