// sim::simulated_radio: a radio made of the interfaces of a config. Status
// changes happen at once, inside set_status(), which makes it deterministic
// on any event loop.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tavrin/misc/signal.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/sim/radio.hpp"

namespace zelvo::tavrin::sim {

class simulated_radio : public radio {
public:
    // Throws runtime_error as config::check() does.
    explicit simulated_radio(config const& settings);

    std::vector<interface_description> interfaces() const override;
    std::string default_interface() const override;
    std::optional<bt_ctrl::state> status(std::string const& name) const override;
    std::optional<bt_ctrl::address> address(std::string const& name) const override;
    std::optional<sim::slots> slots(std::string const& name) const override;
    bool set_status(std::string const& name, bt_ctrl::state status) override;
    utils::link on_status_change(status_observer const& observer) override;

private:
    config::interface const* find(std::string const& name) const;

    std::vector<config::interface> entries;
    std::string default_name;
    misc::signal<void, std::string const&, bt_ctrl::state> status_changed;
};

}  // namespace zelvo::tavrin::sim
