// sim::model: the controller's picture of each interface's radio slots and of
// what holds them: reservations, connections and advertisers, each with the
// queue of those that wait for a slot. Requests change it through the request handlers;
// it reports every change as events to the sessions bound to the interface,
// through the sink the controller gives it.
//
// The slot model (docs/simulator.md): an interface has a fixed number of
// slots per type. A reservation holds one for its holder, whether or not a
// connection uses it. An unreserved connection takes a slot that is neither
// reserved nor used, or waits in the queue; after its guaranteed time it may
// be closed to let the head of the queue in. The free count of a type is the
// slots neither reserved nor used by an unreserved connection. Advertisers
// hold advertiser slots the same way, with a queue of their own; a
// connectable one also holds a connection slot for its listening
// connection, which never waits.
//
// Everything it holds is bounded by the interface's slots and the queue
// bound: a reservation needs a free slot, and a connection either holds a
// slot or waits in the bounded queue.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "adv_data.hpp"
#include "gatt_database.hpp"
#include "peer_gatt.hpp"
#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/advertiser.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/sim/radio.hpp"
#include "tavrin/sim/slots.hpp"
#include "tavrin/utils/event_loop.hpp"
#include "tavrin/utils/link.hpp"
#include "tavrin/utils/timer.hpp"

namespace zelvo::tavrin::sim {

class model {
public:
    enum class slot_type { connection, advertiser };

    // Who a reservation belongs to: a client id, which outlives the client's
    // sessions, or for a client without one, its session.
    struct holder {
        std::string client_id;
        unsigned session = 0;  // 0 when client_id is set
        bool operator==(holder const& other) const {
            return client_id == other.client_id && session == other.session;
        }
    };

    struct reservation {
        unsigned short id = 0;
        holder owner;
        slot_type type = slot_type::connection;
        bt_ctrl::address address;  // of unknown type: any peer
        std::string custom_data;
    };

    struct connection {
        using state = bt_ctrl::connection::state;
        unsigned short handle = 0;
        bt_ctrl::address peer;
        bt_ctrl::phy requested_phy = bt_ctrl::phy::unknown;
        state now = state::pending;
        std::optional<unsigned short> reservation;
        bool holds_slot = false;
        // Past its guaranteed time: an unreserved connection that may be
        // rotated out while others wait.
        bool expired = false;
        unsigned long slot_order = 0;  // when it got its slot; older first
        // Set when the controller asked the radio to close it.
        std::optional<bt_ctrl::connection::close_reason> closing_for;
        std::shared_ptr<utils::timer> guarantee;
        // Opened by a central through a connectable advertiser.
        bool incoming = false;
        // The advertiser it listens through, until a central connects.
        std::optional<unsigned short> listening;
        // Whether the radio has a link for it.
        bool linked = false;
    };

    struct advertiser {
        using state = bt_ctrl::advertiser::state;
        unsigned short handle = 0;
        state now = state::pending;
        // What goes on air; its data are kept apart, as a request gave them.
        radio::advertising settings;
        std::vector<unsigned char> channels;
        adv_data::advertising_data data;
        std::optional<unsigned short> reservation;
        // A connectable one's connection: listening, then once a central
        // connected the one it gave. A stopped advertiser is kept only while
        // the connection a central gave through it lives.
        std::optional<unsigned short> connection;
        bool holds_slot = false;
        bool expired = false;
        unsigned long slot_order = 0;
        std::optional<bt_ctrl::advertiser::stop_reason> stopping_for;
        std::shared_ptr<utils::timer> guarantee;
    };

    struct free_counts {
        unsigned connections = 0;
        unsigned advertisers = 0;
    };

    using event_sink = std::function<void(std::string const& interface, std::string const& name,
                                          nlohmann::json const& body)>;

    // The queue's bound per interface: one more waiting connection is
    // refused with insufficient_resources.
    static constexpr std::size_t default_max_queue = 8;
    // The longest custom text a reservation keeps.
    static constexpr std::size_t max_custom_data = 1024;

    model(std::shared_ptr<utils::event_loop> loop, sim::radio& radio, event_sink sink);
    model(model const&) = delete;
    model& operator=(model const&) = delete;
    ~model();

    // Events made while a request is handled wait until its reply is out:
    // a client hears of a connection after the reply that gave its handle.
    class deferral {
    public:
        explicit deferral(model& target);
        deferral(deferral const&) = delete;
        deferral& operator=(deferral const&) = delete;
        ~deferral();

