// Synchronisation: a report of "enabled" subscribes to the controller's events
// and asks for the mirrors in one burst; the end of the last reply makes the
// state `enabled`. clear_sync() is its counterpart and empties the mirrors.
//
// The waiter of a running sync is held only by its response handlers, so the
// last response to finish ends the sync; `sync_waiter` only watches it, so
// that clear_sync() can abort it.
#include <memory>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "client/bt_ctrl.hpp"
#include "stravik/part_payload.hpp"
#include "tavrin/misc/tie_handler.hpp"

namespace zelvo::tavrin::impl {

void bt_ctrl::start_sync() {
    // The final call: the last reply's handler makes the state `enabled`.
    auto const on_synced = misc::tie_handler(std::function<void()>([this] {
                                                 current_state = state::enabled;
                                                 state_signal(state::enabled);
                                             }),
                                             alive_token);
    auto waiter = std::make_shared<sync_waiter_type>(on_synced);
    sync_waiter = waiter;
    // Event subscriptions go into `event_links`, before the first request,
    // as each event's handler arrives with the objects it serves.
    subscribe_conn_events();
    if (!address) {
        send_request(
            "ifAddrGet", nlohmann::json::object(),
            [handler = misc::tie_member(&bt_ctrl::iface_addr_get_resp_handler, this, alive_token),
             waiter](std::shared_ptr<quorl::resp_ctx> const& resp) { handler(resp, waiter); });
    }
    if (capabilities.conn) {
        send_request(
            "connsGet", nlohmann::json::object(),
            [handler = misc::tie_member(&bt_ctrl::conns_get_resp_handler, this, alive_token),
             waiter](std::shared_ptr<quorl::resp_ctx> const& resp) { handler(resp, waiter); });
    }
    // With nothing asked, the sync ends here.
    waiter.reset();
}

void bt_ctrl::iface_addr_get_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp,
                                          std::shared_ptr<sync_waiter_type> const& waiter) {
    if (to_error_code(resp)) {
        waiter->abort();
        disconnect_from_ctrl();
        return;
    }
    auto const body = stravik_part_payload::from_bytes<nlohmann::json>(resp->payload);
    address = to_address(body.at("addr").get<nlohmann::json::object_t>());
}

void bt_ctrl::subscribe_conn_events() {
    using handler_type = void (bt_ctrl::*)(std::shared_ptr<quorl::event_ctx> const&);
    std::pair<char const*, handler_type> const plain[] = {
        {"connsChanged", &bt_ctrl::conns_changed_event_handler},
        {"connMtu", &bt_ctrl::conn_mtu_event_handler},
        {"connPhy", &bt_ctrl::conn_phy_event_handler},
        {"connParams", &bt_ctrl::conn_params_event_handler},
    };
    for (auto const& [name, handler] : plain) {
        event_links.emplace_back(
            bus->set_event_handler(name, misc::tie_member(handler, this, alive_token)));
    }
    // One handler for the family of state events, bound with the state.
    std::pair<char const*, conn_state> const states[] = {
        {"connPending", conn_state::pending}, {"connOpening", conn_state::opening},
        {"connOpened", conn_state::opened},   {"connClosing", conn_state::closing},
        {"connClosed", conn_state::closed},
    };
    for (auto const& [name, bound] : states) {
        auto const handler =
            misc::tie_member(&bt_ctrl::conn_state_changed_event_handler, this, alive_token);
        event_links.emplace_back(bus->set_event_handler(
            name, [handler, bound = bound](std::shared_ptr<quorl::event_ctx> const& event) {
                handler(event, bound);
            }));
    }
}

void bt_ctrl::clear_sync() {
    if (auto const running = sync_waiter.lock()) {
        running->abort();
    }
    sync_waiter.reset();
    event_links.clear();
    address = tavrin::bt_ctrl::address();
    free_reservation_cnt.clear();
    reservations.clear();
    advertiser_max_cnt = 0;
    adv_by_handle.clear();
    adv_owned.clear();
    connection_max_cnt = 0;
    conn_by_handle.clear();
    conn_owned.clear();
    clean_conns();
}

}  // namespace zelvo::tavrin::impl
