// The model's advertisers: slots taken and given back, their queue and its
// rotation, the listening connection of a connectable one, and the radio's
// reports turned into advertiser events.
#include <algorithm>

#include "model.hpp"
#include "wire.hpp"

namespace zelvo::tavrin::sim {

namespace {

using nlohmann::json;
using adv_state = bt_ctrl::advertiser::state;
using stop_reason = bt_ctrl::advertiser::stop_reason;
using conn_state = bt_ctrl::connection::state;
using close_reason = bt_ctrl::connection::close_reason;

close_reason close_reason_for(stop_reason reason) {
    switch (reason) {
        case stop_reason::resource_rotation:
            return close_reason::resource_rotation;
        case stop_reason::interface_unavailable:
            return close_reason::interface_unavailable;
        default:
            return close_reason::user_requested;
    }
}

}  // namespace

model::advertiser const* model::find_advertiser(std::string const& interface,
                                                unsigned short handle) const {
    auto const* state = find_state(interface);
    if (!state) {
        return nullptr;
    }
    auto const found = state->advertisers.find(handle);
    return found == state->advertisers.end() ? nullptr : &found->second;
}

model::advertiser const* model::advertiser_of(std::string const& interface,
                                              unsigned short id) const {
    if (auto const* state = find_state(interface)) {
        for (auto const& [handle, entry] : state->advertisers) {
            if (entry.reservation == id && entry.now != adv_state::stopped) {
                return &entry;
            }
        }
    }
    return nullptr;
}

bool model::can_advertise(std::string const& interface,
                          std::optional<unsigned short> reservation) const {
    if (reservation || free(interface).advertisers > 0) {
        return true;
    }
    // Waiting makes sense only where an unreserved slot exists at all.
    auto const* state = find_state(interface);
    unsigned reserved = 0;
    std::size_t waiting = 0;
    if (state) {
        for (auto const& [id, entry] : state->reservations) {
            reserved += entry.type == slot_type::advertiser ? 1 : 0;
        }
        waiting = state->advertiser_queue.size();
    }
    return slots_of(interface).advertisers > reserved && waiting < max_queue;
}

bool model::can_listen(std::string const& interface,
                       std::optional<unsigned short> reservation) const {
    return reservation || free(interface).connections > 0;
}

unsigned short model::start(std::string const& interface, advertiser const& wanted,
                            std::optional<unsigned short> connection_reservation) {
    auto const before = free(interface);
    auto& state = state_of(interface);
    // Handles are reused only after the 16-bit count wraps, and never while
    // one is known.
    while (state.next_advertiser == 0 || state.advertisers.count(state.next_advertiser) != 0) {
        ++state.next_advertiser;
    }
    auto const handle = state.next_advertiser++;
    auto& entry = state.advertisers[handle];
    entry = wanted;
    entry.handle = handle;
    entry.now = adv_state::pending;
    entry.holds_slot = false;
    entry.connection.reset();
    entry.settings.link.reset();
    if (entry.settings.connectable) {
        auto const link = new_connection(state);
        auto& listener = state.connections[link];
        listener.handle = link;
        listener.incoming = true;
        listener.listening = handle;
        listener.reservation = connection_reservation;
        take_slot(interface, listener);
        entry.connection = link;
        entry.settings.link = link;
    }
    if (entry.reservation || before.advertisers > 0) {
        take_advertiser_slot(interface, entry, false);
    } else {
        state.advertiser_queue.push_back(handle);
        advertiser_event(interface, entry);
    }
    if (entry.connection) {
        state_event(interface, state.connections.at(*entry.connection));
        emit(interface, "connsChanged", connections_json(interface));
    }
    serve_advertiser_queue(interface, before, true);
    return handle;
}

// On air: `starting` until the radio reports it started.
void model::take_advertiser_slot(std::string const& interface, advertiser& entry,
                                 bool announce_listener) {
    entry.holds_slot = true;
    entry.slot_order = next_slot_order++;
    entry.now = adv_state::starting;
    if (!entry.reservation) {
        start_advertiser_guarantee(interface, entry);
    }
    advertiser_event(interface, entry);
    if (entry.connection) {
        auto& connections = state_of(interface).connections;
        auto const listener = connections.find(*entry.connection);
        if (listener != connections.end() && listener->second.now == conn_state::pending) {
            listener->second.now = conn_state::opening;
            if (announce_listener) {
                state_event(interface, listener->second);
            }
        }
    }
    auto what = entry.settings;
    what.data = adv_data::to_air(entry.data.primary);
    what.scan_response = entry.data.scan_response ? adv_data::to_air(*entry.data.scan_response)
                                                  : decltype(what.data){};
    radio.start_advertising(interface, entry.handle, what);
}

void model::start_advertiser_guarantee(std::string const& interface, advertiser& entry) {
    entry.expired = false;
    if (!entry.holds_slot) {
        return;
    }
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
            auto const found = state.advertisers.find(handle);
            if (found != state.advertisers.end() && !found->second.reservation) {
                found->second.expired = true;
                serve_advertiser_queue(interface, free(interface), false);
            }
        });
    entry.guarantee->start(time);
}

