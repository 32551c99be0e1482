// The model's connections: slots taken and given back, the queue and its
// rotation, and the radio's link events turned into connection events. A
// listening connection holds its slot without a link until a central
// connects through its advertiser.
#include <algorithm>

#include "model.hpp"
#include "wire.hpp"

namespace zelvo::tavrin::sim {

namespace {

using nlohmann::json;
using conn_state = bt_ctrl::connection::state;
using close_reason = bt_ctrl::connection::close_reason;

json handle_body(unsigned short handle, bool incoming) {
    using direction = bt_ctrl::connection::direction;
    return {{"connHandle", handle},
            {"connDirection",
             bt_ctrl::connection::to_string(incoming ? direction::incoming : direction::outgoing)}};
}

bt_ctrl::advertiser::stop_reason stop_reason_for(close_reason reason) {
    using stop_reason = bt_ctrl::advertiser::stop_reason;
    switch (reason) {
        case close_reason::resource_rotation:
            return stop_reason::resource_rotation;
        case close_reason::interface_unavailable:
            return stop_reason::interface_unavailable;
        default:
            return stop_reason::user_requested;
    }
}

json params_json(connection_params const& params) {
    return {{"intervalMin", params.interval_min},
            {"intervalMax", params.interval_max},
            {"latency", params.latency},
            {"timeout", params.timeout}};
}

}  // namespace

model::connection const* model::find_connection_to(std::string const& interface,
                                                   bt_ctrl::address const& peer) const {
    if (auto const* state = find_state(interface)) {
        for (auto const& [handle, entry] : state->connections) {
            if (entry.peer == peer) {
                return &entry;
            }
        }
    }
    return nullptr;
}

bool model::can_take_or_wait(std::string const& interface) const {
    if (free(interface).connections > 0) {
        return true;
    }
    // Waiting makes sense only where an unreserved slot exists at all.
    auto const* state = find_state(interface);
    unsigned reserved = 0;
    std::size_t waiting = 0;
    if (state) {
        for (auto const& [id, entry] : state->reservations) {
            reserved += entry.type == slot_type::connection ? 1 : 0;
        }
        waiting = state->queue.size();
    }
    return slots_of(interface).connections > reserved && waiting < max_queue;
}

std::chrono::seconds model::guaranteed_time(std::string const& interface,
                                            std::optional<unsigned short> reservation) const {
    return reservation ? std::chrono::seconds(0) : slots_of(interface).guaranteed_time;
}

unsigned short model::new_connection(interface_state& state) {
    // Handles are reused only after the 16-bit count wraps, and never while
    // one is live.
    while (state.next_connection == 0 || state.connections.count(state.next_connection) != 0) {
        ++state.next_connection;
    }
    return state.next_connection++;
}

unsigned short model::open(std::string const& interface, bt_ctrl::address const& peer,
                           bt_ctrl::phy phy, std::optional<unsigned short> reservation) {
    auto const before = free(interface);
    auto& state = state_of(interface);
    auto const handle = new_connection(state);
    auto& entry = state.connections[handle];
    entry.handle = handle;
    entry.peer = peer;
    entry.requested_phy = phy;
    entry.reservation = reservation;
    state_event(interface, entry);
    if (reservation || before.connections > 0) {
        take_slot(interface, entry);
    } else {
        state.queue.push_back(handle);
    }
    serve_queue(interface, before, true);
    return handle;
}

void model::take_slot(std::string const& interface, connection& entry) {
    entry.holds_slot = true;
    entry.slot_order = next_slot_order++;
    if (!entry.reservation) {
        start_guarantee(interface, entry);
    }
    if (!entry.incoming) {
        entry.linked = true;
        radio.open_link(interface, entry.handle, entry.peer, entry.requested_phy);
    }
}

void model::start_guarantee(std::string const& interface, connection& entry) {
    entry.expired = false;
    auto const time = slots_of(interface).guaranteed_time;
    if (time.count() == 0) {
        entry.expired = true;
        return;
    }
    if (!entry.guarantee) {
        entry.guarantee = loop->create_timer();
    }
    entry.guarantee->set_handler(
        [this, weak = std::weak_ptr<int>(alive), interface, handle = entry.handle] {
            if (weak.expired()) {
                return;
            }
            deferral const batch(*this);
            auto& state = state_of(interface);
            auto const found = state.connections.find(handle);
            if (found != state.connections.end() && !found->second.reservation) {
                found->second.expired = true;
                serve_queue(interface, free(interface), false);
            }
        });
    entry.guarantee->start(time);
}

void model::serve_queue(std::string const& interface, free_counts before, bool changed) {
    auto& state = state_of(interface);
    while (!state.queue.empty() && free(interface).connections > 0) {
        auto const handle = state.queue.front();
        state.queue.pop_front();
        take_slot(interface, state.connections.at(handle));
        changed = true;
    }
    if (changed) {
        emit(interface, "connsChanged", connections_json(interface));
    }
    free_counts_changed(interface, before);
    // One unreserved slot to come free for each waiting connection: those
    // already closing count, and the rest are rotated out, oldest slot
    // first, among the unreserved ones past their guaranteed time.
    std::size_t rotating = 0;
    std::vector<connection*> expired;
    for (auto& [handle, entry] : state.connections) {
        if (entry.now == conn_state::closing && entry.holds_slot && !entry.reservation) {
            ++rotating;
        } else if (entry.holds_slot && entry.expired && !entry.reservation &&
                   entry.now != conn_state::closing) {
            expired.push_back(&entry);
        }
    }
    std::sort(expired.begin(), expired.end(),
              [](auto const* a, auto const* b) { return a->slot_order < b->slot_order; });
    std::vector<unsigned short> rotated;
    for (auto const* entry : expired) {
        if (rotating + rotated.size() >= state.queue.size()) {
            break;
        }
        rotated.push_back(entry->handle);
    }
    for (auto const handle : rotated) {
        close(interface, handle, close_reason::resource_rotation);
    }
}

void model::close(std::string const& interface, unsigned short handle, close_reason reason) {
    auto& state = state_of(interface);
    auto const found = state.connections.find(handle);
    if (found == state.connections.end() || found->second.now == conn_state::closing) {
        return;
    }
    auto& entry = found->second;
    entry.now = conn_state::closing;
    entry.closing_for = reason;
    state_event(interface, entry);
    if (entry.linked) {
        radio.close_link(interface, handle);
        return;
    }
    // A listening connection ends with its advertiser, once that is off air.
    auto const* through = entry.listening ? find_advertiser(interface, *entry.listening) : nullptr;
    if (through && through->now != advertiser::state::stopped) {
        stop(interface, through->handle, stop_reason_for(reason));
    } else {
        closed(interface, handle, reason);
    }
}

void model::closed(std::string const& interface, unsigned short handle, close_reason reason,
                   std::optional<free_counts> since) {
    auto const before = since ? *since : free(interface);
    auto& state = state_of(interface);
    auto const found = state.connections.find(handle);
    if (found == state.connections.end()) {
        return;
    }
    if (found->second.guarantee) {
        found->second.guarantee->stop();
    }
    state.connections.erase(found);
    peer_operations.ended(interface, handle);
    state.queue.erase(std::remove(state.queue.begin(), state.queue.end(), handle),
                      state.queue.end());
    // A stopped advertiser is kept only for the connection it gave.
    for (auto entry = state.advertisers.begin(); entry != state.advertisers.end(); ++entry) {
        if (entry->second.now == advertiser::state::stopped && entry->second.connection == handle) {
            state.advertisers.erase(entry);
            break;
        }
    }
    emit(interface, "connClosed",
         {{"connHandle", handle}, {"reason", bt_ctrl::connection::to_string(reason)}});
    serve_queue(interface, before, true);
}

bool model::set_reservation(std::string const& interface, unsigned short handle,
                            std::optional<unsigned short> reservation) {
    auto const before = free(interface);
    auto& entry = state_of(interface).connections.at(handle);
    if (entry.reservation == reservation) {
        return true;
    }
    if (reservation) {
        entry.reservation = reservation;
        entry.expired = false;
        if (entry.guarantee) {
            entry.guarantee->stop();
        }
        if (!entry.holds_slot) {
            auto& queue = state_of(interface).queue;
            queue.erase(std::remove(queue.begin(), queue.end(), handle), queue.end());
            take_slot(interface, entry);
        }
        serve_queue(interface, before, true);
        return true;
    }
    if (before.connections == 0) {
        return false;
    }
    entry.reservation.reset();
    start_guarantee(interface, entry);
    serve_queue(interface, before, false);
    return true;
}

void model::interface_down(std::string const& interface) {
    deferral const batch(*this);
    auto const before = free(interface);
    auto& state = state_of(interface);
    database(interface).clear();
    // Advertisers first, as a client ends them first.
    auto stopping = std::move(state.advertisers);
    state.advertisers.clear();
    state.advertiser_queue.clear();
    bool advertised = false;
    for (auto& [handle, entry] : stopping) {
        if (entry.guarantee) {
            entry.guarantee->stop();
        }
        if (entry.now == advertiser::state::stopped) {
            continue;
        }
        advertised = true;
        if (entry.holds_slot) {
            radio.stop_advertising(interface, handle);
        }
        emit(interface, "advStopped",
             {{"advHandle", handle},
              {"reason", bt_ctrl::advertiser::to_string(
                             bt_ctrl::advertiser::stop_reason::interface_unavailable)}});
    }
    if (advertised) {
        emit(interface, "advsChanged", advertisers_json(interface));
    }
    auto ended = std::move(state.connections);
    state.connections.clear();
    state.queue.clear();
    for (auto& [handle, entry] : ended) {
        if (entry.guarantee) {
            entry.guarantee->stop();
        }
        if (entry.linked) {
            radio.close_link(interface, handle);
        }
        peer_operations.ended(interface, handle);
        emit(interface, "connClosed",
             {{"connHandle", handle},
              {"reason", bt_ctrl::connection::to_string(close_reason::interface_unavailable)}});
    }
    if (!ended.empty()) {
        emit(interface, "connsChanged", connections_json(interface));
    }
    free_counts_changed(interface, before);
}

void model::state_event(std::string const& interface, connection const& entry) {
    static char const* const names[] = {"connClosed", "connOpened", "connClosing", "connOpening",
                                        "connPending"};
    auto body = handle_body(entry.handle, entry.incoming);
    if (entry.now == conn_state::opened) {
        auto const status = radio.status_of(interface, entry.handle);
        body["connPhy"] = bt_ctrl::to_string(status ? status->phy : bt_ctrl::phy::unknown);
        body["connMtu"] = status ? status->mtu : 23;
    }
    emit(interface, names[static_cast<int>(entry.now)], std::move(body));
}

void model::on_link(std::string const& interface, unsigned short link, radio::link_event what) {
    using event = radio::link_event;
    auto& state = state_of(interface);
    auto const found = state.connections.find(link);
    if (found == state.connections.end()) {
        return;
    }
    auto& entry = found->second;
    auto const status = radio.status_of(interface, link);
    switch (what) {
        case event::opening:
            if (entry.now == conn_state::pending) {
                entry.now = conn_state::opening;
                state_event(interface, entry);
            }
            return;
        case event::opened:
            if (entry.incoming) {
                entry.linked = true;
                entry.listening.reset();
                if (status) {
                    entry.peer = status->peer;
                }
            }
            if (entry.now == conn_state::closing && entry.incoming) {
                // Closed while the central was connecting.
                radio.close_link(interface, link);
                return;
            }
            if (entry.now == conn_state::pending || entry.now == conn_state::opening) {
                entry.now = conn_state::opened;
                state_event(interface, entry);
                if (status) {
                    emit(interface, "connParams",
                         {{"connHandle", link}, {"connParams", params_json(status->params)}});
                }
                peer_operations.opened(interface, link);
            }
            return;
        case event::closed:
            closed(interface, link, entry.closing_for.value_or(close_reason::unknown));
            return;
        default:
            break;
    }
    if (entry.now != conn_state::opened || !status) {
        return;
    }
    if (what == event::mtu) {
        emit(interface, "connMtu", {{"connHandle", link}, {"connMtu", status->mtu}});
    } else if (what == event::phy) {
        emit(interface, "connPhy",
             {{"connHandle", link}, {"connPhy", bt_ctrl::to_string(status->phy)}});
    } else if (what == event::params) {
        emit(interface, "connParams",
             {{"connHandle", link}, {"connParams", params_json(status->params)}});
    }
}

}  // namespace zelvo::tavrin::sim
