// sim::peer_gatt: the GATT server of each connection as its peer uses it.
// A peer's read or write of a characteristic value or a descriptor becomes
// an event to every session bound to the interface; the client's answer
// completes the oldest pending operation of its kind for that connection
// and attribute. Values the client pushes reach the peer if it subscribed
// through the characteristic's client characteristic configuration
// descriptor (UUID 0x2902), whose writes the client answers like any other.
//
// Per connection it keeps the pending operations (at most max_pending_operations, each
// ended by the ATT transaction time), the values received (the last
// max_peer_values), the subscriptions, and the timers of a scripted central's
// steps; all of it goes with the connection, whose pending operations end
// "disconnected". The owner of the model owns this object through it; its
// timers hold it weakly.
//
// Outcomes reach the peer's handler on a later turn of the loop, never
// inside the call that caused them. Each operation and each outcome gives a
// log line.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gatt_database.hpp"
#include "tavrin/bt_ctrl/capabilities.hpp"
#include "tavrin/sim/ctrl_error.hpp"
#include "tavrin/sim/peer_gatt.hpp"
#include "tavrin/sim/radio.hpp"
#include "tavrin/utils/event_loop.hpp"
#include "tavrin/utils/timer.hpp"

namespace zelvo::tavrin::sim {

class model;

class peer_gatt {
public:
    using log_sink = std::function<void(std::string const&)>;
    enum class operation { read, write };

    // The client characteristic configuration descriptor.
    static std::string const& cccd_uuid();

    peer_gatt(std::shared_ptr<utils::event_loop> loop, model& resources, sim::radio& radio);
    peer_gatt(peer_gatt const&) = delete;
    peer_gatt& operator=(peer_gatt const&) = delete;
    ~peer_gatt();

    void set_log(log_sink sink) { log = std::move(sink); }

    // The peer's operations; false when refused at once (see
    // docs/simulator-gatt.md, Peers' GATT operations).
    bool read(std::string const& interface, unsigned short connection, unsigned attribute,
              unsigned offset, att_handler done);
    bool write(std::string const& interface, unsigned short connection, unsigned attribute,
               std::vector<unsigned char> const& data, unsigned offset, bool with_response,
               att_handler done);
    bool subscribe(std::string const& interface, unsigned short connection, unsigned characteristic,
                   bool indications, att_handler done);
    std::vector<peer_value> values(std::string const& interface, unsigned short connection) const;
    // Characteristics and descriptors of that type, in handle order.
    std::vector<unsigned> find(std::string const& interface, gatt::uuid const& type) const;

    // The client's answer, checked by the caller: completes the oldest
    // pending operation of that kind for the attribute. One that answers
    // nothing is dropped with a log line.
    void answer(std::string const& interface, unsigned short connection, unsigned attribute,
                operation what, std::string const& status, std::vector<unsigned char> const& data);
    // A value the client pushes, checked by the caller: false when the
    // peer has not subscribed to that kind.
    bool deliver(std::string const& interface, unsigned short connection, unsigned characteristic,
                 std::vector<unsigned char> const& data, bool indication);

    // The connection opened: a scripted central starts its steps.
    void opened(std::string const& interface, unsigned short connection);
    // The connection ended: its pending operations end "disconnected".
    void ended(std::string const& interface, unsigned short connection);

    // The interface's capabilities, and the MTU of an open connection (0
    // for one that is not open).
    bt_ctrl::capabilities capabilities(std::string const& interface) const;
    unsigned short mtu(std::string const& interface, unsigned short connection) const;

private:
    using link_key = std::pair<std::string, unsigned short>;
    struct pending {
        unsigned id = 0;
        operation what = operation::read;
        unsigned attribute = 0;
        std::string label;  // for the log: "read 3 offset 0"
        att_handler done;
        std::shared_ptr<utils::timer> timer;
        // A write to a CCCD: the characteristic and the bits it sets, if
        // the value is a configuration.
        std::optional<std::pair<unsigned, unsigned char>> configures;
    };
    struct link_state {
        std::deque<pending> operations;
        std::deque<peer_value> received;
        std::map<unsigned, unsigned char> subscriptions;  // characteristic, bits
        std::vector<std::shared_ptr<utils::timer>> steps;
    };

    // The attribute a peer may use: a characteristic or descriptor of an
    // enabled service.
    gatt_database::attribute const* usable(std::string const& interface, unsigned handle) const;
    // The CCCD of a characteristic, 0 for none.
    unsigned cccd_of(std::string const& interface, unsigned characteristic) const;
    bool open(std::string const& interface, unsigned short connection) const;
    // Puts a new pending operation in place and starts its timer.
    void begin(link_key const& key, pending entry);
    void finish(link_key const& key, pending entry, att_outcome const& outcome);
    void expire(link_key const& key, unsigned id);
    void run_step(link_key const& key, gatt_step const& step);
    void note(link_key const& key, std::string const& text) const;

    std::shared_ptr<utils::event_loop> loop;
    model& resources;
    sim::radio& radio;
    log_sink log;
    std::map<link_key, link_state> links;
    unsigned next_id = 1;
    std::shared_ptr<int> alive = std::make_shared<int>(0);
};

}  // namespace zelvo::tavrin::sim
