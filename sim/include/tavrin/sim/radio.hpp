// sim::radio: the seam between the controller's protocol layer and the radio
// it serves. It is everything the protocol asks of the radio and nothing of
// sessions, reservations or of the bus: which interfaces exist and what they
// can do, their status, address and slots, a report of status changes, and
// links: the radio connections the controller opens to peers, their
// properties, and a report of what happens to them.
//
// simulated_radio implements it from a config; a backend on real hardware
// implements the same class. Calls come from the event loop's thread only.
// Status observers run synchronously inside whatever changed the status; link
// observers run on later turns of the loop the controller gave with
// use_loop(), never inside the call that caused them.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/bt_ctrl/signal.hpp"
#include "tavrin/sim/interface_description.hpp"
#include "tavrin/sim/peer.hpp"
#include "tavrin/sim/slots.hpp"
#include "tavrin/utils/event_loop.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::sim {

class radio {
public:
    using status_observer = std::function<void(std::string const& name, bt_ctrl::state status)>;

    // What happened to a link: it reached its peer, the peer accepted, it
    // ended (by close_link, by the peer, or refused), or a property changed.
    enum class link_event { opening, opened, closed, mtu, phy, params };
    using link_observer =
        std::function<void(std::string const& interface, unsigned short link, link_event what)>;

    // A link as the radio has it now. Before it opened, its MTU is 23 and
    // its PHY unknown.
    struct link_status {
        bt_ctrl::address peer;
        bool open = false;
        bt_ctrl::phy phy = bt_ctrl::phy::unknown;
        unsigned short mtu = 23;
        connection_params params;
        bt_ctrl::signal signal;
        bool latency = false;
    };

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

    // The loop link observers run on. The controller gives its own before it
    // opens a link.
    virtual void use_loop(std::shared_ptr<utils::event_loop> loop) = 0;

    // Begins a connection as central to the peer, on a link id the caller
    // chose, unique on the interface. The radio reports `opening` when it
    // reaches the peer, then `opened` when the peer accepts or `closed` when
    // it refuses; a peer out of reach is waited for. `phy` unknown lets the
    // peer choose.
    virtual void open_link(std::string const& interface, unsigned short link,
                           bt_ctrl::address const& peer, bt_ctrl::phy phy) = 0;
    // Ends the link; `closed` is reported. Nothing for an unknown link.
    virtual void close_link(std::string const& interface, unsigned short link) = 0;
    virtual std::optional<link_status> status_of(std::string const& interface,
                                                 unsigned short link) const = 0;
    // Ask an open link to change; the change is reported when it is made.
    // False for a link that is not open.
    virtual bool set_phy(std::string const& interface, unsigned short link, bt_ctrl::phy phy) = 0;
    virtual bool set_params(std::string const& interface, unsigned short link,
                            connection_params const& params) = 0;
    virtual bool set_latency(std::string const& interface, unsigned short link, bool enabled) = 0;
    // Calls the observer on every link event until the link is released.
    virtual utils::link on_link_change(link_observer const& observer) = 0;
};

}  // namespace zelvo::tavrin::sim