    private:
        model& target;
    };

    void set_max_queue(std::size_t bound) { max_queue = bound; }
    std::size_t get_max_queue() const { return max_queue; }

    free_counts free(std::string const& interface) const;
    nlohmann::json free_json(std::string const& interface) const;
    // {"maxConnections": ..., "connections": {"<handle>": {"piq": ...}}}:
    // every connection, with 0 for one that holds a slot and its place from
    // 1 for one that waits.
    nlohmann::json connections_json(std::string const& interface) const;
    // {"maxAdvertisers": ..., "advertisers": {"<handle>": {"piq": ...}}}, as
    // for connections; stopped advertisers are not listed.
    nlohmann::json advertisers_json(std::string const& interface) const;

    // Reservations.
    std::vector<reservation const*> reservations_of(std::string const& interface,
                                                    holder const& owner) const;
    reservation const* find_reservation(std::string const& interface, unsigned short id) const;
    // False when no slot of the type is free.
    std::optional<unsigned short> reserve(std::string const& interface, reservation const& claim);
    // Puts a new reservation in the old one's place, in one step. False
    // when the new type has no free slot.
    std::optional<unsigned short> replace(std::string const& interface, unsigned short old_id,
                                          reservation const& claim);
    // Removes it; a connection never uses a removed reservation.
    void release(std::string const& interface, unsigned short id);
    // The reservation's connection, if one uses it now.
    connection const* user_of(std::string const& interface, unsigned short id) const;
    // Whether a connection or an advertiser uses it now.
    bool in_use(std::string const& interface, unsigned short id) const;
    // Drops the reservations of a session's client without a client id.
    void end_session(unsigned session);

    // Connections.
    connection const* find_connection(std::string const& interface, unsigned short handle) const;
    connection const* find_connection_to(std::string const& interface,
                                         bt_ctrl::address const& peer) const;
    // Whether an unreserved connection could start now or wait in the queue.
    bool can_take_or_wait(std::string const& interface) const;
    // Opens a connection: it takes its reservation's slot, a free slot, or
    // a place in the queue. The caller checked can_take_or_wait() for an
    // unreserved one. The handle of the new connection.
    unsigned short open(std::string const& interface, bt_ctrl::address const& peer,
                        bt_ctrl::phy phy, std::optional<unsigned short> reservation);
    // Begins the close: "connClosing" now, "connClosed" with the reason when
    // the radio has closed it (at once for one without a slot).
    void close(std::string const& interface, unsigned short handle,
               bt_ctrl::connection::close_reason reason);
    // Moves the connection onto the reservation, or with none onto a free
    // unreserved slot. False when no slot is free for that.
    bool set_reservation(std::string const& interface, unsigned short handle,
                         std::optional<unsigned short> reservation);
    // The guaranteed time the interface gives an unreserved connection; 0
    // for a reserved one, which is never rotated out.
    std::chrono::seconds guaranteed_time(std::string const& interface,
                                         std::optional<unsigned short> reservation) const;

    // Advertisers.
    advertiser const* find_advertiser(std::string const& interface, unsigned short handle) const;
    // The advertiser that uses the reservation now.
    advertiser const* advertiser_of(std::string const& interface, unsigned short id) const;
    // Whether an advertiser could start now or wait: it has its
    // reservation, a free slot, or a place in the queue.
    bool can_advertise(std::string const& interface,
                       std::optional<unsigned short> reservation) const;
    // Whether a listening connection could take a slot now.
    bool can_listen(std::string const& interface, std::optional<unsigned short> reservation) const;
    // Starts one, after the caller checked can_advertise() (and
    // can_listen() for a connectable one): "advStarting" when it has a
    // slot, "advPending" when it waits; a connectable one gets its listening
    // connection ("connOpening" or "connPending" alike). Its handle.
    unsigned short start(std::string const& interface, advertiser const& wanted,
                         std::optional<unsigned short> connection_reservation);
    // Begins the stop: "advStopping" now (and "connClosing" for its
    // listening connection), "advStopped" with the reason once the radio
    // has it off air (at once for one that waits), then "connClosed".
    void stop(std::string const& interface, unsigned short handle,
              bt_ctrl::advertiser::stop_reason reason);
    // New data, on air at once; "advDataChanged" to every client.
    void set_data(std::string const& interface, unsigned short handle,
                  adv_data::advertising_data const& data);
    // As set_reservation() for a connection.
    bool set_advertiser_reservation(std::string const& interface, unsigned short handle,
                                    std::optional<unsigned short> reservation);

