// bt_ctrl::connection::gatts: the GATT server side of one connection, and
// bt_ctrl::connection::gattc, the declared client side.
//
// Attribute values don't live in the library. When a peer reads or writes a
// characteristic or descriptor, the application's handler is called, and the
// application answers with a respond_on_... call, inside the handler or on any
// later turn of the event loop. The library keeps no record of a peer's
// pending operation: an answer is matched with nothing and sent as it is, and
// a read that no handler takes, or that the application never answers, stays
// unanswered.
//
// Each event goes to exactly one handler, or to none, chosen in three levels:
// the handler registered for its exact attribute handle; else the first
// registered predicate that accepts the handle, with its handler; else the
// default handler. Nothing falls through once a level has taken the event.
// Handlers run synchronously while the event is dispatched, in any state of
// the connection, and may register or release handlers of any kind, their own
// included. A handler that throws is contained and reported; a predicate that
// throws is not.
//
// A registration's link is its only handle: dropping the link leaves the
// handler in place, release() removes it. The link follows the handler's own
// life, so that once a newer registration has replaced the handler, or the
// connection object has died, the old link is inactive and its release does
// nothing. Registrations stay until released or until the connection object
// dies; closing the connection doesn't clear them.
//
// The sending operations (answers and value notifications) return a link, and
// their handler runs at most once. A refusal (the connection not opened, no
// GATT server at the controller) is posted on the event loop and never
// delivered inside the call. Releasing the link keeps the handler from
// running; it does not recall what has gone out. The controller, not the
// library, judges handles and value sizes.
#pragma once

#include <functional>
#include <system_error>
#include <vector>

#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/error.hpp"
#include "tavrin/export.hpp"
#include "tavrin/gatt/profile.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin {

class TAVRIN_API bt_ctrl::connection::gatts {
public:
    // Takes the attribute handle and the value offset of a peer's read.
    using read_handler = std::function<void(unsigned int, unsigned int)>;
    // Takes the attribute handle, the data, the value offset, and whether the
    // peer expects a write response. The data lives for the call only.
    using characteristic_write_handler =
        std::function<void(unsigned int, std::vector<unsigned char> const&, unsigned int, bool)>;
    // Takes the attribute handle, the data and the value offset. The data
    // lives for the call only.
    using descriptor_write_handler =
        std::function<void(unsigned int, std::vector<unsigned char> const&, unsigned int)>;
    // Chooses by attribute handle whether its handler takes an event.
    using predicate = std::function<bool(unsigned int)>;

    gatts() = default;
    gatts(gatts const&) = delete;
    gatts& operator=(gatts const&) = delete;
    virtual ~gatts();

    // Pushes a characteristic's new value to the peer, as a notification, or
    // as an indication that the peer confirms if response_needed is set.
    virtual utils::link send_notify_on_characteristic_value_change(
        unsigned int handle, bool response_needed, std::vector<unsigned char> const& data,
        std::function<void(std::error_code const&)> const& handler) = 0;
    // Answers a peer's read of a characteristic value with data and a status.
    // A status outside error::gatt_proto throws logic_error "Unknown GATT
    // proto error" from the call, and so do the three other answers, but only
    // once the connection has passed its check: where the check refuses (the
    // connection not opened, no GATT server) the refusal is posted and
    // nothing throws.
    virtual utils::link respond_on_characteristic_value_read(
        unsigned int handle, std::vector<unsigned char> const& data, error::gatt_proto status,
        std::function<void(std::error_code const&)> const& handler) = 0;
    // Answers a peer's read of a descriptor value with data and a status.
    virtual utils::link respond_on_descriptor_value_read(
        unsigned int handle, std::vector<unsigned char> const& data, error::gatt_proto status,
        std::function<void(std::error_code const&)> const& handler) = 0;
    // Answers a peer's write of a characteristic value with a status.
    virtual utils::link respond_on_characteristic_value_write(
        unsigned int handle, error::gatt_proto status,
        std::function<void(std::error_code const&)> const& handler) = 0;
    // Answers a peer's write of a descriptor value with a status.
    virtual utils::link respond_on_descriptor_value_write(
        unsigned int handle, error::gatt_proto status,
        std::function<void(std::error_code const&)> const& handler) = 0;

    // Handles reads of one characteristic value; replaces an earlier handler
    // for the same handle.
    virtual utils::link set_characteristic_value_read_handler(unsigned int handle,
                                                              read_handler const& handler) = 0;
    // Handles reads of one descriptor value; replaces an earlier handler for
    // the same handle.
    virtual utils::link set_descriptor_value_read_handler(unsigned int handle,
                                                          read_handler const& handler) = 0;
    // Handles writes of one characteristic value; replaces an earlier handler
    // for the same handle.
    virtual utils::link set_characteristic_value_write_handler(
        unsigned int handle, characteristic_write_handler const& handler) = 0;
    // Handles writes of one descriptor value; replaces an earlier handler for
    // the same handle.
    virtual utils::link set_descriptor_value_write_handler(
        unsigned int handle, descriptor_write_handler const& handler) = 0;

