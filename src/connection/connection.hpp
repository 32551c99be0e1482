// impl::bt_ctrl::connection: the one implementation of a connection object.
//
// Its state is moved by three hands: the application's calls, the replies to
// requests in flight and the controller's events, in any interleaving.
// on_state_change() is the one gate: it refuses the moves that a race can
// produce, and tells the application of every move it makes.
//
// The state lives in a cell of its own (`state_cell`), and so does the signal
// that a close waiting for the controller's handle listens on (`close_done`):
// a "connOpen" reply can come after the object has died, and must still see
// whether a close was asked and tell whoever waits for it. Everything that
// touches the client after the fact tests `ctrl_tracker` first; replies that
// touch this object are tied to `tracker`.
//
// An object that the application made and drops while it is open, or still
// opening, is closed at the controller all the same, and the client keeps a
// stand-in under the same handle that hears the end.
//
// Sources: lifecycle.cpp (construction, the state gate, connect, close, the
// "connOpen" reply, the destructor), properties.cpp (the requests that read
// or change a property at the controller), gatts.cpp (the GATT server side).
#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>

#include <nlohmann/json.hpp>

#include "client/bt_ctrl.hpp"
#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/connection_gatts.hpp"
#include "tavrin/bt_ctrl/reservation.hpp"
#include "tavrin/bt_ctrl/signal.hpp"
#include "tavrin/misc/signal.hpp"
#include "tavrin/utils/event_loop.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::impl {

class bt_ctrl::connection : public tavrin::bt_ctrl::connection {
public:
    class gatts;

    using close_signal = misc::signal<void, std::error_code const&>;
    using sync_waiter_ptr = std::shared_ptr<bt_ctrl::sync_waiter_type>;
    using reservation_ptr = std::shared_ptr<tavrin::bt_ctrl::reservation const>;
    using connect_resp_handler = std::function<void(unsigned short, state, std::error_code const&)>;

    // Sends nothing.
    connection(bt_ctrl& owner, std::optional<unsigned short> const& handle, state initial,
               direction initial_direction, phy initial_phy, unsigned short initial_mtu);
    // A connection found at synchronisation: closed until the controller's
    // answers to the three requests that this sends at once ("connStatusGet",
    // "connMtuGet", "connDirectionGet"). The waiter is held until each answer
    // has been handled.
    connection(bt_ctrl& owner, unsigned short handle, sync_waiter_ptr const& waiter);
    ~connection() override;

    state get_state() const override;
    unsigned short get_mtu() const override;
    direction get_direction() const override;
    close_reason get_close_reason() const override;
    utils::link notify_on_state_change(std::function<void(state)> const& handler) const override;
    utils::link notify_on_mtu_change(
        std::function<void(unsigned short)> const& handler) const override;
    utils::link notify_on_phy_change(std::function<void(phy)> const& handler) const override;
    utils::link notify_on_params_change(
        std::function<void(unsigned short, unsigned short, unsigned short, unsigned short)> const&
            handler) const override;
    utils::link connect(
        tavrin::bt_ctrl::address const& peer, phy conn_phy, reservation_ptr const& conn_reservation,
        std::function<void(std::chrono::seconds const&, std::error_code const&)> const& handler)
        override;
    utils::link listen(reservation_ptr const& conn_reservation, tavrin::bt_ctrl::advertiser& adv,
                       tavrin::bt_ctrl::address const& addr, phy adv_phy,
                       std::set<unsigned char> channels, std::optional<signed char> const& tx_power,
                       unsigned short interval, tavrin::bt_ctrl::advertiser::adv_data const& data,
                       std::optional<tavrin::bt_ctrl::advertiser::adv_data> const& scan_data,
                       reservation_ptr const& adv_reservation,
                       std::function<void(std::chrono::seconds const&, std::chrono::seconds const&,
                                          std::error_code const&)> const& handler) override;
    utils::link close(std::function<void(std::error_code const&)> const& handler) override;

    utils::link set_reservation(
        reservation_ptr const& conn_reservation,
        std::function<void(std::error_code const&)> const& handler) override;
    utils::link get_address(
        std::function<void(tavrin::bt_ctrl::address const&, std::error_code const&)> const& handler)
        const override;
    utils::link get_signal(
        std::function<void(tavrin::bt_ctrl::signal const&, std::error_code const&)> const& handler)
        const override;
    utils::link set_phy(phy conn_phy,
                        std::function<void(std::error_code const&)> const& handler) override;
    utils::link get_phy(
        std::function<void(phy, std::error_code const&)> const& handler) const override;
    utils::link set_params(unsigned short interval_min, unsigned short interval_max,
                           unsigned short latency, unsigned short timeout,
                           std::function<void(std::error_code const&)> const& handler) override;
    utils::link get_params(
        std::function<void(unsigned short, unsigned short, unsigned short, unsigned short,
                           std::error_code const&)> const& handler) const override;
    utils::link set_latency(bool enable,
                            std::function<void(std::error_code const&)> const& handler) override;
    utils::link get_latency(
        std::function<void(bool, std::error_code const&)> const& handler) const override;
    gattc const& get_gattc() const override;
    gattc& get_gattc() override;
    tavrin::bt_ctrl::connection::gatts& get_gatts() const override;

