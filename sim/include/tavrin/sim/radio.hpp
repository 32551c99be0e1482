// sim::radio: the seam between the controller's protocol layer and the radio
// it serves. It is everything the protocol asks of the radio and nothing of
// sessions or of the bus: which interfaces exist and what they can do, their
// status, address and slots, and a report of status changes.
//
// simulated_radio implements it from a config; a backend on real hardware
// implements the same class. Calls come from the event loop's thread only.
// Observers run synchronously inside whatever changed the status.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/sim/interface_description.hpp"
#include "tavrin/sim/slots.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::sim {

class radio {
public:
    using status_observer = std::function<void(std::string const& name, bt_ctrl::state status)>;

    radio() = default;
    radio(radio const&) = delete;
    radio& operator=(radio const&) = delete;
    virtual ~radio();

    // Every interface, in a fixed order.
    virtual std::vector<interface_description> interfaces() const = 0;
    // The interface bound when a client names none; one of interfaces().
    virtual std::string default_interface() const = 0;
    // Empty for a name that is not an interface.
    virtual std::optional<bt_ctrl::state> status(std::string const& name) const = 0;
    virtual std::optional<bt_ctrl::address> address(std::string const& name) const = 0;
    // The interface's connection and advertiser slots; fixed for its life.
    virtual std::optional<sim::slots> slots(std::string const& name) const = 0;

    // Asks the interface to move to `status` (power it down, reset it, bring
    // it up). Observers hear of the change when it happens, and only if the
    // status actually changes. False for a name that is not an interface.
    virtual bool set_status(std::string const& name, bt_ctrl::state status) = 0;

    // Calls the observer on every status change until the link is released.
    // Any number of observers may watch; an observer may release links,
    // including its own, from inside the call.
    virtual utils::link on_status_change(status_observer const& observer) = 0;
};

}  // namespace zelvo::tavrin::sim