void model::serve_advertiser_queue(std::string const& interface, std::optional<free_counts> before,
                                   bool changed) {
    auto& state = state_of(interface);
    while (!state.advertiser_queue.empty() && free(interface).advertisers > 0) {
        auto const handle = state.advertiser_queue.front();
        state.advertiser_queue.pop_front();
        take_advertiser_slot(interface, state.advertisers.at(handle));
        changed = true;
    }
    if (changed) {
        emit(interface, "advsChanged", advertisers_json(interface));
    }
    if (before) {
        free_counts_changed(interface, *before);
    }
    // As for connections: one slot to come free for each waiting advertiser,
    // the oldest expired unreserved ones rotated out first.
    std::size_t rotating = 0;
    std::vector<advertiser*> expired;
    for (auto& [handle, entry] : state.advertisers) {
        if (!entry.holds_slot || entry.reservation) {
            continue;
        }
        if (entry.now == adv_state::stopping) {
            ++rotating;
        } else if (entry.expired) {
            expired.push_back(&entry);
        }
    }
    std::sort(expired.begin(), expired.end(),
              [](auto const* a, auto const* b) { return a->slot_order < b->slot_order; });
    std::vector<unsigned short> rotated;
    for (auto const* entry : expired) {
        if (rotating + rotated.size() >= state.advertiser_queue.size()) {
            break;
        }
        rotated.push_back(entry->handle);
    }
    for (auto const handle : rotated) {
        stop(interface, handle, stop_reason::resource_rotation);
    }
}

void model::stop(std::string const& interface, unsigned short handle, stop_reason reason) {
    auto& state = state_of(interface);
    auto const found = state.advertisers.find(handle);
    if (found == state.advertisers.end() || found->second.now == adv_state::stopping ||
        found->second.now == adv_state::stopped) {
        return;
    }
    auto& entry = found->second;
    entry.now = adv_state::stopping;
    entry.stopping_for = reason;
    advertiser_event(interface, entry);
    auto const listener =
        entry.connection ? state.connections.find(*entry.connection) : state.connections.end();
    if (listener != state.connections.end() && listener->second.now != conn_state::closing) {
        listener->second.now = conn_state::closing;
        listener->second.closing_for = close_reason_for(reason);
        state_event(interface, listener->second);
    }
    if (entry.holds_slot) {
        radio.stop_advertising(interface, handle);
    } else {
        stopped(interface, handle, reason);
    }
}

