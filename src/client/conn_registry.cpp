// The client's registry of connections: the objects the application made
// (known weakly, so the registry never extends a life), those of them whose
// handle is known, and those that live only because the client holds them
// (found at synchronisation, reported by the controller, or left behind by an
// application object dropped while open). Controller events reach either kind
// by handle; the queue of waiting connections is mirrored, and the forced end
// of every connection when the controller goes away happens here.
#include <memory>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "client/bt_ctrl.hpp"
#include "connection/connection.hpp"
#include "stravik/part_payload.hpp"
#include "tavrin/error.hpp"
#include "tavrin/misc/link_handler.hpp"

namespace zelvo::tavrin::impl {

namespace {

using json = nlohmann::json;
using public_connection = tavrin::bt_ctrl::connection;

json body_of(std::vector<unsigned char> const& payload) {
    return stravik_part_payload::from_bytes<json>(payload);
}

}  // namespace

std::shared_ptr<tavrin::bt_ctrl::connection> bt_ctrl::create_connection() {
    clean_conns();
    auto made = std::make_shared<connection>(*this, std::nullopt, conn_state::closed,
                                             public_connection::direction::unknown, phy::unknown,
                                             connection::get_default_mtu());
    conn_registry.emplace(made.get(), made);
    return made;
}

void bt_ctrl::clean_conns() {
    for (auto it = conn_registry.begin(); it != conn_registry.end();) {
        it = it->second.expired() ? conn_registry.erase(it) : std::next(it);
    }
    for (auto it = conn_by_handle.begin(); it != conn_by_handle.end();) {
        it = it->second.expired() ? conn_by_handle.erase(it) : std::next(it);
    }
}

std::shared_ptr<bt_ctrl::connection> bt_ctrl::find_conn(unsigned short handle) const {
    if (auto const owned = conn_owned.find(handle); owned != conn_owned.end()) {
        return owned->second;
    }
    if (auto const known = conn_by_handle.find(handle); known != conn_by_handle.end()) {
        return known->second.lock();
    }
    return nullptr;
}

// Ordered by object, not by position. An application object that has just
// died shows as a null key: the entry is kept, and readers must expect it.
// Keys are converted to the public type first, so that the map's code is
// made for public types only and stays out of the library's exports.
tavrin::bt_ctrl::connection_queue bt_ctrl::get_connection_queue_impl() const {
    connection_queue queue;
    if (current_state != state::enabled || !capabilities.conn) {
        return queue;
    }
    for (auto const& [handle, position] : conn_queue) {
        if (auto const owned = conn_owned.find(handle); owned != conn_owned.end()) {
            queue.emplace(connection_queue::key_type(owned->second), position);
        }
    }
    for (auto const& [handle, position] : conn_queue) {
        if (auto const known = conn_by_handle.find(handle); known != conn_by_handle.end()) {
            queue.emplace(connection_queue::key_type(known->second.lock()), position);
        }
    }
    return queue;
}

utils::link bt_ctrl::get_connection_queue(
    std::function<void(connection_queue const&, std::error_code const&)> const& handler) const {
    auto [linked, link] = misc::link_handler(
        make_exception_wrapper(handler, "Failed response handler on getting connection queue"),
        false);
    std::error_code refusal;
    if (current_state != state::enabled) {
        refusal = error::bt_ctrl::inappropriate_state;
    } else if (!capabilities.conn) {
        refusal = error::bt_ctrl::unsupported_functionality;
    }
    if (refusal) {
        event_loop->post([linked = linked, refusal] { linked({}, refusal); });
        return link;
    }
    // Reading the queue is const for the application; the request only uses
    // the bus, and the reply refreshes the mirror, both the client's own.
    auto* const self = const_cast<bt_ctrl*>(this);
    self->send_request("connsGet", json::object(),
                       [self, alive = get_alive_token(), linked = linked](response const& resp) {
                           if (auto const ec = to_error_code(resp)) {
                               linked({}, ec);
                               return;
                           }
                           auto const body = body_of(resp->payload);
                           auto const max_cnt = to_number<unsigned>(body.at("maxConnections"));
                           auto queue = to_conn_queue(body.at("connections").get<json::object_t>());
                           if (alive.expired()) {
                               return;
                           }
                           // The caller has the news: no queue notification.
                           self->connection_max_cnt = max_cnt;
                           self->conn_queue = std::move(queue);
                           linked(self->get_connection_queue_impl(), {});
                       });
    return link;
}

utils::link bt_ctrl::notify_on_connection_queue_changed(
    std::function<void(connection_queue const&)> const& handler) const {
    return conn_queue_signal.connect(
        make_exception_wrapper(handler, "Failed notification handler on connection queue change"));
}

utils::link bt_ctrl::notify_on_new_connection(
    std::function<void(std::shared_ptr<tavrin::bt_ctrl::connection const> const&)> const& handler)
    const {
    return new_conn_signal.connect(
        make_exception_wrapper(handler, "Failed notification handler on new connection"));
}

void bt_ctrl::conns_get_resp_handler(response const& resp,
                                     std::shared_ptr<sync_waiter_type> const& waiter) {
    if (to_error_code(resp)) {
        waiter->abort();
        disconnect_from_ctrl();
        return;
    }
    auto const body = body_of(resp->payload);
    connection_max_cnt = to_number<unsigned>(body.at("maxConnections"));
    conn_queue = to_conn_queue(body.at("connections").get<json::object_t>());
    // Each fetches its own state, MTU and direction; the sync waits for them.
    // Nothing is announced: the application finds them in the queue.
    for (auto const& entry : conn_queue) {
        conn_owned[entry.first] = std::make_shared<connection>(*this, entry.first, waiter);
    }
}

void bt_ctrl::conns_changed_event_handler(event const& ev) {
    auto const body = body_of(ev->payload);
    connection_max_cnt = to_number<unsigned>(body.at("maxConnections"));
    auto queue = to_conn_queue(body.at("connections").get<json::object_t>());
    if (queue == conn_queue) {
        return;
    }
    conn_queue = std::move(queue);
    if (current_state == state::enabled) {
        conn_queue_signal(get_connection_queue_impl());
    }
}

void bt_ctrl::conn_state_changed_event_handler(event const& ev, conn_state new_state) {
    auto const body = body_of(ev->payload);
    auto const handle = to_number<unsigned short>(body.at("connHandle"));
    auto mtu = connection::get_default_mtu();
    auto reported_phy = phy::unknown;
    auto reason = public_connection::close_reason::unknown;
    if (new_state == conn_state::opened) {
        reported_phy = to_phy(body.at("connPhy").get<std::string>());
        mtu = to_number<unsigned short>(body.at("connMtu"));
    } else if (new_state == conn_state::closed) {
        reason = public_connection::to_close_reason(body.at("reason").get<std::string>());
    }
    if (auto const found = find_conn(handle)) {
        if (new_state == conn_state::opened) {
            found->on_mtu_change(mtu, false);
        } else if (new_state == conn_state::closed) {
            found->set_close_reason(reason);
            // `found` keeps the object alive through its last notification.
            conn_owned.erase(handle);
        }
        // A known object learns its phy from "connPhy" events only.
        found->on_state_change(new_state);
        return;
    }
    if (new_state == conn_state::closed) {
        return;
    }
    // A connection nobody here knows: one a peer opened, or another client's.
    auto const direction =
        public_connection::to_direction(body.at("connDirection").get<std::string>());
    auto const made =
        std::make_shared<connection>(*this, handle, new_state, direction, reported_phy, mtu);
    conn_owned[handle] = made;
    if (current_state == state::enabled) {
        new_conn_signal(made);
    }
}

void bt_ctrl::conn_mtu_event_handler(event const& ev) {
    auto const body = body_of(ev->payload);
    if (auto const found = find_conn(to_number<unsigned short>(body.at("connHandle")))) {
        found->on_mtu_change(to_number<unsigned short>(body.at("connMtu")), false);
    }
}

void bt_ctrl::conn_phy_event_handler(event const& ev) {
    auto const body = body_of(ev->payload);
    if (auto const found = find_conn(to_number<unsigned short>(body.at("connHandle")))) {
        found->on_phy_change(to_phy(body.at("connPhy").get<std::string>()));
    }
}

void bt_ctrl::conn_params_event_handler(event const& ev) {
    auto const body = body_of(ev->payload);
    if (auto const found = find_conn(to_number<unsigned short>(body.at("connHandle")))) {
        auto const [interval_min, interval_max, latency, timeout] =
            to_conn_params(body.at("connParams").get<json::object_t>());
        found->on_params_change(interval_min, interval_max, latency, timeout);
    }
}

// The library's own objects are moved out first, so that none is reachable
// by handle while the application hears of the end; the walk over the
// application's objects goes over a copy, as a state handler may drop one.
void bt_ctrl::on_conns_force_stopped(public_connection::close_reason reason) {
    auto const owned = std::move(conn_owned);
    conn_owned.clear();
    for (auto const& entry : owned) {
        entry.second->set_close_reason(reason);
        entry.second->on_state_change(conn_state::closed);
    }
    auto const registry = conn_registry;
    for (auto const& entry : registry) {
        if (auto const live = entry.second.lock()) {
            live->set_close_reason(reason);
            live->on_state_change(conn_state::closed);
        }
    }
}

}  // namespace zelvo::tavrin::impl
