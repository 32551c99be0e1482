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
    if (delay <= std::chrono::seconds(0)) {
        return send(responder, reply);
    }
    auto const key = next_delayed++;
    auto timer = loop->create_timer();
    timer->set_handler([weak = weak_from_this(), key] {
        auto const self = weak.lock();
        if (!self) {
            return;
        }
        auto const found = self->delayed.find(key);
        if (found == self->delayed.end()) {
            return;
        }
        // Moved out before the erase: the timer running this handler stays
        // alive until the handler returns.
        auto const due = std::move(found->second);
        self->delayed.erase(found);
        send(due.responder, due.reply);
    });
    timer->start(delay);
    delayed.emplace(key, delayed_reply{std::move(timer), responder, reply});
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
    for (auto& entry : delayed) {
        entry.second.timer->stop();
    }
    std::map<unsigned, delayed_reply> stopped;
    stopped.swap(delayed);
    release_held();
}

void session::send(quorl_server::responder const& responder, answer const& reply) {
    if (auto const* code = std::get_if<ctrl_error>(&reply)) {
        responder.fail(static_cast<int>(*code));
    } else {
        responder.reply(std::get<quorl_utils::payload>(reply));
    }
}

}  // namespace zelvo::tavrin::sim