void model::stopped(std::string const& interface, unsigned short handle, stop_reason reason) {
    auto const before = free(interface);
    auto& state = state_of(interface);
    auto const found = state.advertisers.find(handle);
    if (found == state.advertisers.end() || found->second.now == adv_state::stopped) {
        return;
    }
    auto& entry = found->second;
    if (entry.guarantee) {
        entry.guarantee->stop();
    }
    entry.now = adv_state::stopped;
    entry.holds_slot = false;
    entry.reservation.reset();
    auto& queue = state.advertiser_queue;
    queue.erase(std::remove(queue.begin(), queue.end(), handle), queue.end());
    emit(interface, "advStopped",
         {{"advHandle", handle}, {"reason", bt_ctrl::advertiser::to_string(reason)}});
    std::optional<unsigned short> listening;
    auto const connection =
        entry.connection ? state.connections.find(*entry.connection) : state.connections.end();
    if (connection != state.connections.end() && connection->second.listening) {
        listening = connection->first;
    }
    auto const reason_to_close =
        listening ? connection->second.closing_for.value_or(close_reason_for(reason))
                  : close_reason::unknown;
    // Kept only for the connection a central gave through it.
    if (connection == state.connections.end() || listening) {
        state.advertisers.erase(found);
    }
    serve_advertiser_queue(interface, std::nullopt, true);
    if (listening) {
        closed(interface, *listening, reason_to_close, before);
    } else {
        free_counts_changed(interface, before);
    }
}

void model::set_data(std::string const& interface, unsigned short handle,
                     adv_data::advertising_data const& data) {
    auto& entry = state_of(interface).advertisers.at(handle);
    entry.data = data;
    if (entry.holds_slot) {
        auto what = entry.settings;
        what.data = adv_data::to_air(data.primary);
        what.scan_response =
            data.scan_response ? adv_data::to_air(*data.scan_response) : decltype(what.data){};
        radio.start_advertising(interface, handle, what);
    }
    emit(interface, "advDataChanged", {{"advHandle", handle}, {"data", adv_data::to_json(data)}});
}

bool model::set_advertiser_reservation(std::string const& interface, unsigned short handle,
                                       std::optional<unsigned short> reservation) {
    auto const before = free(interface);
    auto& state = state_of(interface);
    auto& entry = state.advertisers.at(handle);
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
            auto& queue = state.advertiser_queue;
            queue.erase(std::remove(queue.begin(), queue.end(), handle), queue.end());
            take_advertiser_slot(interface, entry);
        }
        serve_advertiser_queue(interface, before, true);
        return true;
    }
    if (before.advertisers == 0) {
        return false;
    }
    entry.reservation.reset();
    start_advertiser_guarantee(interface, entry);
    serve_advertiser_queue(interface, before, false);
    return true;
}

void model::advertiser_event(std::string const& interface, advertiser const& entry) {
    static char const* const names[] = {"advStopped", "advStarted", "advStopping", "advStarting",
                                        "advPending"};
    emit(interface, names[static_cast<int>(entry.now)],
         {{"advHandle", entry.handle}, {"addr", wire::to_json(entry.settings.address)}});
}

void model::on_advertising(std::string const& interface, unsigned short set,
                           radio::advertising_event what) {
    using event = radio::advertising_event;
    auto& state = state_of(interface);
    auto const found = state.advertisers.find(set);
    if (found == state.advertisers.end()) {
        return;
    }
    auto& entry = found->second;
    switch (what) {
        case event::started:
            if (entry.now == adv_state::starting) {
                entry.now = adv_state::started;
                advertiser_event(interface, entry);
            }
            return;
        case event::stopped:
            if (entry.now != adv_state::stopped) {
                stopped(interface, set,
                        entry.stopping_for.value_or(stop_reason::interface_unavailable));
            }
            return;
        case event::connected:
            // The link reported `opened` before this, and the connection is
            // no longer listening.
            stopped(interface, set, entry.stopping_for.value_or(stop_reason::connection_opened));
            return;
    }
}

}  // namespace zelvo::tavrin::sim
