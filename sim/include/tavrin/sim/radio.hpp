// sim::radio: the seam between the controller's protocol layer and the radio
// it serves. It is everything the protocol asks of the radio and nothing of
// sessions, reservations or of the bus: which interfaces exist and what they
// can do, their status, address and slots, a report of status changes;
// links: the radio connections the controller opens to peers, or that a
// central opens through a connectable advertising set, their properties, and
// a report of what happens to them; and advertising sets on air.
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
#include "tavrin/bt_ctrl/capabilities.hpp"
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

    // One advertising set as it goes on air. `data` and `scan_response` are
    // AD structures as the air carries them (length, type, payload). A
    // connectable set names the link a central that connects through it
    // gets; the set then ends.
    struct advertising {
        bt_ctrl::address address;
        bool connectable = false;
        std::optional<unsigned short> link;
        bt_ctrl::phy phy = bt_ctrl::phy::m1;
        unsigned short interval = 100;
        signed char tx_power = 0;
        std::vector<unsigned char> data;
        std::vector<unsigned char> scan_response;
    };
    // What happened to a set: it is on air, it ended (by stop_advertising
    // or with its interface), or a central connected through it (its link
    // reports `opening` and `opened` before this).
    enum class advertising_event { started, stopped, connected };
    using advertising_observer = std::function<void(std::string const& interface,
                                                    unsigned short set, advertising_event what)>;

    radio() = default;
    radio(radio const&) = delete;
    radio& operator=(radio const&) = delete;
    virtual ~radio();

    // Every interface, in a fixed order.
    virtual std::vector<interface_description> interfaces() const = 0;
    // The interface bound when a client names none; one of interfaces().
    virtual std::string default_interface() const = 0;
    // The capabilities of one interface; empty for a name that is not one.
    // Read through find_capabilities when it answers, else interfaces().
    std::optional<bt_ctrl::capabilities> capabilities(std::string const& name) const;
    // The capabilities the radio keeps for an interface, valid until its
    // next change; null when it keeps none to point at (the default) or the
    // name is not an interface. Requests ask this once each, where copying
    // every description would cost more than the request.
    virtual bt_ctrl::capabilities const* find_capabilities(std::string const& name) const;
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

    // Puts a set on air, on an id the caller chose, unique on the interface;
    // `started` is reported. A second call for a set on air replaces what it
    // sends, with no report.
    virtual void start_advertising(std::string const& interface, unsigned short set,
                                   advertising const& what) = 0;
    // Takes it off air; `stopped` is reported. Nothing for an unknown set.
    virtual void stop_advertising(std::string const& interface, unsigned short set) = 0;
    virtual utils::link on_advertising_change(advertising_observer const& observer) = 0;
};

}  // namespace zelvo::tavrin::sim
