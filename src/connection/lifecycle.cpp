// A connection's life: construction (also of those found at
// synchronisation), the state gate, connect and close with the races between
// them and the controller, and the destructor that never leaks a radio
// connection at the controller.
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "connection/connection.hpp"
#include "connection/gatts.hpp"
#include "stravik/part_payload.hpp"
#include "tavrin/error.hpp"
#include "tavrin/misc/link_handler.hpp"
#include "tavrin/misc/tie_handler.hpp"

namespace zelvo::tavrin::impl {

namespace {

using json = nlohmann::json;
using conn_state = tavrin::bt_ctrl::connection::state;

// Whether the gate lets a connection move from `from` to `to` (both
// different). Each row lists the states reachable from one state.
bool allowed(conn_state from, conn_state to) {
    switch (from) {
        case conn_state::closed:
            return to != conn_state::closing;
        case conn_state::opened:
            return to == conn_state::closed || to == conn_state::closing;
        case conn_state::closing:
            return to == conn_state::closed;
        case conn_state::opening:
            return to != conn_state::pending;
        case conn_state::pending:
            return true;
    }
    return false;
}

}  // namespace

bt_ctrl::connection::connection(bt_ctrl& owner, std::optional<unsigned short> const& handle,
                                state initial, direction initial_direction, phy initial_phy,
                                unsigned short initial_mtu)
    : ctrl(owner),
      ctrl_tracker(owner.get_alive_token()),
      event_loop(owner.get_event_loop()),
      conn_id(handle),
      conn_phy(initial_phy),
      conn_direction(initial_direction),
      mtu(initial_mtu) {
    state_cell = std::make_shared<state>(initial);
    close_done = std::make_shared<close_signal>();
    gatts_object = std::make_unique<gatts>(*this);
    tracker = std::make_shared<char>(0);
}

bt_ctrl::connection::connection(bt_ctrl& owner, unsigned short handle,
                                sync_waiter_ptr const& waiter)
    : connection(owner, handle, state::closed, direction::unknown, phy::unknown,
                 get_default_mtu()) {
    using member =
        void (connection::*)(std::shared_ptr<quorl::resp_ctx> const&, sync_waiter_ptr const&);
    std::pair<char const*, member> const requests[] = {
        {"connStatusGet", &connection::status_get_resp_handler},
        {"connMtuGet", &connection::mtu_get_resp_handler},
        {"connDirectionGet", &connection::direction_get_resp_handler},
    };
    json const body{{"connHandle", handle}};
    for (auto const& [name, handler] : requests) {
        ctrl.send_request(
            name, body,
            [tied = misc::tie_member(handler, this, tracker),
             waiter](std::shared_ptr<quorl::resp_ctx> const& resp) { tied(resp, waiter); });
    }
}

bt_ctrl::connection::~connection() {
    if (ctrl_tracker.expired() || ctrl.conn_registry.erase(this) == 0) {
        // The client is gone, or this object was the client's own.
        return;
    }
    if (conn_id) {
        ctrl.conn_by_handle.erase(*conn_id);
    }
    if (*state_cell == state::closed) {
        return;
    }
    if (*state_cell != state::closing) {
        // Without a handle, the "connOpen" reply finds `closing` in the cell
        // and closes from a stand-in.
        close([](std::error_code const&) {});
    }
    if (conn_id) {
        // The stand-in hears the controller's "connClosed".
        ctrl.conn_owned[*conn_id] =
            std::make_shared<connection>(ctrl, conn_id, *state_cell, conn_direction, conn_phy, mtu);
    }
}

tavrin::bt_ctrl::connection::state bt_ctrl::connection::get_state() const {
    return *state_cell;
}

unsigned short bt_ctrl::connection::get_mtu() const {
    return mtu;
}

tavrin::bt_ctrl::connection::direction bt_ctrl::connection::get_direction() const {
    return conn_direction;
}

tavrin::bt_ctrl::connection::close_reason bt_ctrl::connection::get_close_reason() const {
    return conn_close_reason;
}

utils::link bt_ctrl::connection::notify_on_state_change(
    std::function<void(state)> const& handler) const {
    return state_signal.connect(
        wrap(handler, "Failed notification handler on Connection state change"));
}

utils::link bt_ctrl::connection::notify_on_mtu_change(
    std::function<void(unsigned short)> const& handler) const {
    return mtu_signal.connect(
        wrap(handler, "Failed notification handler on Connection MTU change"));
}

utils::link bt_ctrl::connection::notify_on_phy_change(
    std::function<void(phy)> const& handler) const {
    return phy_signal.connect(
        wrap(handler, "Failed notification handler on Connection PHY change"));
}

utils::link bt_ctrl::connection::notify_on_params_change(
    std::function<void(unsigned short, unsigned short, unsigned short, unsigned short)> const&
        handler) const {
    return params_signal.connect(
        wrap(handler, "Failed notification handler on Connection params change"));
}

std::error_code bt_ctrl::connection::check() const {
    if (ctrl_tracker.expired()) {
        return error::bt_ctrl::no_instance;
    }
    if (ctrl.get_state() != tavrin::bt_ctrl::state::enabled) {
        return error::bt_ctrl::inappropriate_state;
    }
    if (!ctrl.get_capabilities().conn) {
        return error::bt_ctrl::unsupported_functionality;
    }
    return {};
}

std::error_code bt_ctrl::connection::check_state() const {
    if (auto const ec = check()) {
        return ec;
    }
    if (*state_cell != state::opened) {
        return error::connection::inappropriate_state;
    }
    if (!conn_id) {
        return error::connection::internal_failure;
    }
    return {};
}

void bt_ctrl::connection::post(std::function<void()> const& call) const {
    event_loop->post(call);
}

utils::link bt_ctrl::connection::connect(
    tavrin::bt_ctrl::address const& peer, phy wanted_phy, reservation_ptr const& conn_reservation,
    std::function<void(std::chrono::seconds const&, std::error_code const&)> const& handler) {
    auto [linked, link] = misc::link_handler(
        wrap(handler, "Failed response handler on Connection establishment"), false);
    auto ec = check();
    if (!ec && *state_cell != state::closed) {
        ec = error::connection::inappropriate_state;
    }
    if (!ec && conn_reservation &&
        conn_reservation->resource_type != tavrin::bt_ctrl::reservation::type::connection) {
        ec = error::bt_ctrl::unknown_resource_reservation;
    }
    if (!ec) {
        auto const& caps = ctrl.get_capabilities();
        if (wanted_phy != phy::unknown && caps.connPhys.count(wanted_phy) == 0) {
            ec = error::bt_ctrl::unsupported_phy;
        } else if (!peer.is_valid() || caps.addrTypes.count(peer.type) == 0) {
            ec = error::bt_ctrl::unsupported_address;
        }
    }
    if (ec) {
        post([linked = linked, ec] { linked(std::chrono::seconds(0), ec); });
        return link;
    }

    json body{{"addr", wire_values::to_json(peer)}};
    if (auto const id = ctrl.get_reserv_id(conn_reservation)) {
        body["resvId"] = *id;
    }
    if (wanted_phy != phy::unknown) {
        body["connPhy"] = tavrin::bt_ctrl::to_string(wanted_phy);
    }
    // A close asked while this attempt waits for its handle listens on a
    // signal of this attempt's own, so that it is told at most once.
    close_done = std::make_shared<close_signal>();
    ctrl.send_request(
        "connOpen", body,
        [conn = this, conn_tracker = get_tracker(), &owner = ctrl, owner_tracker = ctrl_tracker,
         wanted_phy, conn_mtu = mtu, cell = state_cell, done = close_done,
         linked = linked](std::shared_ptr<quorl::resp_ctx> const& resp) {
            auto const ec = bt_ctrl::to_error_code(resp);
            unsigned short handle = 0;
            auto status = state::closed;
            std::chrono::seconds guaranteed(0);
            if (!ec) {
                auto const reply = stravik_part_payload::from_bytes<json>(resp->payload);
                handle = to_number<unsigned short>(reply.at("connHandle"));
                status = to_state(reply.at("status").get<std::string>());
                guaranteed =
                    std::chrono::seconds(to_number<std::int64_t>(reply.at("guaranteedTime")));
            }
            on_connect_resp(conn, conn_tracker, owner, owner_tracker, wanted_phy, conn_mtu, cell,
                            direction::outgoing, done, ec, handle, status);
            linked(guaranteed, ec);
        });
    conn_direction = direction::outgoing;
    on_state_change(state::pending);
    return link;
}

void bt_ctrl::connection::on_connect_resp(connection* conn, std::weak_ptr<void> const& conn_tracker,
                                          bt_ctrl& owner, std::weak_ptr<void> const& owner_tracker,
                                          phy conn_phy, unsigned short conn_mtu,
                                          std::shared_ptr<state> const& cell,
                                          direction conn_direction,
                                          std::shared_ptr<close_signal> const& done,
                                          std::error_code const& ec, unsigned short handle,
                                          state status) {
    if (ec) {
        if (!conn_tracker.expired()) {
            conn->on_state_change(state::closed);
        }
        // Nothing is left to close.
        (*done)({});
        return;
    }
    std::shared_ptr<connection> stand_in;
    connection* target = conn;
    if (!conn_tracker.expired()) {
        conn->conn_id = handle;
        // A close under way keeps `closing`: the gate refuses the status.
        conn->on_state_change(status);
        if (conn_tracker.expired()) {
            // Dropped by a state handler: the destructor has closed it.
            return;
        }
        if (!owner_tracker.expired()) {
            auto const known = owner.conn_registry.find(conn);
            if (known != owner.conn_registry.end()) {
                owner.conn_by_handle.emplace(handle, known->second);
            }
        }
    } else {
        if (status == state::closed || owner_tracker.expired()) {
            (*done)({});
            return;
        }
        auto const now = *cell == state::closing ? state::closing : status;
        stand_in =
            std::make_shared<connection>(owner, handle, now, conn_direction, conn_phy, conn_mtu);
        owner.conn_owned[handle] = stand_in;
        target = stand_in.get();
    }
    if (target->get_state() == state::closing) {
        // The handle is known now: the close that had to wait goes out.
        target->close([done](std::error_code const& result) { (*done)(result); });
    }
}

bt_ctrl::connection::connect_resp_handler bt_ctrl::connection::get_on_connect_resp_handler() {
    return [conn = this, conn_tracker = get_tracker(), &owner = ctrl, owner_tracker = ctrl_tracker,
            bound_phy = conn_phy, bound_mtu = mtu, cell = state_cell,
            done = close_done](unsigned short handle, state status, std::error_code const& ec) {
        on_connect_resp(conn, conn_tracker, owner, owner_tracker, bound_phy, bound_mtu, cell,
                        direction::incoming, done, ec, handle, status);
    };
}

utils::link bt_ctrl::connection::listen(
    reservation_ptr const& conn_reservation, tavrin::bt_ctrl::advertiser& adv,
    tavrin::bt_ctrl::address const& addr, phy adv_phy, std::set<unsigned char> channels,
    std::optional<signed char> const& tx_power, unsigned short interval,
    tavrin::bt_ctrl::advertiser::adv_data const& data,
    std::optional<tavrin::bt_ctrl::advertiser::adv_data> const& scan_data,
    reservation_ptr const& adv_reservation,
    std::function<void(std::chrono::seconds const&, std::chrono::seconds const&,
                       std::error_code const&)> const& handler) {
    // The advertiser makes every check, this connection's state among them,
    // and moves this connection to pending. A connectable start always
    // reports the connection's guarantee, so the optional is engaged.
    auto const adapter = [handler](std::chrono::seconds const& adv_time,
                                   std::optional<std::chrono::seconds> const& conn_time,
                                   std::error_code const& ec) {
        handler(adv_time, conn_time.value(), ec);
    };
    return adv.start(addr, adv_phy, std::move(channels), tx_power, interval, data, scan_data,
                     adv_reservation, this, conn_reservation, adapter);
}

utils::link bt_ctrl::connection::close(std::function<void(std::error_code const&)> const& handler) {
    auto [linked, link] =
        misc::link_handler(wrap(handler, "Failed response handler on Connection close"), false);
    if (*state_cell == state::closed) {
        post([linked = linked] { linked({}); });
        return link;
    }
    if (!conn_id) {
        // The controller can't be told which connection to close before it
        // has named it: the "connOpen" reply sends the close.
        on_state_change(state::closing);
        return close_done->connect(handler);
    }
    if (auto const ec = check()) {
        post([linked = linked, ec] { linked(ec); });
        return link;
    }
    ctrl.send_request("connClose", json{{"connHandle", *conn_id}},
                      [&owner = ctrl, owner_tracker = ctrl_tracker,
                       linked = linked](std::shared_ptr<quorl::resp_ctx> const& resp) {
                          auto ec = bt_ctrl::to_error_code(resp);
                          // Already going or gone.
                          if (ec == error::connection::inappropriate_state ||
                              ec == error::bt_ctrl::inappropriate_state) {
                              ec = {};
                          }
                          // A failed close leaves a mirror that can't be trusted: the
                          // whole link is rebuilt.
                          if (ec && !owner_tracker.expired()) {
                              owner.disconnect_from_ctrl();
                          }
                          linked(ec);
                      });
    on_state_change(state::closing);
    return link;
}

void bt_ctrl::connection::on_state_change(state new_state) {
    auto const current = *state_cell;
    if (new_state == current || !allowed(current, new_state)) {
        return;
    }
    if (new_state == state::closed) {
        if (conn_id) {
            if (!ctrl_tracker.expired()) {
                ctrl.conn_by_handle.erase(*conn_id);
            }
            conn_id.reset();
        }
        conn_direction = direction::unknown;
        conn_phy = phy::unknown;
        mtu = get_default_mtu();
    } else if (new_state == state::opening || new_state == state::pending) {
        conn_close_reason = close_reason::unknown;
        if (conn_direction == direction::unknown) {
            conn_direction = direction::incoming;
        }
    }
    *state_cell = new_state;
    // The dispatch runs over a copy of the slots: a slot may drop this object.
    state_signal(new_state);
}

void bt_ctrl::connection::on_mtu_change(unsigned short new_mtu, bool silent) {
    if (new_mtu == mtu) {
        return;
    }
    mtu = new_mtu;
    if (!silent) {
        mtu_signal(new_mtu);
    }
}

void bt_ctrl::connection::on_phy_change(phy new_phy) {
    if (new_phy == conn_phy) {
        return;
    }
    conn_phy = new_phy;
    phy_signal(new_phy);
}

void bt_ctrl::connection::on_params_change(unsigned short interval_min, unsigned short interval_max,
                                           unsigned short latency, unsigned short timeout) {
    std::array<std::optional<unsigned short>, 4> const reported{interval_min, interval_max, latency,
                                                                timeout};
    if (reported == conn_params) {
        return;
    }
    conn_params = reported;
    params_signal(interval_min, interval_max, latency, timeout);
}

bool bt_ctrl::connection::handle_sync_resp_error(std::error_code const& ec,
                                                 sync_waiter_ptr const& waiter) {
    if (!ec) {
        return false;
    }
    // The connection went away between the two messages: not a failure of
    // the synchronisation.
    if (ec == error::connection::inappropriate_state) {
        return true;
    }
    waiter->abort();
    if (!ctrl_tracker.expired()) {
        ctrl.disconnect_from_ctrl();
    }
    return true;
}

void bt_ctrl::connection::status_get_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp,
                                                  sync_waiter_ptr const& waiter) {
    if (handle_sync_resp_error(bt_ctrl::to_error_code(resp), waiter)) {
        return;
    }
    auto const reply = stravik_part_payload::from_bytes<json>(resp->payload);
    on_state_change(to_state(reply.at("status").get<std::string>()));
}

void bt_ctrl::connection::mtu_get_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp,
                                               sync_waiter_ptr const& waiter) {
    if (handle_sync_resp_error(bt_ctrl::to_error_code(resp), waiter)) {
        return;
    }
    auto const reply = stravik_part_payload::from_bytes<json>(resp->payload);
    on_mtu_change(to_number<unsigned short>(reply.at("connMtu")), false);
}

void bt_ctrl::connection::direction_get_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp,
                                                     sync_waiter_ptr const& waiter) {
    if (handle_sync_resp_error(bt_ctrl::to_error_code(resp), waiter)) {
        return;
    }
    auto const reply = stravik_part_payload::from_bytes<json>(resp->payload);
    conn_direction = to_direction(reply.at("connDirection").get<std::string>());
}

}  // namespace zelvo::tavrin::impl
