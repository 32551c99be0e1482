#include "quorl/server.hpp"

#include "endpoint.hpp"

namespace zelvo {

using quorl_detail::status_space;

quorl_server::responder::state::state(std::weak_ptr<quorl_detail::endpoint> owner, std::uint32_t id)
    : owner(std::move(owner)), id(id), done(id == 0) {}

quorl_server::responder::state::~state() {
    if (done) {
        return;
    }
    // A destructor can't report a failed write; the requester's timeout is
    // the fallback then.
    try {
        give(status_space::exchange,
             static_cast<std::int32_t>(quorl_utils::exchange_error::unanswered), {});
    } catch (...) {
    }
}

bool quorl_server::responder::state::give(status_space space, std::int32_t code,
                                          quorl_utils::payload const& payload) {
    if (done) {
        return false;
    }
    done = true;
    auto const alive = owner.lock();
    return alive && alive->answer(id, space, code, payload);
}

bool quorl_server::responder::reply(quorl_utils::payload const& payload) const {
    return answer->give(status_space::none, 0, payload);
}

bool quorl_server::responder::fail(int app_code) const {
    return answer->give(status_space::application, app_code, {});
}

bool quorl_server::responder::answered() const {
    return answer->answered();
}

quorl_server::quorl_server(std::shared_ptr<quorl_utils::event_loop> const& loop,
                           quorl_detail::byte_writer writer, int)
    : core(std::make_shared<quorl_detail::endpoint>(loop, std::move(writer))) {}

quorl_server::~quorl_server() {
    core->end();
}

void quorl_server::receive(std::vector<unsigned char> const& bytes, bool end_of_stream,
                           unsigned max_message, unsigned max_buffer) {
    core->receive(bytes, end_of_stream, max_message, max_buffer);
}

quorl_utils::link quorl_server::set_request_handler(std::string const& name,
                                                    request_handler const& handler) {
    return core->set_request_handler(name, handler);
}

quorl_utils::link quorl_server::set_fallback_handler(request_handler const& handler) {
    return core->set_fallback_handler(handler);
}

quorl_utils::link quorl_server::set_error_handler(quorl::error_handler const& handler) {
    return core->set_error_handler(handler);
}

std::size_t quorl_server::buffered() const {
    return core->buffered();
}

bool quorl_server::send_event(std::string const& name, quorl_utils::payload const& payload) {
    return core->send_event(name, payload);
}

}  // namespace zelvo
