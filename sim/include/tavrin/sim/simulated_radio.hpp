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
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tavrin/misc/signal.hpp"
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

    // Peers. add_peer replaces one of the same address, and starts the links
    // that wait for it; false beyond peer::max_peers. remove_peer takes it out
    // of reach: its open links close, its others wait again.
    bool add_peer(sim::peer const& description);
    bool remove_peer(bt_ctrl::address const& address);
    std::vector<sim::peer> peers() const;

    // Peer actions.
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

    std::vector<config::interface> entries;
    std::string default_name;
    misc::signal<void, std::string const&, bt_ctrl::state> status_changed;

    std::vector<sim::peer> reachable;
    std::map<link_key, link_entry> links;
    std::shared_ptr<utils::event_loop> loop;
    misc::signal<void, std::string const&, unsigned short, link_event> link_changed;
    // Reports and timers hold it weakly: they do nothing once the radio is
    // gone.
    std::shared_ptr<int> alive = std::make_shared<int>(0);
};

}  // namespace zelvo::tavrin::sim