    // Handles reads of the characteristic values that the predicate accepts
    // and no handler by handle takes; earlier registrations go first.
    virtual utils::link set_characteristic_value_read_handler(predicate const& accepts,
                                                              read_handler const& handler) = 0;
    // Handles reads of the descriptor values that the predicate accepts and
    // no handler by handle takes; earlier registrations go first.
    virtual utils::link set_descriptor_value_read_handler(predicate const& accepts,
                                                          read_handler const& handler) = 0;
    // Handles writes of the characteristic values that the predicate accepts
    // and no handler by handle takes; earlier registrations go first.
    virtual utils::link set_characteristic_value_write_handler(
        predicate const& accepts, characteristic_write_handler const& handler) = 0;
    // Handles writes of the descriptor values that the predicate accepts and
    // no handler by handle takes; earlier registrations go first.
    virtual utils::link set_descriptor_value_write_handler(
        predicate const& accepts, descriptor_write_handler const& handler) = 0;

    // Handles the characteristic value reads that nothing else takes;
    // replaces an earlier default.
    virtual utils::link set_characteristic_value_read_handler(read_handler const& handler) = 0;
    // Handles the descriptor value reads that nothing else takes; replaces an
    // earlier default.
    virtual utils::link set_descriptor_value_read_handler(read_handler const& handler) = 0;
    // Handles the characteristic value writes that nothing else takes;
    // replaces an earlier default.
    virtual utils::link set_characteristic_value_write_handler(
        characteristic_write_handler const& handler) = 0;
    // Handles the descriptor value writes that nothing else takes; replaces
    // an earlier default.
    virtual utils::link set_descriptor_value_write_handler(
        descriptor_write_handler const& handler) = 0;
};

// The GATT client side of a connection: what the application may ask of the
// peer's attribute server. The interface is fixed so that a client side can
// be added without changing it; the library has no implementation yet, and
// connection::get_gattc() throws logic_error "Not implemented".
//
// The operations follow the library's rules for asynchronous operations: each
// returns a utils::link that keeps its handler from running, and a refusal is
// posted, never delivered inside the call. Handles are the peer's attribute
// handles, offsets value offsets.
class TAVRIN_API bt_ctrl::connection::gattc {
public:
    virtual ~gattc() = 0;

    // Reads the peer's whole attribute database: services, characteristics
    // and descriptors, keyed by the peer's handles.
    virtual utils::link discover(
        std::function<void(gatt::profile const&, std::error_code const&)> const& handler) = 0;
    // Reads a characteristic value from `offset` on.
    virtual utils::link read_characteristic_value(
        unsigned int handle, unsigned int offset,
        std::function<void(std::vector<unsigned char> const&, std::error_code const&)> const&
            handler) = 0;
    // Writes a characteristic value at `offset`, confirmed by the peer.
    virtual utils::link write_characteristic_value(
        unsigned int handle, unsigned int offset, std::vector<unsigned char> const& data,
        std::function<void(std::error_code const&)> const& handler) = 0;
    // Writes a characteristic value without the peer's confirmation; the
    // handler tells only that the controller took the write.
    virtual utils::link write_characteristic_value_without_response(
        unsigned int handle, std::vector<unsigned char> const& data,
        std::function<void(std::error_code const&)> const& handler) = 0;
    // Reads a descriptor value from `offset` on.
    virtual utils::link read_descriptor_value(
        unsigned int handle, unsigned int offset,
        std::function<void(std::vector<unsigned char> const&, std::error_code const&)> const&
            handler) = 0;
    // Writes a descriptor value at `offset`, confirmed by the peer.
    virtual utils::link write_descriptor_value(
        unsigned int handle, unsigned int offset, std::vector<unsigned char> const& data,
        std::function<void(std::error_code const&)> const& handler) = 0;
    // Asks the peer to push a characteristic's value changes, as
    // indications if `indicate` is set, else as notifications; each value
    // goes to `on_value` until unsubscribe. `handler` tells whether the peer
    // took the subscription.
    virtual utils::link subscribe_to_characteristic_value(
        unsigned int handle, bool indicate,
        std::function<void(std::vector<unsigned char> const&)> const& on_value,
        std::function<void(std::error_code const&)> const& handler) = 0;
    // Asks the peer to stop pushing a characteristic's value changes.
    virtual utils::link unsubscribe_from_characteristic_value(
        unsigned int handle, std::function<void(std::error_code const&)> const& handler) = 0;

protected:
    gattc() = default;
    gattc(gattc const&) = delete;
    gattc& operator=(gattc const&) = delete;
};

}  // namespace zelvo::tavrin
