#include "quorl/quorl.hpp"

#include "endpoint.hpp"

namespace zelvo {

quorl::req_msg::req_msg(std::string const& name, quorl_utils::payload const& payload)
    : name(name), payload(payload) {}

quorl::quorl(std::shared_ptr<quorl_utils::event_loop> const& loop, quorl_detail::byte_writer writer,
             int)
    : core(std::make_shared<quorl_detail::endpoint>(loop, std::move(writer))) {}

quorl::~quorl() {
    core->end();
}

void quorl::receive(std::vector<unsigned char> const& bytes, bool end_of_stream,
                    unsigned max_message, unsigned max_buffer) {
    core->receive(bytes, end_of_stream, max_message, max_buffer);
}

quorl_utils::link quorl::set_error_handler(error_handler const& handler) {
    return core->set_error_handler(handler);
}

quorl_utils::link quorl::set_event_handler(std::string const& name, event_handler const& handler) {
    return core->set_event_handler(name, handler);
}

quorl_utils::link quorl::set_reply_check_handler(reply_check_handler const& handler) {
    return core->set_reply_check_handler(handler);
}

void quorl::set_default_reply_timeout(std::chrono::seconds const& timeout) {
    core->set_default_reply_timeout(timeout);
}

quorl_utils::link quorl::send(req_msg const& request, response_handler const& handler,
                              bool expect_reply, std::chrono::seconds const& timeout) {
    return core->send(request, handler, expect_reply, timeout);
}

}  // namespace zelvo
