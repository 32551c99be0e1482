#include "model.hpp"

#include <utility>

#include "wire.hpp"

namespace zelvo::tavrin::sim {

using nlohmann::json;

model::model(std::shared_ptr<utils::event_loop> loop, sim::radio& radio, event_sink sink)
    : loop(std::move(loop)),
      radio(radio),
      sink(std::move(sink)),
      peer_operations(this->loop, *this, radio) {
    link_watch = radio.on_link_change(
        [this, weak = std::weak_ptr<int>(alive)](std::string const& interface, unsigned short link,
                                                 radio::link_event what) {
            if (!weak.expired()) {
                deferral const batch(*this);
                on_link(interface, link, what);
            }
        });
    advertising_watch = radio.on_advertising_change(
        [this, weak = std::weak_ptr<int>(alive)](std::string const& interface, unsigned short set,
                                                 radio::advertising_event what) {
            if (!weak.expired()) {
                deferral const batch(*this);
                on_advertising(interface, set, what);
            }
        });
}

model::~model() {
    link_watch.release();
    advertising_watch.release();
    for (auto& [name, state] : interfaces) {
        for (auto& [handle, entry] : state.connections) {
            if (entry.guarantee) {
                entry.guarantee->stop();
            }
        }
        for (auto& [handle, entry] : state.advertisers) {
            if (entry.guarantee) {
                entry.guarantee->stop();
            }
        }
    }
}

model::deferral::deferral(model& target) : target(target) {
    ++target.deferrals;
}

model::deferral::~deferral() {
    if (--target.deferrals == 0) {
        target.flush();
    }
}

// Every way into the model from outside a request (a link event, a timer, a
// session's or an interface's end) holds a deferral too, so that the sink,
// which may end a session and so re-enter, runs only once the model is
// consistent again.
void model::emit(std::string const& interface, std::string const& name, json body) {
    pending.emplace_back(interface, name, std::move(body));
    if (deferrals == 0) {
        flush();
    }
}

void model::flush() {
    // The sink may re-enter (a session that fails to write ends), so each
    // event leaves the list before it goes out.
    while (!pending.empty()) {
        auto const next = std::move(pending.front());
        pending.erase(pending.begin());
        sink(std::get<0>(next), std::get<1>(next), std::get<2>(next));
    }
}

model::interface_state& model::state_of(std::string const& interface) {
    return interfaces[interface];
}

model::interface_state const* model::find_state(std::string const& interface) const {
    auto const found = interfaces.find(interface);
    return found == interfaces.end() ? nullptr : &found->second;
}

sim::slots model::slots_of(std::string const& interface) const {
    auto const counts = radio.slots(interface);
    return counts ? *counts : sim::slots{0, 0, {}};
}

unsigned model::unreserved_in_use(interface_state const& state) const {
    unsigned used = 0;
    for (auto const& [handle, entry] : state.connections) {
        used += entry.holds_slot && !entry.reservation ? 1 : 0;
    }
    return used;
}

unsigned model::unreserved_advertising(interface_state const& state) const {
    unsigned used = 0;
    for (auto const& [handle, entry] : state.advertisers) {
        used += entry.holds_slot && !entry.reservation ? 1 : 0;
    }
    return used;
}

model::free_counts model::free(std::string const& interface) const {
    auto const counts = slots_of(interface);
    free_counts result{counts.connections, counts.advertisers};
    auto const* state = find_state(interface);
    if (!state) {
        return result;
    }
    for (auto const& [id, entry] : state->reservations) {
        auto& count = entry.type == slot_type::connection ? result.connections : result.advertisers;
        count -= count > 0 ? 1 : 0;
    }
    auto const used = unreserved_in_use(*state);
    result.connections -= std::min(used, result.connections);
    auto const advertising = unreserved_advertising(*state);
    result.advertisers -= std::min(advertising, result.advertisers);
    return result;
}

json model::free_json(std::string const& interface) const {
    auto const counts = free(interface);
    return {{"advertiser", counts.advertisers}, {"connection", counts.connections}};
}

json model::connections_json(std::string const& interface) const {
    json positions = json::object();
    if (auto const* state = find_state(interface)) {
        for (auto const& [handle, entry] : state->connections) {
            positions[std::to_string(handle)] = {{"piq", 0}};
        }
        unsigned place = 0;
        for (auto const handle : state->queue) {
            positions[std::to_string(handle)] = {{"piq", ++place}};
        }
    }
    return {{"maxConnections", slots_of(interface).connections},
            {"connections", std::move(positions)}};
}

json model::advertisers_json(std::string const& interface) const {
    json positions = json::object();
    if (auto const* state = find_state(interface)) {
        for (auto const& [handle, entry] : state->advertisers) {
            if (entry.now != advertiser::state::stopped) {
                positions[std::to_string(handle)] = {{"piq", 0}};
            }
        }
        unsigned place = 0;
        for (auto const handle : state->advertiser_queue) {
            positions[std::to_string(handle)] = {{"piq", ++place}};
        }
    }
    return {{"maxAdvertisers", slots_of(interface).advertisers},
            {"advertisers", std::move(positions)}};
}

void model::free_counts_changed(std::string const& interface, free_counts before) {
    auto const now = free(interface);
    if (now.connections != before.connections || now.advertisers != before.advertisers) {
        emit(interface, "freeResvsChanged", free_json(interface));
    }
}

std::vector<model::reservation const*> model::reservations_of(std::string const& interface,
                                                              holder const& owner) const {
    std::vector<reservation const*> found;
    if (auto const* state = find_state(interface)) {
        for (auto const& [id, entry] : state->reservations) {
            if (entry.owner == owner) {
                found.push_back(&entry);
            }
        }
    }
    return found;
}

model::reservation const* model::find_reservation(std::string const& interface,
                                                  unsigned short id) const {
    auto const* state = find_state(interface);
    if (!state) {
        return nullptr;
    }
    auto const found = state->reservations.find(id);
    return found == state->reservations.end() ? nullptr : &found->second;
}

std::optional<unsigned short> model::reserve(std::string const& interface,
                                             reservation const& claim) {
    auto const before = free(interface);
    auto const id = reserve_quietly(interface, claim);
    free_counts_changed(interface, before);
    return id;
}

std::optional<unsigned short> model::reserve_quietly(std::string const& interface,
                                                     reservation const& claim) {
    auto const before = free(interface);
    auto const available =
        claim.type == slot_type::connection ? before.connections : before.advertisers;
    if (available == 0) {
        return std::nullopt;
    }
    auto& state = state_of(interface);
    // Ids are reused only after the 16-bit count wraps, and never while one
    // is held: at most 2 * max_per_type reservations exist at once.
    while (state.next_reservation == 0 || state.reservations.count(state.next_reservation) != 0) {
        ++state.next_reservation;
    }
    auto entry = claim;
    entry.id = state.next_reservation++;
    state.reservations.emplace(entry.id, entry);
    return entry.id;
}

std::optional<unsigned short> model::replace(std::string const& interface, unsigned short old_id,
                                             reservation const& claim) {
    auto const before = free(interface);
    auto& reservations = state_of(interface).reservations;
    auto const old = reservations.find(old_id);
    if (old == reservations.end()) {
        return std::nullopt;
    }
    auto const kept = old->second;
    reservations.erase(old);
    auto const id = reserve_quietly(interface, claim);
    if (!id) {
        reservations.emplace(old_id, kept);
    }
    free_counts_changed(interface, before);
    return id;
}

void model::release(std::string const& interface, unsigned short id) {
    auto const before = free(interface);
    state_of(interface).reservations.erase(id);
    free_counts_changed(interface, before);
}

model::connection const* model::user_of(std::string const& interface, unsigned short id) const {
    if (auto const* state = find_state(interface)) {
        for (auto const& [handle, entry] : state->connections) {
            if (entry.reservation == id) {
                return &entry;
            }
        }
    }
    return nullptr;
}

bool model::in_use(std::string const& interface, unsigned short id) const {
    return user_of(interface, id) != nullptr || advertiser_of(interface, id) != nullptr;
}

void model::end_session(unsigned session) {
    deferral const batch(*this);
    for (auto& [interface, state] : interfaces) {
        auto const before = free(interface);
        for (auto entry = state.reservations.begin(); entry != state.reservations.end();) {
            if (!entry->second.owner.client_id.empty() || entry->second.owner.session != session) {
                ++entry;
                continue;
            }
            // Its connection goes on, unreserved, and may be rotated out.
            for (auto& [handle, user] : state.connections) {
                if (user.reservation == entry->first) {
                    user.reservation.reset();
                    start_guarantee(interface, user);
                }
            }
            for (auto& [handle, user] : state.advertisers) {
                if (user.reservation == entry->first) {
                    user.reservation.reset();
                    start_advertiser_guarantee(interface, user);
                }
            }
            entry = state.reservations.erase(entry);
        }
        serve_advertiser_queue(interface, std::nullopt, false);
        serve_queue(interface, before, false);
    }
}

model::connection const* model::find_connection(std::string const& interface,
                                                unsigned short handle) const {
    auto const* state = find_state(interface);
    if (!state) {
        return nullptr;
    }
    auto const found = state->connections.find(handle);
    return found == state->connections.end() ? nullptr : &found->second;
}

}  // namespace zelvo::tavrin::sim
