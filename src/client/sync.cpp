// Synchronisation: a report of "enabled" subscribes to the controller's events
// and asks for the mirrors in one burst; the end of the last reply makes the
// state `enabled`. clear_sync() is its counterpart and empties the mirrors.
//
// The waiter of a running sync is held only by its response handlers, so the
// last response to finish ends the sync; `sync_waiter` only watches it, so
// that clear_sync() can abort it. Every subscription is made before the first
// request goes out, so no event that the controller sends after its reply is
// missed; events that come while the mirrors are still being filled work on
// what is there.
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "client/bt_ctrl.hpp"
#include "gatt/server.hpp"
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

    // "ifStatusChanged" is not among them: it lives from the handshake on.
    // The state events of each family share one handler, told the state.
    auto const conn_state_event = [](conn_state bound) {
        return [bound](bt_ctrl& self, event const& ev) {
            self.conn_state_changed_event_handler(ev, bound);
        };
    };
    auto const adv_state_event = [](adv_state bound) {
        return [bound](bt_ctrl& self, event const& ev) {
            self.adv_state_changed_event_handler(ev, bound);
        };
    };
    std::pair<char const*, std::function<void(bt_ctrl&, event const&)>> const events[] = {
        {"freeResvsChanged", &bt_ctrl::free_reserv_changed_event_handler},
        {"advsChanged", &bt_ctrl::advs_changed_event_handler},
        {"advDataChanged", &bt_ctrl::adv_data_changed_event_handler},
        {"advPending", adv_state_event(adv_state::pending)},
        {"advStarting", adv_state_event(adv_state::starting)},
        {"advStarted", adv_state_event(adv_state::started)},
        {"advStopping", adv_state_event(adv_state::stopping)},
        {"advStopped", adv_state_event(adv_state::stopped)},
        {"connsChanged", &bt_ctrl::conns_changed_event_handler},
        {"connMtu", &bt_ctrl::conn_mtu_event_handler},
        {"connPhy", &bt_ctrl::conn_phy_event_handler},
        {"connParams", &bt_ctrl::conn_params_event_handler},
        {"connPending", conn_state_event(conn_state::pending)},
        {"connOpening", conn_state_event(conn_state::opening)},
        {"connOpened", conn_state_event(conn_state::opened)},
        {"connClosing", conn_state_event(conn_state::closing)},
        {"connClosed", conn_state_event(conn_state::closed)},
        {"gattsDbUpdated", &bt_ctrl::gatts_db_updated_event_handler},
        {"gattsCharValueRead", &bt_ctrl::gatts_char_value_read_event_handler},
        {"gattsCharValueWrite", &bt_ctrl::gatts_char_value_write_event_handler},
        {"gattsDescValueRead", &bt_ctrl::gatts_desc_value_read_event_handler},
        {"gattsDescValueWrite", &bt_ctrl::gatts_desc_value_write_event_handler},
    };
    for (auto const& [name, handler] : events) {
        subscribe(name, handler);
    }

    // One burst, in this order; a sync request can't be called off, so the
    // bus's links are dropped.
    if (!address) {
        send_sync_request("ifAddrGet", &bt_ctrl::iface_addr_get_resp_handler, waiter);
    }
    if (client_id) {
        send_sync_request("freeResvsGet", &bt_ctrl::free_reservs_get_resp_handler, waiter);
        send_sync_request("resvsGet", &bt_ctrl::reservs_get_resp_handler, waiter);
    }
    if (capabilities.adv) {
        send_sync_request("advsGet", &bt_ctrl::advs_get_resp_handler, waiter);
    }
    if (capabilities.conn) {
        send_sync_request("connsGet", &bt_ctrl::conns_get_resp_handler, waiter);
    }
    // With nothing asked, the sync ends here.
    waiter.reset();
}

void bt_ctrl::subscribe(std::string const& name,
                        std::function<void(bt_ctrl&, event const&)> const& handler) {
    auto const bound = misc::tie_handler(
        std::function<void(event const&)>([this, handler](event const& ev) { handler(*this, ev); }),
        alive_token);
    event_links.emplace_back(bus->set_event_handler(name, bound));
}

void bt_ctrl::send_sync_request(std::string const& name, sync_handler handler,
                                std::shared_ptr<sync_waiter_type> const& waiter) {
    send_request(name, nlohmann::json::object(),
                 [handler = misc::tie_member(handler, this, alive_token),
                  waiter](response const& resp) { handler(resp, waiter); });
}

bool bt_ctrl::sync_step_failed(response const& resp, sync_waiter_type& waiter) {
    if (!to_error_code(resp)) {
        return false;
    }
    waiter.abort();
    disconnect_from_ctrl();
    return true;
}

void bt_ctrl::iface_addr_get_resp_handler(response const& resp,
                                          std::shared_ptr<sync_waiter_type> const& waiter) {
    if (sync_step_failed(resp, *waiter)) {
        return;
    }
    auto const body = stravik_part_payload::from_bytes<nlohmann::json>(resp->payload);
    address = to_address(body.at("addr").get<nlohmann::json::object_t>());
}

// An update of the controller's database changes nothing here: the
// application hears of it and decides when to sync.
void bt_ctrl::gatts_db_updated_event_handler(event const& ev) {
    if (current_state != state::enabled) {
        return;
    }
    auto const body = stravik_part_payload::from_bytes<nlohmann::json>(ev->payload);
    gatts_object->on_updated(body.at("handles").get<std::set<unsigned int>>());
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
    clean_advs();
    connection_max_cnt = 0;
    conn_by_handle.clear();
    conn_owned.clear();
    clean_conns();
}

}  // namespace zelvo::tavrin::impl
