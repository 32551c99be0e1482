// sim::simulated_radio: a radio made of the interfaces and peers of a config.
// Status changes happen at once, inside set_status(), which makes it
// deterministic on any event loop. Links follow the peers: one to a peer in
// reach reports `opening` on the next turn of the loop and, after the peer's
// accept delay, `opened` (or `closed` if it refuses); one to an address no
// peer has waits until such a peer is added.
//
// The peer actions stand for what a peer does on its own: each applies to
// every link open to it, is reported on the next turn of the loop, and is
// false when no peer has the address.
//
// Advertising sets go on air at once and report `started` on the next turn.
// Centrals connect through connectable sets: asked to with central_connect,
// or, for the config's centrals that have a delay, on their own, each once,
// that long after a connectable set went on air.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tavrin/misc/signal.hpp"
#include "tavrin/sim/central.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/sim/peer.hpp"
#include "tavrin/sim/radio.hpp"
#include "tavrin/utils/timer.hpp"

namespace zelvo::tavrin::sim {

class simulated_radio : public radio {
public:
    // Throws runtime_error as config::check() does.
    explicit simulated_radio(config const& settings);
    ~simulated_radio() override;

    std::vector<interface_description> interfaces() const override;
    std::string default_interface() const override;
    bt_ctrl::capabilities const* find_capabilities(std::string const& name) const override;
    std::optional<bt_ctrl::state> status(std::string const& name) const override;
    std::optional<bt_ctrl::address> address(std::string const& name) const override;
    std::optional<sim::slots> slots(std::string const& name) const override;
    bool set_status(std::string const& name, bt_ctrl::state status) override;
    utils::link on_status_change(status_observer const& observer) override;

    void use_loop(std::shared_ptr<utils::event_loop> loop) override;
    void open_link(std::string const& interface, unsigned short link, bt_ctrl::address const& peer,
                   bt_ctrl::phy phy) override;
    void close_link(std::string const& interface, unsigned short link) override;
    std::optional<link_status> status_of(std::string const& interface,
                                         unsigned short link) const override;
    bool set_phy(std::string const& interface, unsigned short link, bt_ctrl::phy phy) override;
    bool set_params(std::string const& interface, unsigned short link,
                    connection_params const& params) override;
    bool set_latency(std::string const& interface, unsigned short link, bool enabled) override;
    utils::link on_link_change(link_observer const& observer) override;

    void start_advertising(std::string const& interface, unsigned short set,
                           advertising const& what) override;
    void stop_advertising(std::string const& interface, unsigned short set) override;
    utils::link on_advertising_change(advertising_observer const& observer) override;

    // Centrals. The set is the controller's advertiser handle. A central
    // that connects ends the set and opens its link to the central: the
    // link reports `opening` and `opened`, then the set `connected`, on the
    // next turns of the loop. Refused for a set that is not on air or not
    // connectable.
    central_result central_connect(std::string const& interface, unsigned short set,
                                   sim::central const& who);
    // What a central's scan finds of the set; empty when none of that handle
    // is on air on the interface.
    std::optional<scan_report> central_scan(std::string const& interface, unsigned short set) const;
    // The GATT script of the central that opened the link; empty for a link
    // the controller opened, or one no longer known.
    std::vector<gatt_step> central_script(std::string const& interface, unsigned short link) const;
    // The sets on air, by interface and handle.
    std::vector<std::pair<std::string, unsigned short>> advertising_sets() const;
    // A central with a delay waits for a connectable set from now on; false
    // beyond central::max_centrals, or for a script of more than
    // gatt_step::max_steps. central_connect() runs the first max_steps
    // steps of a longer script.
    bool add_central(sim::central const& description);

    // Peers. add_peer replaces one of the same address, and starts the links
    // that wait for it; false beyond peer::max_peers. remove_peer takes it out
    // of reach: its open links close, its others wait again.
    bool add_peer(sim::peer const& description);
    bool remove_peer(bt_ctrl::address const& address);
    std::vector<sim::peer> peers() const;

    // Peer actions. peer_disconnect takes a central's address too.
    bool peer_disconnect(bt_ctrl::address const& address);
    bool peer_set_mtu(bt_ctrl::address const& address, unsigned short mtu);
    bool peer_set_phy(bt_ctrl::address const& address, bt_ctrl::phy phy);
    bool peer_set_params(bt_ctrl::address const& address, connection_params const& params);
    // No event: a client reads the signal when it asks.
    bool peer_set_signal(bt_ctrl::address const& address, bt_ctrl::signal const& signal);

private:
    using link_key = std::pair<std::string, unsigned short>;
    struct link_entry {
        bt_ctrl::address peer;
        bt_ctrl::phy requested = bt_ctrl::phy::unknown;
        bool reached = false;
        link_status now;
        std::shared_ptr<utils::timer> accept;
        // The script of the central that opened it.
        std::vector<gatt_step> script;
    };

    config::interface const* find(std::string const& name) const;
    sim::peer* find_peer(bt_ctrl::address const& address);
    sim::peer const* find_peer(bt_ctrl::address const& address) const;
    // Reaches the peer: `opening` now, `opened` or `closed` after its delay.
    void reach(link_key const& key, link_entry& entry, sim::peer const& target);
    // Reports on a later turn of the loop.
    void report(link_key const& key, link_event what);
    // Applies the change to every open link to the peer and reports it.
    bool for_open_links(bt_ctrl::address const& address, link_event what,
                        std::function<void(link_key const&, link_entry&)> const& change);

    using set_key = std::pair<std::string, unsigned short>;
    struct waiting_central {
        sim::central description;
        bool done = false;
        std::shared_ptr<utils::timer> timer;
    };
    void report_set(set_key const& key, advertising_event what);
    // Arms the waiting centrals, once a connectable set is on air.
    void arm_centrals();
    void central_due(std::size_t index);
    void end_interface_sets(std::string const& interface);

    std::vector<config::interface> entries;
    std::string default_name;
    misc::signal<void, std::string const&, bt_ctrl::state> status_changed;

    std::vector<sim::peer> reachable;
    std::map<link_key, link_entry> links;
    std::shared_ptr<utils::event_loop> loop;
    misc::signal<void, std::string const&, unsigned short, link_event> link_changed;
    std::map<set_key, advertising> on_air;
    misc::signal<void, std::string const&, unsigned short, advertising_event> set_changed;
    std::vector<waiting_central> centrals;
    // Reports and timers hold it weakly: they do nothing once the radio is
    // gone.
    std::shared_ptr<int> alive = std::make_shared<int>(0);
};

}  // namespace zelvo::tavrin::sim
