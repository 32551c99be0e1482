// sim::session: one served connection: its bus endpoint, its handshake state
// and the replies it holds back (delayed or held unanswered).
//
// What the session sends leaves in the order it was made, as on one stream:
// a delayed reply holds back every reply and event made after it.
//
// The controller owns sessions by shared_ptr; the connection's handlers and
// the delay timers refer to a session weakly, so none of them keeps it alive.
// The session owns its connection, its timers and the responders it holds.
#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "quorl/payload.hpp"
#include "quorl/server.hpp"
#include "requests.hpp"
#include "tavrin/sim/ctrl_error.hpp"
#include "tavrin/utils/connection.hpp"
#include "tavrin/utils/event_loop.hpp"
#include "tavrin/utils/timer.hpp"

namespace zelvo::tavrin::sim {

class session : public std::enable_shared_from_this<session> {
public:
    // A reply's body, or the code the request is refused with.
    using answer = std::variant<quorl_utils::payload, ctrl_error>;

    // The server writes to the connection; the caller feeds it what the
    // connection receives.
    session(unsigned id, std::shared_ptr<utils::event_loop> loop,
            std::shared_ptr<utils::connection> connection);
    session(session const&) = delete;
    session& operator=(session const&) = delete;
    ~session();

    // Sends the answer now, or after `delay` unless the session ends first.
    void answer_after(quorl_server::responder const& responder, answer const& reply,
                      std::chrono::seconds delay);
    // Sends the event now, or after `delay`, and in either case after the
    // delayed messages made before it.
    void send_event(std::string const& name, quorl_utils::payload const& payload,
                    std::chrono::seconds delay = std::chrono::seconds(0));
    // Keeps the responder unanswered until release_held() or end().
    void hold(quorl_server::responder const& responder);
    // Drops the held responders: the bus tells the client they went
    // unanswered.
    void release_held();
    // Stops the delayed replies, the watches, and drops everything held.
    // Idempotent.
    void end();
    // Replies held unanswered or waiting behind a delayed one.
    std::size_t waiting() const { return held.size() + outbox.size(); }

    unsigned const id;
    std::shared_ptr<utils::connection> const connection;
    quorl_server server;
    requests::handshake_state handshake;
    // Fire when the client has not begun its handshake in time, or has stayed
    // in the middle of a frame too long. Set by the controller.
    std::shared_ptr<utils::timer> handshake_watch;
    std::shared_ptr<utils::timer> frame_watch;
    bool frame_watched = false;

private:
    // A reply (with its responder) or an event, waiting for its turn.
    struct outgoing {
        unsigned key = 0;
        bool due = true;
        std::shared_ptr<utils::timer> timer;
        std::optional<quorl_server::responder> responder;
        answer reply;
        std::string event_name;
    };

    // Puts the message in the outbox, due now or after `delay`, and sends
    // what is due.
    void enqueue(outgoing message, std::chrono::seconds delay);
    // Sends the due messages at the head of the outbox, in order.
    void flush();
    void send(outgoing const& message);

    std::shared_ptr<utils::event_loop> loop;
    std::vector<quorl_server::responder> held;
    std::deque<outgoing> outbox;
    unsigned next_key = 0;
};

}  // namespace zelvo::tavrin::sim
