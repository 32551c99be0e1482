#include "tavrin/sim/simulated_radio.hpp"

namespace zelvo::tavrin::sim {

simulated_radio::simulated_radio(config const& settings)
    : entries(settings.interfaces),
      default_name(settings.default_interface),
      reachable(settings.peers) {
    settings.check();
    for (auto const& described : settings.centrals) {
        centrals.push_back({described, false, nullptr});
    }
}

simulated_radio::~simulated_radio() {
    for (auto& [key, entry] : links) {
        if (entry.accept) {
            entry.accept->stop();
        }
    }
    for (auto& waiting : centrals) {
        if (waiting.timer) {
            waiting.timer->stop();
        }
    }
}

std::vector<interface_description> simulated_radio::interfaces() const {
    std::vector<interface_description> descriptions;
    for (auto const& entry : entries) {
        descriptions.push_back(entry.description);
    }
    return descriptions;
}

bt_ctrl::capabilities const* simulated_radio::find_capabilities(std::string const& name) const {
    auto const* entry = find(name);
    return entry ? &entry->description.caps : nullptr;
}

std::string simulated_radio::default_interface() const {
    return default_name;
}

std::optional<bt_ctrl::state> simulated_radio::status(std::string const& name) const {
    auto const* entry = find(name);
    return entry ? std::optional(entry->status) : std::nullopt;
}

std::optional<bt_ctrl::address> simulated_radio::address(std::string const& name) const {
    auto const* entry = find(name);
    return entry ? std::optional(entry->description.address) : std::nullopt;
}

std::optional<sim::slots> simulated_radio::slots(std::string const& name) const {
    auto const* entry = find(name);
    return entry ? std::optional(entry->slots) : std::nullopt;
}

bool simulated_radio::set_status(std::string const& name, bt_ctrl::state status) {
    for (auto& entry : entries) {
        if (entry.description.name != name) {
            continue;
        }
        if (entry.status != status) {
            entry.status = status;
            if (status != bt_ctrl::state::enabled) {
                end_interface_sets(name);
            }
            status_changed(name, status);
        }
        return true;
    }
    return false;
}

utils::link simulated_radio::on_status_change(status_observer const& observer) {
    return status_changed.connect(observer);
}

config::interface const* simulated_radio::find(std::string const& name) const {
    for (auto const& entry : entries) {
        if (entry.description.name == name) {
            return &entry;
        }
    }
    return nullptr;
}

}  // namespace zelvo::tavrin::sim
