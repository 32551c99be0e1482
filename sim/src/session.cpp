#include "session.hpp"

#include <utility>

namespace zelvo::tavrin::sim {

session::session(unsigned id, std::shared_ptr<utils::event_loop> loop,
                 std::shared_ptr<utils::connection> connection)
    : id(id),
      connection(std::move(connection)),
      server(loop,
             [weak = std::weak_ptr<utils::connection>(this->connection)](
                 std::vector<unsigned char> const& bytes) {
                 auto const target = weak.lock();
                 return target && target->send(bytes);
             }),
      loop(std::move(loop)) {}

session::~session() {
    end();
}

void session::answer_after(quorl_server::responder const& responder, answer const& reply,
                           std::chrono::seconds delay) {
    enqueue(outgoing{next_key++, true, nullptr, responder, reply, {}}, delay);
}

void session::send_event(std::string const& name, quorl_utils::payload const& payload,
                         std::chrono::seconds delay) {
    enqueue(outgoing{next_key++, true, nullptr, std::nullopt, payload, name}, delay);
}

void session::enqueue(outgoing message, std::chrono::seconds delay) {
    if (delay > std::chrono::seconds(0)) {
        message.due = false;
        message.timer = loop->create_timer();
        message.timer->set_handler([weak = weak_from_this(), key = message.key] {
            auto const self = weak.lock();
            if (!self) {
                return;
            }
            for (auto& waiting : self->outbox) {
                if (waiting.key == key) {
                    waiting.due = true;
                }
            }
            self->flush();
        });
        message.timer->start(delay);
    }
    outbox.push_back(std::move(message));
    flush();
}

void session::flush() {
    // Sending may re-enter the session (a writer that fails closes the
    // connection), so each message leaves the outbox before it is sent.
    while (!outbox.empty() && outbox.front().due) {
        auto const message = std::move(outbox.front());
        outbox.pop_front();
        send(message);
    }
}

void session::hold(quorl_server::responder const& responder) {
    held.push_back(responder);
}

void session::release_held() {
    // Swapped out first: dropping a responder writes to the bus, which must
    // find the list in a consistent state.
    std::vector<quorl_server::responder> dropped;
    dropped.swap(held);
}

void session::end() {
    for (auto const& watch : {handshake_watch, frame_watch}) {
        if (watch) {
            watch->stop();
        }
    }
    for (auto& waiting : outbox) {
        if (waiting.timer) {
            waiting.timer->stop();
        }
    }
    std::deque<outgoing> stopped;
    stopped.swap(outbox);
    release_held();
}

void session::send(outgoing const& message) {
    if (!message.responder) {
        server.send_event(message.event_name, std::get<quorl_utils::payload>(message.reply));
    } else if (auto const* code = std::get_if<ctrl_error>(&message.reply)) {
        message.responder->fail(static_cast<int>(*code));
    } else {
        message.responder->reply(std::get<quorl_utils::payload>(message.reply));
    }
}

}  // namespace zelvo::tavrin::sim
