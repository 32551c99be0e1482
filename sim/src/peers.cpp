// simulated_radio's links and the peers they reach.
#include <algorithm>

#include "tavrin/sim/simulated_radio.hpp"

namespace zelvo::tavrin::sim {

void simulated_radio::use_loop(std::shared_ptr<utils::event_loop> given) {
    loop = std::move(given);
}

void simulated_radio::open_link(std::string const& interface, unsigned short link,
                                bt_ctrl::address const& peer, bt_ctrl::phy phy) {
    link_key const key{interface, link};
    if (!find(interface) || links.count(key) != 0) {
        return;
    }
    auto& entry = links[key];
    entry.peer = peer;
    entry.requested = phy;
    entry.now.peer = peer;
    if (auto const* target = find_peer(peer)) {
        reach(key, entry, *target);
    }
}

void simulated_radio::reach(link_key const& key, link_entry& entry, sim::peer const& target) {
    if (!loop) {
        return;  // nobody to report to: the link waits
    }
    entry.reached = true;
    report(key, link_event::opening);
    auto accept = [this, weak = std::weak_ptr<int>(alive), key] {
        if (weak.expired()) {
            return;
        }
        auto const found = links.find(key);
        if (found == links.end()) {
            return;
        }
        auto& link = found->second;
        auto const* peer = find_peer(link.peer);
        if (link.now.open || !link.reached) {
            return;  // an answer of an earlier reach
        }
        if (!peer) {
            link.reached = false;  // gone out of reach: the link waits again
            return;
        }
        if (!peer->accepts) {
            links.erase(found);
            report(key, link_event::closed);
            return;
        }
        auto const* interface = find(key.first);
        auto const& caps = interface->description.caps;
        auto phy = link.requested;
        if (phy == bt_ctrl::phy::unknown) {
            phy = caps.connPhys.count(peer->phy) != 0 ? peer->phy : bt_ctrl::phy::m1;
        }
        link.now.open = true;
        link.now.phy = phy;
        link.now.mtu = std::min(peer->mtu, caps.maxMtuSize);
        report(key, link_event::opened);
    };
    // After the report of `opening`, which is posted too.
    if (target.accept_delay.count() == 0) {
        loop->post(accept);
        return;
    }
    entry.accept = loop->create_timer();
    entry.accept->set_handler(accept);
    entry.accept->start(target.accept_delay);
}

void simulated_radio::report(link_key const& key, link_event what) {
    if (!loop) {
        return;
    }
    loop->post([this, weak = std::weak_ptr<int>(alive), key, what] {
        if (!weak.expired()) {
            link_changed(key.first, key.second, what);
        }
    });
}

void simulated_radio::close_link(std::string const& interface, unsigned short link) {
    auto const found = links.find({interface, link});
    if (found == links.end()) {
        return;
    }
    if (found->second.accept) {
        found->second.accept->stop();
    }
    links.erase(found);
    report({interface, link}, link_event::closed);
}

std::optional<radio::link_status> simulated_radio::status_of(std::string const& interface,
                                                             unsigned short link) const {
    auto const found = links.find({interface, link});
    if (found == links.end()) {
        return std::nullopt;
    }
    auto status = found->second.now;
    if (auto const* peer = find_peer(status.peer)) {
        status.signal = peer->signal;
    }
    return status;
}

bool simulated_radio::set_phy(std::string const& interface, unsigned short link, bt_ctrl::phy phy) {
    auto const found = links.find({interface, link});
    if (found == links.end() || !found->second.now.open) {
        return false;
    }
    if (found->second.now.phy != phy) {
        found->second.now.phy = phy;
        report(found->first, link_event::phy);
    }
    return true;
}

bool simulated_radio::set_params(std::string const& interface, unsigned short link,
                                 connection_params const& params) {
    auto const found = links.find({interface, link});
    if (found == links.end() || !found->second.now.open) {
        return false;
    }
    found->second.now.params = params;
    report(found->first, link_event::params);
    return true;
}

bool simulated_radio::set_latency(std::string const& interface, unsigned short link, bool enabled) {
    auto const found = links.find({interface, link});
    if (found == links.end() || !found->second.now.open) {
        return false;
    }
    found->second.now.latency = enabled;
    return true;
}

utils::link simulated_radio::on_link_change(link_observer const& observer) {
    return link_changed.connect(observer);
}

sim::peer* simulated_radio::find_peer(bt_ctrl::address const& address) {
    for (auto& candidate : reachable) {
        if (candidate.address == address) {
            return &candidate;
        }
    }
    return nullptr;
}

sim::peer const* simulated_radio::find_peer(bt_ctrl::address const& address) const {
    for (auto const& candidate : reachable) {
        if (candidate.address == address) {
            return &candidate;
        }
    }
    return nullptr;
}

bool simulated_radio::add_peer(sim::peer const& description) {
    if (auto* known = find_peer(description.address)) {
        *known = description;
    } else if (reachable.size() >= peer::max_peers) {
        return false;
    } else {
        reachable.push_back(description);
    }
    for (auto& [key, entry] : links) {
        if (!entry.reached && entry.peer == description.address) {
            reach(key, entry, description);
        }
    }
    return true;
}

bool simulated_radio::remove_peer(bt_ctrl::address const& address) {
    auto const found = std::find_if(reachable.begin(), reachable.end(), [&](auto const& candidate) {
        return candidate.address == address;
    });
    if (found == reachable.end()) {
        return false;
    }
    reachable.erase(found);
    for (auto entry = links.begin(); entry != links.end();) {
        auto& link = entry->second;
        if (link.peer != address) {
            ++entry;
        } else if (link.now.open) {
            report(entry->first, link_event::closed);
            entry = links.erase(entry);
        } else {
            // Reached but not yet accepted: back to waiting.
            if (link.accept) {
                link.accept->stop();
            }
            link.reached = false;
            ++entry;
        }
    }
    return true;
}

std::vector<sim::peer> simulated_radio::peers() const {
    return reachable;
}

bool simulated_radio::for_open_links(
    bt_ctrl::address const& address, link_event what,
    std::function<void(link_key const&, link_entry&)> const& change) {
    if (!find_peer(address)) {
        return false;
    }
    for (auto& [key, entry] : links) {
        if (entry.peer == address && entry.now.open) {
            change(key, entry);
            report(key, what);
        }
    }
    return true;
}

bool simulated_radio::peer_disconnect(bt_ctrl::address const& address) {
    // A central is no peer, but may hold links.
    bool known = find_peer(address) != nullptr;
    for (auto entry = links.begin(); entry != links.end();) {
        if (entry->second.peer == address && entry->second.now.open) {
            known = true;
            report(entry->first, link_event::closed);
            entry = links.erase(entry);
        } else {
            ++entry;
        }
    }
    return known;
}

bool simulated_radio::peer_set_mtu(bt_ctrl::address const& address, unsigned short mtu) {
    if (auto* target = find_peer(address)) {
        target->mtu = mtu;
    }
    return for_open_links(address, link_event::mtu, [this, mtu](auto const& key, auto& entry) {
        // The interface's own maximum bounds each link's.
        entry.now.mtu = std::min(mtu, find(key.first)->description.caps.maxMtuSize);
    });
}

bool simulated_radio::peer_set_phy(bt_ctrl::address const& address, bt_ctrl::phy phy) {
    return for_open_links(address, link_event::phy,
                          [phy](auto const&, auto& entry) { entry.now.phy = phy; });
}

bool simulated_radio::peer_set_params(bt_ctrl::address const& address,
                                      connection_params const& params) {
    return for_open_links(address, link_event::params,
                          [&params](auto const&, auto& entry) { entry.now.params = params; });
}

bool simulated_radio::peer_set_signal(bt_ctrl::address const& address,
                                      bt_ctrl::signal const& signal) {
    auto* target = find_peer(address);
    if (target) {
        target->signal = signal;
    }
    return target != nullptr;
}

}  // namespace zelvo::tavrin::sim
