// An advertiser's life: construction (also of those found at
// synchronisation), the state gate, start with its checks and its reply,
// stop with and without a handle, and the destructor that never leaves a set
// running at the controller unattended.
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "advertiser/advertiser.hpp"
#include "connection/connection.hpp"
#include "stravik/part_payload.hpp"
#include "tavrin/error.hpp"
#include "tavrin/misc/link_handler.hpp"
#include "tavrin/misc/tie_handler.hpp"

namespace zelvo::tavrin::impl {

namespace {

using json = nlohmann::json;
using adv_state = tavrin::bt_ctrl::advertiser::state;
using conn_state = tavrin::bt_ctrl::connection::state;

// Whether the gate lets an advertiser move from `from` to `to` (both
// different). A value outside the five is let through untested.
bool allowed(adv_state from, adv_state to) {
    switch (to) {
        case adv_state::stopped:
            return true;
        case adv_state::started:
            return from != adv_state::stopping;
        case adv_state::stopping:
            return from != adv_state::stopped;
        case adv_state::starting:
            return from == adv_state::stopped || from == adv_state::pending;
        case adv_state::pending:
            return from == adv_state::stopped;
    }
    return true;
}

// The state a listening connection takes from the advertiser's.
conn_state connection_state_for(adv_state status) {
    switch (status) {
        case adv_state::pending:
            return conn_state::pending;
        case adv_state::starting:
            return conn_state::opening;
        case adv_state::stopping:
            return conn_state::closing;
        default:
            return conn_state::closed;
    }
}

}  // namespace

bt_ctrl::advertiser::advertiser(bt_ctrl& owner, std::optional<unsigned short> const& id,
                                state initial)
    : ctrl(owner),
      ctrl_tracker(owner.get_alive_token()),
      event_loop(owner.get_event_loop()),
      adv_id(id),
      state_cell(std::make_shared<state>(initial)),
      stop_done(std::make_shared<stop_signal>()),
      tracker(std::make_shared<char>(0)) {}

bt_ctrl::advertiser::advertiser(bt_ctrl& owner, unsigned short id, sync_waiter_ptr const& waiter)
    : advertiser(owner, id, state::stopped) {
    ctrl.send_request(
        "advStatusGet", json{{"advHandle", id}},
        [tied = misc::tie_member(&advertiser::status_get_resp_handler, this, tracker),
         waiter](std::shared_ptr<quorl::resp_ctx> const& resp) { tied(resp, waiter); });
}

bt_ctrl::advertiser::~advertiser() {
    if (!ctrl_tracker.expired() && ctrl.adv_registry.erase(this) != 0) {
        if (adv_id) {
            ctrl.adv_by_handle.erase(*adv_id);
        }
        auto const now = *state_cell;
        if (now != state::stopped) {
            if (now != state::stopping) {
                stop([](std::error_code const&) {});
            }
            if (adv_id) {
                // The stand-in hears the controller's "advStopped".
                ctrl.adv_owned[*adv_id] = std::make_shared<advertiser>(ctrl, adv_id, *state_cell);
            }
        }
    }
    // `connection_link` goes with the members, before it could call into a
    // dead object.
}

tavrin::bt_ctrl::advertiser::state bt_ctrl::advertiser::get_state() const {
    return *state_cell;
}

tavrin::bt_ctrl::advertiser::stop_reason bt_ctrl::advertiser::get_stop_reason() const {
    return adv_stop_reason;
}

utils::link bt_ctrl::advertiser::notify_on_state_change(
    std::function<void(state)> const& handler) const {
    return state_signal.connect(wrap(handler, "Failed notification handler on ADV state change"));
}

utils::link bt_ctrl::advertiser::notify_on_data_change(
    std::function<void(adv_data const&, std::optional<adv_data> const&)> const& handler) const {
    return data_signal.connect(wrap(handler, "Failed notification handler on ADV data change"));
}

void bt_ctrl::advertiser::post(std::function<void()> const& call) const {
    event_loop->post(call);
}

std::error_code bt_ctrl::advertiser::check() const {
    if (ctrl_tracker.expired()) {
        return error::bt_ctrl::no_instance;
    }
    if (ctrl.get_state() != tavrin::bt_ctrl::state::enabled) {
        return error::bt_ctrl::inappropriate_state;
    }
    if (!ctrl.get_capabilities().adv) {
        return error::bt_ctrl::unsupported_functionality;
    }
    return {};
}

std::error_code bt_ctrl::advertiser::check_state() const {
    if (auto const ec = check()) {
        return ec;
    }
    if (*state_cell != state::started) {
        return error::advertiser::inappropriate_state;
    }
    if (!adv_id) {
        return error::advertiser::internal_failure;
    }
    return {};
}

bool bt_ctrl::advertiser::on_state_change_impl(state new_state) {
    auto const current = *state_cell;
    if (new_state == current || !allowed(current, new_state)) {
        return false;
    }
    if (new_state == state::stopped) {
        connection.reset();
        connection_link.release();
        if (adv_id) {
            if (!ctrl_tracker.expired()) {
                ctrl.adv_by_handle.erase(*adv_id);
            }
            adv_id.reset();
        }
    } else if (new_state == state::starting || new_state == state::pending) {
        adv_stop_reason = stop_reason::unknown;
    }
    *state_cell = new_state;
    return true;
}

void bt_ctrl::advertiser::on_state_change(state new_state) {
    if (on_state_change_impl(new_state)) {
        // The dispatch runs over a copy of the slots: a slot may drop this
        // object.
        state_signal(new_state);
    }
}

void bt_ctrl::advertiser::on_data_change(adv_data const& data,
                                         std::optional<adv_data> const& scan_data) {
    data_signal(data, scan_data);
}

utils::link bt_ctrl::advertiser::start(
    tavrin::bt_ctrl::address const& addr, phy adv_phy, std::set<unsigned char> channels,
    std::optional<signed char> const& tx_power, unsigned short interval, adv_data const& data,
    std::optional<adv_data> const& scan_data, reservation_ptr const& adv_reservation,
    tavrin::bt_ctrl::connection* listening, reservation_ptr const& conn_reservation,
    start_handler const& handler) {
    using kind = tavrin::bt_ctrl::reservation::type;
    auto [linked, link] =
        misc::link_handler(wrap(handler, "Failed response handler on ADV start"), false);
    auto ec = check();
    if (!ec) {
        auto const& caps = ctrl.get_capabilities();
        if (*state_cell != state::stopped) {
            ec = error::advertiser::inappropriate_state;
        } else if ((adv_reservation && adv_reservation->resource_type != kind::advertiser) ||
                   (conn_reservation && conn_reservation->resource_type != kind::connection)) {
            ec = error::bt_ctrl::unexpected_resource_type;
        } else if (listening && !adv_reservation != !conn_reservation) {
            ec = error::bt_ctrl::asymmetric_resource_reservation;
        } else if (adv_phy != phy::unknown && caps.advPhys.count(adv_phy) == 0) {
            ec = error::bt_ctrl::unsupported_phy;
        } else if (!is_channel_map_valid(channels)) {
            ec = error::advertiser::bad_channel_map;
        } else if (tx_power && (*tx_power >= 11 || *tx_power == -128)) {
            ec = error::advertiser::bad_tx_power;
        } else if (interval < (caps.extAdv ? 20 : 100) || interval > 30000) {
            ec = error::advertiser::bad_interval;
        } else if ((!listening && !caps.scnAdv) || (listening && !caps.connAdv)) {
            ec = error::bt_ctrl::unsupported_functionality;
        }
    }
    std::shared_ptr<bt_ctrl::connection> conn;
    connect_resp_handler connect_handler;
    if (!ec && listening) {
        auto const known = ctrl.conn_registry.find(listening);
        conn = known != ctrl.conn_registry.end() ? known->second.lock() : nullptr;
        if (!conn) {
            ec = error::connection::bad_instance;
        } else if (conn->get_state() != conn_state::closed) {
            ec = error::connection::inappropriate_state;
        } else {
            connect_handler = conn->get_on_connect_resp_handler();
        }
    }
    if (ec) {
        post([linked = linked, ec] { linked(seconds(0), seconds(0), ec); });
        return link;
    }

    json cfg{{"interval", interval}, {"connectable", listening != nullptr}};
    if (tx_power) {
        cfg["txPower"] = *tx_power;
    }
    if (!channels.empty()) {
        cfg["channelMap"] = to_json(channels);
    }
    if (adv_phy != phy::unknown) {
        cfg["advPhy"] = tavrin::bt_ctrl::to_string(adv_phy);
    }
    if (addr) {
        cfg["addr"] = wire_values::to_json(addr);
    }
    json body{{"cfg", cfg}};
    if (auto const id = ctrl.get_reserv_id(adv_reservation)) {
        body["advResvId"] = *id;
    }
    if (auto const id = ctrl.get_reserv_id(conn_reservation)) {
        body["connResvId"] = *id;
    }
    body["data"] = to_json(data, scan_data);
    ctrl.send_request(
        "advStart", body,
        [adv = this, adv_tracker = get_tracker(), &owner = ctrl, owner_tracker = ctrl_tracker,
         cell = state_cell, done = stop_done, linked = linked,
         connect_handler](std::shared_ptr<quorl::resp_ctx> const& resp) {
            start_resp_handler(resp, adv, adv_tracker, owner, owner_tracker, cell, done, linked,
                               connect_handler);
        });
    auto const changed = on_state_change_impl(state::pending);
    if (conn) {
        connection = conn;
        connection_link = conn->notify_on_state_change([this](conn_state now) {
            if (now == conn_state::closing) {
                on_state_change(state::stopping);
            }
        });
        // The connection's subscribers hear first, so that the advertiser's
        // see a connection that is already pending.
        conn->on_state_change(conn_state::pending);
    }
    if (changed && *state_cell == state::pending) {
        state_signal(state::pending);
    }
    return link;
}

void bt_ctrl::advertiser::start_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp,
                                             advertiser* adv,
                                             std::weak_ptr<void> const& adv_tracker, bt_ctrl& owner,
                                             std::weak_ptr<void> const& owner_tracker,
                                             std::shared_ptr<state> const& cell,
                                             std::shared_ptr<stop_signal> const& done,
                                             start_handler const& handler,
                                             connect_resp_handler const& connect_handler) {
    if (auto const ec = bt_ctrl::to_error_code(resp)) {
        if (!adv_tracker.expired()) {
            adv->on_state_change(state::stopped);
        }
        // The start failed: what a waiting stop wanted has come about.
        fire_stop_done(done, {});
        handler(seconds(0), seconds(0), ec);
        if (connect_handler) {
            connect_handler(0, conn_state::closed, ec);
        }
        return;
    }
    auto const reply = stravik_part_payload::from_bytes<json>(resp->payload);
    auto const adv_time =
        seconds(wire_values::to_number<std::int64_t>(reply.at("advGuaranteedTime")));
    auto const handle = wire_values::to_number<unsigned short>(reply.at("advHandle"));
    auto status = to_state(reply.at("status").get<std::string>());
    unsigned short conn_handle = 0;
    std::optional<seconds> conn_time;
    if (connect_handler) {
        conn_handle = wire_values::to_number<unsigned short>(reply.at("connHandle"));
        conn_time = seconds(wire_values::to_number<std::int64_t>(reply.at("connGuaranteedTime")));
    }

    std::shared_ptr<advertiser> stand_in;
    advertiser* target = adv;
    if (adv_tracker.expired()) {
        // Dropped by the application while the start was on its way.
        if (status == state::stopped || owner_tracker.expired()) {
            fire_stop_done(done, {});
            target = nullptr;
        } else {
            status = *cell == state::stopping ? state::stopping : status;
            stand_in = std::make_shared<advertiser>(owner, handle, status);
            owner.adv_owned[handle] = stand_in;
            target = stand_in.get();
        }
    } else {
        adv->adv_id = handle;
        adv->on_state_change(status);
        if (!adv_tracker.expired() && !owner_tracker.expired()) {
            auto const known = owner.adv_registry.find(adv);
            if (known != owner.adv_registry.end()) {
                owner.adv_by_handle[handle] = known->second;
            }
        }
        if (adv_tracker.expired()) {
            // Dropped by a state handler: its destructor has taken over.
            target = nullptr;
        }
    }
    if (target && target->get_state() == state::stopping) {
        // The handle is known now: the stop that had to wait goes out.
        target->stop([done](std::error_code const& result) { fire_stop_done(done, result); });
    }
    handler(adv_time, conn_time, {});
    if (connect_handler) {
        connect_handler(conn_handle, connection_state_for(status), {});
    }
}

