// simulated_radio's advertising sets and the centrals that scan them and
// connect through them.
#include <algorithm>

#include "tavrin/sim/simulated_radio.hpp"

namespace zelvo::tavrin::sim {

void simulated_radio::start_advertising(std::string const& interface, unsigned short set,
                                        advertising const& what) {
    if (!find(interface)) {
        return;
    }
    set_key const key{interface, set};
    bool const fresh = on_air.count(key) == 0;
    on_air[key] = what;
    if (fresh) {
        report_set(key, advertising_event::started);
        if (what.connectable) {
            arm_centrals();
        }
    }
}

void simulated_radio::stop_advertising(std::string const& interface, unsigned short set) {
    if (on_air.erase({interface, set}) != 0) {
        report_set({interface, set}, advertising_event::stopped);
    }
}

void simulated_radio::end_interface_sets(std::string const& interface) {
    for (auto entry = on_air.begin(); entry != on_air.end();) {
        if (entry->first.first == interface) {
            report_set(entry->first, advertising_event::stopped);
            entry = on_air.erase(entry);
        } else {
            ++entry;
        }
    }
}

utils::link simulated_radio::on_advertising_change(advertising_observer const& observer) {
    return set_changed.connect(observer);
}

void simulated_radio::report_set(set_key const& key, advertising_event what) {
    if (!loop) {
        return;
    }
    loop->post([this, weak = std::weak_ptr<int>(alive), key, what] {
        if (!weak.expired()) {
            set_changed(key.first, key.second, what);
        }
    });
}

central_result simulated_radio::central_connect(std::string const& interface, unsigned short set,
                                                sim::central const& who) {
    auto const* described = find(interface);
    if (!described) {
        return central_result::no_such_interface;
    }
    if (!who.address || !who.address.is_valid()) {
        return central_result::bad_address;
    }
    auto const found = on_air.find({interface, set});
    if (found == on_air.end()) {
        return central_result::no_such_set;
    }
    if (!found->second.connectable || !found->second.link) {
        return central_result::not_connectable;
    }
    link_key const key{interface, *found->second.link};
    on_air.erase(found);
    // The controller gave the link's id for this very set: no other link
    // has it. A stale one would be an older connection's, which has ended.
    auto& entry = links[key];
    entry = link_entry{};
    entry.peer = who.address;
    entry.reached = true;
    auto const& caps = described->description.caps;
    entry.now.peer = who.address;
    entry.now.open = true;
    entry.now.phy = caps.connPhys.count(who.phy) != 0 ? who.phy : bt_ctrl::phy::m1;
    entry.now.mtu = std::min(who.mtu, caps.maxMtuSize);
    // A script is bounded as a config's is: the steps beyond are left out.
    auto const steps = std::min<std::size_t>(who.gatt.size(), gatt_step::max_steps);
    entry.script.assign(who.gatt.begin(), who.gatt.begin() + static_cast<std::ptrdiff_t>(steps));
    report(key, link_event::opening);
    report(key, link_event::opened);
    report_set({interface, set}, advertising_event::connected);
    return central_result::connected;
}

std::vector<gatt_step> simulated_radio::central_script(std::string const& interface,
                                                       unsigned short link) const {
    auto const found = links.find({interface, link});
    return found == links.end() ? std::vector<gatt_step>{} : found->second.script;
}

std::optional<scan_report> simulated_radio::central_scan(std::string const& interface,
                                                         unsigned short set) const {
    auto const found = on_air.find({interface, set});
    if (found == on_air.end()) {
        return std::nullopt;
    }
    auto const& what = found->second;
    return scan_report{what.address, what.connectable, what.data, what.scan_response};
}

std::vector<std::pair<std::string, unsigned short>> simulated_radio::advertising_sets() const {
    std::vector<set_key> keys;
    for (auto const& [key, what] : on_air) {
        keys.push_back(key);
    }
    return keys;
}

bool simulated_radio::add_central(sim::central const& description) {
    if (centrals.size() >= central::max_centrals ||
        description.gatt.size() > gatt_step::max_steps) {
        return false;
    }
    centrals.push_back({description, false, nullptr});
    arm_centrals();
    return true;
}

void simulated_radio::arm_centrals() {
    bool const any = std::any_of(on_air.begin(), on_air.end(),
                                 [](auto const& entry) { return entry.second.connectable; });
    if (!any || !loop) {
        return;
    }
    for (std::size_t i = 0; i < centrals.size(); ++i) {
        auto& waiting = centrals[i];
        if (waiting.done || !waiting.description.connect_after || waiting.timer) {
            continue;
        }
        waiting.timer = loop->create_timer();
        waiting.timer->set_handler([this, weak = std::weak_ptr<int>(alive), i] {
            if (!weak.expired()) {
                central_due(i);
            }
        });
        waiting.timer->start(*waiting.description.connect_after);
    }
}

// The first connectable set still on air; with none, the central waits for
// the next one.
void simulated_radio::central_due(std::size_t index) {
    auto& waiting = centrals[index];
    auto const timer = std::move(waiting.timer);
    auto const target = std::find_if(on_air.begin(), on_air.end(),
                                     [](auto const& entry) { return entry.second.connectable; });
    if (target != on_air.end()) {
        auto const key = target->first;
        waiting.done = central_connect(key.first, key.second, waiting.description) ==
                       central_result::connected;
    }
    // The timer runs this; it goes on a later turn.
    loop->post([timer] {});
}

}  // namespace zelvo::tavrin::sim
