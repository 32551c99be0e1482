// sim::controller: the controller's side of the wire protocol, served over
// accepted connections on the application's event loop.
//
// Each accepted connection gets a session of its own: its own bus endpoint
// and its own handshake state and bound interface. Many sessions run at once.
// A session ends when its connection reports closed. The controller keeps
// its sessions and connections; they refer back to it weakly, so either side
// may go first: connections that outlive the controller are closed by its
// destructor and serve nothing more, and a controller outlives its
// connections with nothing left behind. The radio is shared and must only be
// touched from the loop's thread.
//
// Requests are answered as docs/simulator.md describes; a name the
// controller does not serve is refused with unsupported_functionality.
//
// The fault API changes how the controller behaves from the next request,
// connection or status change on; settings are data so that a control
// channel can drive them as well.
//
// Whatever one client sends, what the controller holds for it is bounded:
// one message and the bytes of an incomplete frame by config::max_message;
// its unread replies by the connection's high-water mark (a write refused
// drops the client as a slow reader); the sessions by limits::max_sessions;
// a client that has not begun its handshake, or that stays in the middle of a
// frame, by the timeouts of `limits`; the request log by its own bound, and
// only when a test asks for it; reservations and connections by the
// interface's slots and limits::max_queue, advertising data by their
// limits on air; a peer's GATT operations waiting for answers and the
// values it keeps by max_pending_operations and max_peer_values per
// connection. Each dropped client gets a log line that says why.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/gatt/uuid.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/sim/ctrl_error.hpp"
#include "tavrin/sim/peer_gatt.hpp"
#include "tavrin/sim/radio.hpp"
#include "tavrin/sim/simulated_radio.hpp"
#include "tavrin/utils/connection.hpp"
#include "tavrin/utils/event_loop.hpp"

namespace zelvo::tavrin::sim {

class controller {
public:
    using connection_handler = std::function<void(std::shared_ptr<utils::connection> const&)>;
    using log_handler = std::function<void(std::string const&)>;

    // What one client may make the controller hold, and for how long.
    struct limits {
        // Connections beyond this many live sessions are closed at once.
        std::size_t max_sessions = 32;
        // A session that has not sent a "hdshkStart" by then is dropped.
        std::chrono::seconds handshake_timeout{10};
        // A session that has held an incomplete frame that long is dropped.
        std::chrono::seconds frame_timeout{10};
        // Requests held unanswered (stop_answering) or behind a delayed reply
        // (delay_replies) for one session; one more drops the session.
        std::size_t max_waiting_replies = 4096;
        // Connections that wait for a slot, per interface, and advertisers
        // likewise; one more is refused with insufficient_resources. Applies
        // from the next request.
        std::size_t max_queue = 8;
    };

    // How long an injected fault stays: for the next matching request only,
    // or until cleared.
    enum class repeat { once, always };

    struct session_info {
        unsigned id;
        std::string bound_interface;  // empty until a handshake finishes
        std::string client_id;        // as the last handshake gave it, or empty
    };

    struct received_request {
        unsigned session;
        std::string name;
        std::optional<nlohmann::json> body;  // empty when it was not JSON
        std::size_t size;                    // of the name and body on the wire
    };

    controller(std::shared_ptr<utils::event_loop> loop, std::shared_ptr<sim::radio> radio,
               version_info versions);
    // On a simulated_radio made from the config. Throws as config::check().
    controller(std::shared_ptr<utils::event_loop> loop, config const& settings);
    controller(controller const&) = delete;
    controller& operator=(controller const&) = delete;
    // Closes every connection still served.
    ~controller();

    // A handler for a listener (test_loop::listen, asio_listener): it serves
    // each connection it is given. It does nothing once the controller is
    // gone, so the connection, held by no one, closes.
    connection_handler accept_handler() const;
    // Serves one connected connection until it closes. The connection's
    // receive and state handlers become the controller's.
    void serve(std::shared_ptr<utils::connection> const& connection);

    sim::radio& radio() const;
    // The radio as a simulated one, for peer actions; null when the
    // controller serves another kind.
    simulated_radio* simulation() const;

    // Apply to sessions accepted from now on; max_sessions at once.
    void set_limits(limits const& settings);
    limits const& get_limits() const;

    // One line per dropped client, with the reason: malformed frame,
    // oversized message, slow reader, idle, too many sessions, too many
    // waiting replies. At most ten such lines a second; the rest are counted
    // in one line when the second is over. With `verbose`, also a line per
    // accepted and per closed client. Every peer's GATT operation, its
    // outcome and each value pushed to a peer get a line too, starting
    // "peer INTERFACE connection N: ". Lines have no newline.
    void set_log_handler(log_handler handler, bool verbose = false);