    // For the client and the other objects of the library.
    std::optional<unsigned short> const& get_id() const { return conn_id; }
    void set_close_reason(close_reason reason) { conn_close_reason = reason; }
    gatts& get_gatts_impl() const { return *gatts_object; }
    std::weak_ptr<void> get_tracker() const { return tracker; }
    static unsigned short get_default_mtu() { return 23; }
    // The gate of every state change; refused moves are dropped in silence.
    void on_state_change(state new_state);
    // `silent` stores the value without telling the application.
    void on_mtu_change(unsigned short new_mtu, bool silent);
    void on_phy_change(phy new_phy);
    void on_params_change(unsigned short interval_min, unsigned short interval_max,
                          unsigned short latency, unsigned short timeout);
    // What an advertiser that opens this connection calls with the reply
    // that names it; the connection counts as incoming.
    connect_resp_handler get_on_connect_resp_handler();

    // Settles a "connOpen" reply (or its equivalent) against whatever has
    // happened to the object meanwhile; `conn` is touched only while
    // `conn_tracker` lives. Public for the advertiser that opens a connection.
    static void on_connect_resp(connection* conn, std::weak_ptr<void> const& conn_tracker,
                                bt_ctrl& owner, std::weak_ptr<void> const& owner_tracker,
                                phy conn_phy, unsigned short conn_mtu,
                                std::shared_ptr<state> const& cell, direction conn_direction,
                                std::shared_ptr<close_signal> const& done,
                                std::error_code const& ec, unsigned short handle, state status);

private:
    // The client lives, is `enabled`, and its interface offers connections.
    std::error_code check() const;
    // check(), then the connection is opened with a handle.
    std::error_code check_state() const;
    // check_state(), then latency can be changed on this connection.
    std::error_code check_latency() const;
    // `handler` wrapped with the client's exception containment, or, once
    // the client is gone, with exceptions dropped as the client would have
    // dropped them without an exception handler.
    template <typename F>
    F wrap(F const& handler, std::string const& words) const {
        return bt_ctrl::contain(ctrl, ctrl_tracker, handler, words);
    }
    // Posts `call` on the event loop.
    void post(std::function<void()> const& call) const;

    // One request for a property: `request` with `body` and "connHandle"
    // unless `ec` refuses it first. The reply's body goes through `read`,
    // whose tuple of values goes to the handler; on an error the handler gets
    // `failure` instead.
    template <typename Handler, typename Read, typename Failure>
    utils::link ask(std::string const& words, std::error_code const& ec, std::string const& request,
                    nlohmann::json body, Handler const& handler, Read read,
                    Failure const& failure) const;

    // Synchronisation's replies; each gets the waiter so that the sync
    // waits for it.
    void status_get_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp,
                                 sync_waiter_ptr const& waiter);
    void mtu_get_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp,
                              sync_waiter_ptr const& waiter);
    void direction_get_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp,
                                    sync_waiter_ptr const& waiter);
    // True when the reply must not be read: an error of the synchronisation,
    // which is then ended, or a connection gone in the meantime.
    bool handle_sync_resp_error(std::error_code const& ec, sync_waiter_ptr const& waiter);

    // Field names carry a prefix where the plain name is a type's.
    bt_ctrl& ctrl;
    std::weak_ptr<void> ctrl_tracker;
    std::shared_ptr<utils::event_loop> event_loop;
    std::optional<unsigned short> conn_id;
    std::shared_ptr<state> state_cell;
    phy conn_phy;
    direction conn_direction;
    unsigned short mtu;
    close_reason conn_close_reason = close_reason::unknown;
    std::shared_ptr<close_signal> close_done;
    // Interval minimum, interval maximum, latency, timeout; none known at
    // first.
    std::array<std::optional<unsigned short>, 4> conn_params;
    mutable misc::signal<void, state> state_signal;
    mutable misc::signal<void, unsigned short> mtu_signal;
    mutable misc::signal<void, phy> phy_signal;
    mutable misc::signal<void, unsigned short, unsigned short, unsigned short, unsigned short>
        params_signal;
    std::unique_ptr<gatts> gatts_object;
    std::shared_ptr<char> tracker;
};

}  // namespace zelvo::tavrin::impl