    // The interface's GATT server database: it outlives the sessions, and
    // is emptied when the interface leaves `enabled`.
    gatt_database& database(std::string const& interface);
    // Null for an interface that has none yet.
    gatt_database const* find_database(std::string const& interface) const;
    // "gattsDbUpdated" with the handles, to every session bound to the
    // interface; nothing when there are none.
    void database_changed(std::string const& interface, std::set<unsigned> const& handles);

    // The peers' side of the GATT server on each connection.
    peer_gatt& peers() { return peer_operations; }
    peer_gatt const& peers() const { return peer_operations; }

    // Sends the event to every session bound to the interface, after the
    // reply of the request being handled, if any.
    void emit(std::string const& interface, std::string const& name, nlohmann::json body);

    // The interface left `enabled`: every advertiser stops and every
    // connection ends with interfaceUnavailable; the GATT server database
    // is emptied. Reservations stay.
    void interface_down(std::string const& interface);

private:
    struct interface_state {
        std::map<unsigned short, reservation> reservations;
        std::map<unsigned short, connection> connections;
        std::deque<unsigned short> queue;
        std::map<unsigned short, advertiser> advertisers;
        std::deque<unsigned short> advertiser_queue;
        unsigned short next_reservation = 1;
        unsigned short next_connection = 1;
        unsigned short next_advertiser = 1;
    };

    interface_state& state_of(std::string const& interface);
    interface_state const* find_state(std::string const& interface) const;
    sim::slots slots_of(std::string const& interface) const;
    unsigned unreserved_in_use(interface_state const& state) const;
    unsigned unreserved_advertising(interface_state const& state) const;
    unsigned short new_connection(interface_state& state);
    std::optional<unsigned short> reserve_quietly(std::string const& interface,
                                                  reservation const& claim);

    void flush();
    void free_counts_changed(std::string const& interface, free_counts before);
    // "connPending", "connOpening", "connOpened" or "connClosing", as the
    // connection's state says.
    void state_event(std::string const& interface, connection const& entry);

    void take_slot(std::string const& interface, connection& entry);
    void start_guarantee(std::string const& interface, connection& entry);
    // Lets waiting connections in while unreserved slots are free, and
    // rotates out expired connections while some still wait; then tells of
    // the queue if it or `changed` says it changed, and of the free counts
    // if they differ from `before`.
    void serve_queue(std::string const& interface, free_counts before, bool changed);
    // With `before`, the free counts are reported against it.
    void closed(std::string const& interface, unsigned short handle,
                bt_ctrl::connection::close_reason reason, std::optional<free_counts> before = {});
    void on_link(std::string const& interface, unsigned short link, radio::link_event what);

    void advertiser_event(std::string const& interface, advertiser const& entry);
    // Puts it on air; its listening connection, if waiting, opens (and is
    // told of unless `announce_listener` is false).
    void take_advertiser_slot(std::string const& interface, advertiser& entry,
                              bool announce_listener = true);
    void start_advertiser_guarantee(std::string const& interface, advertiser& entry);
    // As serve_queue() for advertisers; no report of the free counts
    // without `before`.
    void serve_advertiser_queue(std::string const& interface, std::optional<free_counts> before,
                                bool changed);
    // Off air: "advStopped", its slot to the queue, its listening connection
    // closed.
    void stopped(std::string const& interface, unsigned short handle,
                 bt_ctrl::advertiser::stop_reason reason);
    void on_advertising(std::string const& interface, unsigned short set,
                        radio::advertising_event what);

    std::shared_ptr<utils::event_loop> loop;
    sim::radio& radio;
    event_sink sink;
    std::map<std::string, interface_state> interfaces;
    std::map<std::string, gatt_database> databases;
    peer_gatt peer_operations;
    std::size_t max_queue = default_max_queue;
    unsigned long next_slot_order = 0;
    unsigned deferrals = 0;
    std::vector<std::tuple<std::string, std::string, nlohmann::json>> pending;
    utils::link link_watch;
    utils::link advertising_watch;
    std::shared_ptr<int> alive = std::make_shared<int>(0);
};

}  // namespace zelvo::tavrin::sim
