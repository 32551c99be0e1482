// quorl_server: the other endpoint of the message bus, on the side that
// answers requests and emits events. One instance serves one byte stream,
// that is one accepted connection.
//
// Like quorl, an instance owns no stream: it writes frames through its writer
// and is fed with receive(). Requests are dispatched by name to handlers that
// answer through a responder, now or later, with a payload or with a numeric
// code of the application (an app_error at the requester). A request whose
// name has no handler goes to the fallback handler, or, with none, is
// answered with exchange_error::unknown_request.
//
// A responder answers once; later answers return false. When its last copy
// goes unanswered, the requester gets exchange_error::unanswered, so that no
// request waits for its timeout because a handler forgot it. Answers given
// after the instance ended go nowhere. The rules on exceptions and
// re-entrancy are those of quorl.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "quorl/export.hpp"
#include "quorl/link.hpp"
#include "quorl/payload.hpp"
#include "quorl/quorl.hpp"

namespace zelvo {

class QUORL_API quorl_server {
public:
    struct request_ctx {
        std::string name;
        std::vector<unsigned char> payload;
        stravik_part_payload::format format = stravik_part_payload::format::none;
    };

    class QUORL_API responder {
    public:
        class state;
        explicit responder(std::shared_ptr<state> answer) : answer(std::move(answer)) {}

        // False when already answered, when no reply is wanted, when the
        // instance has ended, or when the writer refused the bytes.
        bool reply(quorl_utils::payload const& payload) const;
        bool fail(int app_code) const;
        bool answered() const;

    private:
        std::shared_ptr<state> answer;
    };

    using request_handler =
        std::function<void(std::shared_ptr<request_ctx> const&, responder const&)>;

    template <typename Writer, typename = std::enable_if_t<
                                   std::is_invocable_v<Writer&, std::vector<unsigned char> const&>>>
    quorl_server(std::shared_ptr<quorl_utils::event_loop> const& loop, Writer writer)
        : quorl_server(loop, quorl_detail::to_byte_writer(std::move(writer)), 0) {}
    quorl_server(quorl_server const&) = delete;
    quorl_server& operator=(quorl_server const&) = delete;
    ~quorl_server();

    // As quorl::receive.
    void receive(std::vector<unsigned char> const& bytes, bool end_of_stream, unsigned max_message,
                 unsigned max_buffer);

    // Each setter replaces what an earlier call set for the same name.
    quorl_utils::link set_request_handler(std::string const& name, request_handler const& handler);
    quorl_utils::link set_fallback_handler(request_handler const& handler);
    quorl_utils::link set_error_handler(quorl::error_handler const& handler);

    // Writes one event frame. False when the writer refused the bytes (also
    // reported as local_error::write_refused).
    bool send_event(std::string const& name, quorl_utils::payload const& payload);

    // Bytes received of a frame not yet complete (0 between frames), so that
    // an owner can drop a peer that stalls in the middle of one.
    std::size_t buffered() const;

private:
    quorl_server(std::shared_ptr<quorl_utils::event_loop> const& loop,
                 quorl_detail::byte_writer writer, int);
    std::shared_ptr<quorl_detail::endpoint> core;
};

}  // namespace zelvo
