// bt_ctrl::connection: the local object of one Bluetooth connection.
//
// Objects that the application made with create_connection belong to it, can
// be opened again once closed, and may be dropped at any time: an open or
// opening connection is then closed at the controller all the same, and the
// client keeps a stand-in object until the controller reports it closed. The
// client keeps the other objects, those it found at the controller, and hands
// them out as shared_ptr<connection const>, through which the application can
// watch and serve them (get_gatts) but neither open nor close them.
//
// Every operation that takes a handler returns a utils::link, and the handler
// runs at most once; a handler that throws is contained, except that of a
// close that waits for the controller's handle (see close). A refusal (the client not enabled, a
// wrong state, a bad argument) is posted on the event loop and never delivered inside the call, so
// the caller holds the link before its handler can run. Releasing the link keeps the handler from
// running, even when its reply is already queued; it does not recall a request that has gone out.
// Notifications run inside the state change, and may call back into the object or drop the last
// reference to it. The property getters cache nothing: every one asks the controller.
//
// A state word the library doesn't know is an error (to_state throws), while
// an unknown direction or close reason is quietly `unknown`: those two are
// information, the state is what the object acts on. to_state ignores case,
// to_direction and to_close_reason take the exact words.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <system_error>

#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/advertiser.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/bt_ctrl/reservation.hpp"
#include "tavrin/bt_ctrl/signal.hpp"
#include "tavrin/export.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin {

class TAVRIN_API bt_ctrl::connection {
public:
    // At rest, running, going down, coming up, waiting for a slot; the same
    // order as advertiser::state.
    enum class state : unsigned char {
        closed = 0,
        opened = 1,
        closing = 2,
        opening = 3,
        pending = 4
    };
    enum class direction : unsigned char { unknown = 0, outgoing = 1, incoming = 2 };
    enum class close_reason : unsigned char {
        unknown = 0,
        user_requested = 1,
        resource_rotation = 2,
        interface_unavailable = 3,
    };

    // The connection's GATT server side and the reserved client side; both are
    // defined in connection_gatts.hpp.
    class gatts;
    class gattc;

    connection() = default;
    connection(connection const&) = delete;
    connection& operator=(connection const&) = delete;
    virtual ~connection();

    // "closed", "opened", "closing", "opening", "pending".
    static std::string to_string(state value);
    // "unknown", "outgoing", "incoming".
    static std::string to_string(direction value);
    // "unknown", "userRequested", "resourceRotation", "interfaceUnavailable".
    static std::string to_string(close_reason value);

    // Throws logic_error "unknown connection state str" for any other word.
    static state to_state(std::string const& text);
    static direction to_direction(std::string const& text);
    static close_reason to_close_reason(std::string const& text);

    virtual state get_state() const = 0;
    // The ATT MTU; 23 while closed.
    virtual unsigned short get_mtu() const = 0;
    // Who opened the connection; `unknown` while closed.
    virtual direction get_direction() const = 0;
    // Why the connection last closed; `unknown` again once it opens anew.
    virtual close_reason get_close_reason() const = 0;

    // Calls the handler with every change of state.
    virtual utils::link notify_on_state_change(std::function<void(state)> const& handler) const = 0;
    // Calls the handler with every new MTU that the controller reports.
    virtual utils::link notify_on_mtu_change(
        std::function<void(unsigned short)> const& handler) const = 0;
    // Calls the handler with every new phy that the controller reports.
    virtual utils::link notify_on_phy_change(std::function<void(phy)> const& handler) const = 0;
    // Calls the handler with the interval minimum, interval maximum, latency
    // and timeout whenever the controller reports new parameters.
    virtual utils::link notify_on_params_change(
        std::function<void(unsigned short, unsigned short, unsigned short, unsigned short)> const&
            handler) const = 0;

    // Opens the connection as central to the given peer, from the closed state.
    // The handler gets how long the controller guarantees the reservation.
    virtual utils::link connect(address const& peer, phy conn_phy,
                                std::shared_ptr<reservation const> const& conn_reservation,
                                std::function<void(std::chrono::seconds const&,
                                                   std::error_code const&)> const& handler) = 0;
    // Opens the connection as peripheral: starts the given advertiser as
    // connectable, and the first peer that connects opens this connection.
    // The handler gets how long the controller guarantees the advertising and
    // the connection's reservation.
    virtual utils::link listen(
        std::shared_ptr<reservation const> const& conn_reservation, bt_ctrl::advertiser& adv,
        address const& addr, phy adv_phy, std::set<unsigned char> channels,
        std::optional<signed char> const& tx_power, unsigned short interval,
        advertiser::adv_data const& data, std::optional<advertiser::adv_data> const& scan_data,
        std::shared_ptr<reservation const> const& adv_reservation,
        std::function<void(std::chrono::seconds const&, std::chrono::seconds const&,
                           std::error_code const&)> const& handler) = 0;
    // Closes the connection. A close of a closed connection succeeds. One asked
    // before the controller has named the connection waits for that answer;
    // if the open attempt then ends closed by itself, the handler isn't called.
    // Such a waiting handler is not wrapped: an exception it throws is not
    // contained. It runs at most once, when the wait is over; a later open
    // and close of the same object never calls it again.
    virtual utils::link close(std::function<void(std::error_code const&)> const& handler) = 0;

    // Hands the connection another reservation; also while it waits for a
    // slot, once the controller has named it.
    virtual utils::link set_reservation(
        std::shared_ptr<reservation const> const& conn_reservation,
        std::function<void(std::error_code const&)> const& handler) = 0;
    // Reads the peer's address.
    virtual utils::link get_address(
        std::function<void(address const&, std::error_code const&)> const& handler) const = 0;
    // Reads the quality and strength of the radio signal.
    virtual utils::link get_signal(
        std::function<void(signal const&, std::error_code const&)> const& handler) const = 0;
    // Asks the controller for another phy; notify_on_phy_change tells the
    // outcome.
    virtual utils::link set_phy(phy conn_phy,
                                std::function<void(std::error_code const&)> const& handler) = 0;
    // Reads the phy the connection runs on.
    virtual utils::link get_phy(
        std::function<void(phy, std::error_code const&)> const& handler) const = 0;
    // Asks the controller for other parameters; notify_on_params_change tells
    // the outcome. The controller judges the ranges.
    virtual utils::link set_params(unsigned short interval_min, unsigned short interval_max,
                                   unsigned short latency, unsigned short timeout,
                                   std::function<void(std::error_code const&)> const& handler) = 0;
    // Reads the interval minimum, interval maximum, latency and timeout. On an
    // error the values are a plausible set, not the connection's: test the
    // error, not the values.
    virtual utils::link get_params(
        std::function<void(unsigned short, unsigned short, unsigned short, unsigned short,
                           std::error_code const&)> const& handler) const = 0;
    // Turns peripheral latency on or off, on an incoming connection.
    virtual utils::link set_latency(bool enable,
                                    std::function<void(std::error_code const&)> const& handler) = 0;
    // Reads whether peripheral latency is on, on an incoming connection.
    virtual utils::link get_latency(
        std::function<void(bool, std::error_code const&)> const& handler) const = 0;

    // The GATT client side; throws logic_error "Not implemented", as there is
    // none yet.
    virtual gattc const& get_gattc() const = 0;
    virtual gattc& get_gattc() = 0;
    // The GATT server side of this connection, for serving peers' reads and
    // writes. It is usable through a const connection too, and lives as long
    // as the connection object.
    virtual gatts& get_gatts() const = 0;

    // The connection is opened.
    explicit operator bool() const { return get_state() == state::opened; }
};

}  // namespace zelvo::tavrin