    // Peers' GATT operations: the device at the other end of an open
    // connection reads, writes and subscribes, as its central would. Each is
    // false when refused at once, and changes nothing then: no open
    // connection of that handle; no characteristic or descriptor of that
    // handle in an enabled service; already max_pending operations waiting;
    // for a write, more data than the MTU less 3 takes, or a descriptor
    // written without a response; for a subscription, a characteristic
    // without a configuration descriptor (UUID 0x2902). Otherwise the
    // clients of the interface get the event, and `done` (may be empty) runs
    // once, on a later turn, with the client's answer, "timeout" after 30 s
    // without one, or "disconnected" when the connection ends first. A write
    // without a response completes "success" at once.
    bool peer_read(std::string const& interface, unsigned short connection, unsigned int attribute,
                   unsigned int offset, att_handler done);
    bool peer_write(std::string const& interface, unsigned short connection, unsigned int attribute,
                    std::vector<unsigned char> const& data, unsigned int offset, bool with_response,
                    att_handler done);
    // Writes the characteristic's configuration descriptor: 01 00 for
    // notifications, 02 00 for indications. The subscription holds once the
    // client answers the write "success".
    bool peer_subscribe(std::string const& interface, unsigned short connection,
                        unsigned int characteristic, bool indications, att_handler done);
    // The notifications and indications that reached the peer on the open
    // connection, oldest first; the last 64 are kept.
    std::vector<peer_value> peer_values(std::string const& interface,
                                        unsigned short connection) const;
    // The characteristics and descriptors of that type in the interface's
    // database, in handle order.
    std::vector<unsigned int> find_attributes(std::string const& interface,
                                              gatt::uuid const& type) const;

    // Introspection, for tests.
    std::size_t session_count() const;
    // In order of acceptance.
    std::vector<session_info> sessions() const;
    // The request log, for tests: off until a bound is given. It then keeps
    // the requests received since, in order of arrival, held and refused
    // ones included, and forgets the oldest when their names and bodies
    // together would take more than `max_bytes` on the wire (a parsed body
    // takes a few times its wire size). 0 turns the log off and empties it.
    void keep_request_log(std::size_t max_bytes);
    std::deque<received_request> const& requests() const;
    void clear_requests();

    // Faults.
    //
    // Changes the status in the radio, which reports "ifStatusChanged" to
    // every session bound to that interface. False for an unknown name.
    bool set_interface_status(std::string const& name, bt_ctrl::state status);
    // Closes every connection, or one; each session ends when its
    // connection reports closed. drop_client is false for an id that is not
    // a live session.
    void drop_clients();
    bool drop_client(unsigned session);
    // The next `count` connections are closed as soon as they are served,
    // before a byte is read. Replaces an earlier count.
    void refuse_connections(unsigned count);
    // Requests of that name are refused with `code` (the handler does not
    // run, so the request has no effect). A later call for the same name
    // replaces the rule. Throws invalid_argument for a code that a
    // controller never sends (outside 2 to 46).
    void fail_request(std::string const& name, ctrl_error code, repeat how);
    // The reply to requests of that name, whatever it would have been, is
    // replaced by a payload tagged JSON that is not JSON. The handler still
    // runs.
    void malform_reply(std::string const& name, repeat how);
    // The reply to requests of that name waits that long (or as long as
    // delay_replies says, if that is longer); what the session sends after
    // it waits behind it. A later call for the same name replaces the rule.
    void delay_reply(std::string const& name, std::chrono::seconds delay, repeat how);
    // Requests of that name take effect, but their reply is held unanswered
    // until stop_answering(false) or the session's end, so that the client's
    // own reply timeout fires.
    void drop_reply(std::string const& name, repeat how);
    // Events of that name, to every session they would reach: not sent at
    // all, sent as a JSON-tagged payload that does not parse, or sent after
    // the delay (what the session sends after them waits behind them). One
    // rule per event name; a later call replaces it. "once" is the next
    // event of that name, whoever it goes to.
    void drop_event(std::string const& name, repeat how);
    void malform_event(std::string const& name, repeat how);
    void delay_event(std::string const& name, std::chrono::seconds delay, repeat how);
    // Drops every rule of the calls above and of fail_request and
    // malform_reply.
    void clear_failures();
    // Holds every reply that long before sending it, on a timer of the loop.
    // Zero sends replies at once. Applies to requests received from now on.
    // Events, and replies made later, wait behind a delayed reply, as they
    // would on one stream.
    void delay_replies(std::chrono::seconds delay);
    // While on, requests are held unanswered and have no effect, so that the
    // client's own reply timeout fires. Turning it off drops the held
    // requests, and the bus tells the client they went unanswered; at the
    // end of a session they are dropped with the connection.
    void stop_answering(bool stop);

private:
    class core;
    std::shared_ptr<core> self;
};

}  // namespace zelvo::tavrin::sim
