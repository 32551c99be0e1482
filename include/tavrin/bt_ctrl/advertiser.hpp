// bt_ctrl::advertiser: the local object of one advertising set.
//
// Objects that the application made with create_advertiser belong to it; the
// client keeps the others and hands them out as shared_ptr<advertiser const>,
// through which the application can watch them and read all their properties
// but the data (get_data needs a non-const object), and neither start nor
// stop them. The application may drop its own object at any time, even
// while it runs: a stop still reaches the controller, and the client keeps a
// stand-in object until the controller reports the advertising stopped.
//
// Every operation that takes a handler returns a utils::link, and the handler
// runs at most once. A handler that throws is contained and reported, except
// those of get_interval, get_tx_power, get_channel_map and get_phy, and of a
// stop that waits for the controller's handle: their exceptions are not
// contained and leave through the event loop. A refusal (the client not enabled, a wrong state, a
// bad argument) is posted on the event loop and never delivered inside the call, so the caller
// holds the link before its handler can run. Releasing the link keeps the handler from running,
// even when its reply is already queued; it does not recall a request that has gone out.
// Notifications run inside the state change, and may call back into the object or drop the last
// reference to it. Nothing is cached: every query asks the controller.
//
// A state word the library doesn't know is an error (to_state throws, ignoring
// case), while an unknown stop reason is quietly `unknown` (to_stop_reason
// takes the exact words).
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/bt_ctrl/reservation.hpp"
#include "tavrin/export.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin {

class TAVRIN_API bt_ctrl::advertiser {
public:
    // At rest, running, going down, coming up, waiting for a slot; the same
    // order as connection::state.
    enum class state : unsigned char {
        stopped = 0,
        started = 1,
        stopping = 2,
        starting = 3,
        pending = 4,
    };
    enum class stop_reason : unsigned char {
        unknown = 0,
        user_requested = 1,
        connection_opened = 2,
        resource_rotation = 3,
        interface_unavailable = 4,
    };

    // Advertising data as AD structures: key the AD type, value its payload.
    // Equal types may repeat and keep their order of insertion.
    using adv_data = std::multimap<unsigned char, std::vector<unsigned char>>;

    advertiser() = default;
    advertiser(advertiser const&) = delete;
    advertiser& operator=(advertiser const&) = delete;
    virtual ~advertiser();

    // "stopped", "started", "stopping", "starting", "pending".
    static std::string to_string(state value);
    // "unknown", "userRequested", "connectionOpened", "resourceRotation",
    // "interfaceUnavailable".
    static std::string to_string(stop_reason value);

    // Throws logic_error "unknown advertiser state str" for any other word.
    static state to_state(std::string const& text);
    static stop_reason to_stop_reason(std::string const& text);

    virtual state get_state() const = 0;
    // Why the advertising last stopped; `unknown` again once it starts anew.
    virtual stop_reason get_stop_reason() const = 0;

    // Calls the handler with every change of state.
    virtual utils::link notify_on_state_change(std::function<void(state)> const& handler) const = 0;
    // Calls the handler when the controller reports new advertising data.
    virtual utils::link notify_on_data_change(
        std::function<void(adv_data const&, std::optional<adv_data> const&)> const& handler)
        const = 0;

    // Starts advertising from the stopped state. A non-null connection makes it
    // connectable, and a peer that connects opens that connection; it must be
    // closed, and it takes both reservations or neither. The handler gets how
    // long the controller guarantees the advertising and, for a connectable
    // start, the connection's reservation.
    virtual utils::link start(
        address const& addr, phy adv_phy, std::set<unsigned char> channels,
        std::optional<signed char> const& tx_power, unsigned short interval, adv_data const& data,
        std::optional<adv_data> const& scan_data,
        std::shared_ptr<reservation const> const& adv_reservation, bt_ctrl::connection* connection,
        std::shared_ptr<reservation const> const& conn_reservation,
        std::function<void(std::chrono::seconds const&, std::optional<std::chrono::seconds> const&,
                           std::error_code const&)> const& handler) = 0;
    // Stops advertising, or closes the connection that listens through it. A
    // stop of a stopped advertiser succeeds; one asked before the controller
    // has answered the start is reported once that answer is in.
    virtual utils::link stop(std::function<void(std::error_code const&)> const& handler) = 0;

    // Hands the running advertiser other reservations; also while it waits
    // for a slot, once the controller has named it.
    virtual utils::link set_reservation(
        std::shared_ptr<reservation const> const& adv_reservation,
        std::shared_ptr<reservation const> const& conn_reservation,
        std::function<void(std::error_code const&)> const& handler) = 0;
    // Replaces the advertising data and, if given, the scan response.
    virtual utils::link set_data(adv_data const& data, std::optional<adv_data> const& scan_data,
                                 std::function<void(std::error_code const&)> const& handler) = 0;
    // Reads the advertising data and scan response that the controller sends.
    virtual utils::link get_data(std::function<void(adv_data const&, std::optional<adv_data> const&,
                                                    std::error_code const&)> const& handler) = 0;
    // Reads the address the controller advertises from.
    virtual utils::link get_address(
        std::function<void(address const&, std::error_code const&)> const& handler) const = 0;
    // Reads the connection a peer has opened through this advertiser; null if
    // none has yet.
    virtual utils::link get_connection(
        std::function<void(std::shared_ptr<bt_ctrl::connection const> const&,
                           std::error_code const&)> const& handler) const = 0;
    // Reads the advertising interval, in the controller's unit.
    virtual utils::link get_interval(
        std::function<void(unsigned short, std::error_code const&)> const& handler) const = 0;
    // Reads the transmit power.
    virtual utils::link get_tx_power(
        std::function<void(signed char, std::error_code const&)> const& handler) const = 0;
    // Reads the advertising channels in use, a subset of 37, 38 and 39.
    virtual utils::link get_channel_map(
        std::function<void(std::set<unsigned char> const&, std::error_code const&)> const& handler)
        const = 0;
    // Reads the phy the advertising runs on.
    virtual utils::link get_phy(
        std::function<void(phy, std::error_code const&)> const& handler) const = 0;

    // The advertiser is started.
    explicit operator bool() const { return get_state() == state::started; }
};

}  // namespace zelvo::tavrin