void bt_ctrl::advertiser::fire_stop_done(std::shared_ptr<stop_signal> const& done,
                                         std::error_code const& ec) {
    // A deep copy fires; emptying the shared signal first means that a stop
    // asked during the dispatch waits for the next answer, and that no link
    // handed out earlier refers to a list element that has moved.
    stop_signal const waiting(*done);
    *done = stop_signal();
    const_cast<stop_signal&>(waiting)(ec);
}

utils::link bt_ctrl::advertiser::stop(std::function<void(std::error_code const&)> const& handler) {
    auto [linked, link] =
        misc::link_handler(wrap(handler, "Failed response handler on ADV stop"), false);
    if (*state_cell == state::stopped) {
        post([linked = linked] { linked({}); });
        return link;
    }
    if (!adv_id) {
        // The start's reply brings the handle, and sends the stop then.
        on_state_change(state::stopping);
        auto waiting = stop_done->connect(handler);
        if (auto const conn = connection.lock()) {
            conn->on_state_change(conn_state::closing);
        }
        return waiting;
    }
    if (auto const ec = check()) {
        post([linked = linked, ec] { linked(ec); });
        return link;
    }
    if (auto const conn = connection.lock()) {
        // The advertiser follows its connection into stopping.
        return conn->close(handler);
    }
    ctrl.send_request("advStop", json{{"advHandle", *adv_id}},
                      [&owner = ctrl, owner_tracker = ctrl_tracker,
                       linked = linked](std::shared_ptr<quorl::resp_ctx> const& resp) {
                          auto const ec = bt_ctrl::to_error_code(resp);
                          // Already stopped by itself: harmless, yet reported as it is.
                          auto const harmless = ec == error::advertiser::inappropriate_state ||
                                                ec == error::bt_ctrl::inappropriate_state;
                          if (ec && !harmless && !owner_tracker.expired()) {
                              owner.disconnect_from_ctrl();
                          }
                          // A fault of the exchange itself is not the controller's
                          // answer, and is left out.
                          linked(bt_ctrl::to_error_code(resp->second_error));
                      });
    on_state_change(state::stopping);
    return link;
}

bool bt_ctrl::advertiser::handle_sync_resp_error(std::error_code const& ec,
                                                 sync_waiter_ptr const& waiter) {
    if (!ec) {
        return false;
    }
    // The set stopped between the two messages: not a failure of the
    // synchronisation.
    if (ec == error::advertiser::inappropriate_state) {
        return true;
    }
    waiter->abort();
    if (!ctrl_tracker.expired()) {
        ctrl.disconnect_from_ctrl();
    }
    return true;
}

void bt_ctrl::advertiser::status_get_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp,
                                                  sync_waiter_ptr const& waiter) {
    if (handle_sync_resp_error(bt_ctrl::to_error_code(resp), waiter)) {
        return;
    }
    auto const reply = stravik_part_payload::from_bytes<json>(resp->payload);
    on_state_change(to_state(reply.at("status").get<std::string>()));
}

}  // namespace zelvo::tavrin::impl
