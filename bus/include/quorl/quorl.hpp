// quorl: one endpoint of the message bus, on the side that sends requests and
// receives replies and events.
//
// An instance speaks over one byte stream that it does not own: bytes to send
// go to the writer given at construction, and the owner feeds every received
// byte to receive(). The instance owns its pending requests, its subscriptions
// and one timer for reply timeouts; nothing of it survives its destruction.
//
// Completion rules, kept by every operation:
//  - a request's handler runs exactly once, unless the request is cancelled
//    through its link first, in which case it never runs;
//  - handlers are never called from inside send(), set_*() or the destructor;
//    replies and events run inside receive(), timeouts on the timer, and
//    failures found while sending on a later turn;
//  - when the instance ends, every pending request's handler gets
//    exchange_error::aborted on a later turn of the loop;
//  - the reply check sees every reply, timeouts and aborts included, before
//    the request's handler; when it answers false, that handler is not called.
// A reply already queued in the stream when its request is cancelled is
// dropped on arrival.
//
// Re-entrancy: any handler may call into the instance, release any link, or
// destroy the instance; processing stops at the first message after the
// destruction. An exception from a handler leaves receive() (or the timer)
// once its message has been consumed; messages behind it are processed on a
// posted continuation, none lost, none twice.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "quorl/error.hpp"
#include "quorl/event_loop.hpp"
#include "quorl/export.hpp"
#include "quorl/link.hpp"
#include "quorl/payload.hpp"

namespace zelvo {

namespace quorl_detail {
class endpoint;
using byte_writer = std::function<bool(std::vector<unsigned char> const&)>;

// Accepts a writer returning void (every write counts as taken) or one
// returning something convertible to bool (false: the bytes were not taken).
template <typename Writer>
byte_writer to_byte_writer(Writer writer) {
    using result = std::invoke_result_t<Writer&, std::vector<unsigned char> const&>;
    if constexpr (std::is_void_v<result>) {
        return [writer = std::move(writer)](std::vector<unsigned char> const& bytes) mutable {
            writer(bytes);
            return true;
        };
    } else {
        return [writer = std::move(writer)](std::vector<unsigned char> const& bytes) mutable {
            return static_cast<bool>(writer(bytes));
        };
    }
}
}  // namespace quorl_detail

class QUORL_API quorl {
public:
    using local_error = quorl_utils::local_error;
    using remote_error = quorl_utils::remote_error;
    using exchange_error = quorl_utils::exchange_error;

    // A named request and its body.
    struct QUORL_API req_msg {
        req_msg(std::string const& name, quorl_utils::payload const& payload);
        std::string name;
        quorl_utils::payload payload;
    };

    // The outcome of a request. first_error holds faults of the exchange
    // (exchange_error); second_error the peer application's refusal
    // (app_error). At most one is set; the payload is the reply's body on
    // success and empty otherwise.
    struct resp_ctx {
        quorl_utils::error first_error;
        quorl_utils::error second_error;
        std::vector<unsigned char> payload;
        stravik_part_payload::format format = stravik_part_payload::format::none;
    };

    struct event_ctx {
        std::string name;
        std::vector<unsigned char> payload;
        stravik_part_payload::format format = stravik_part_payload::format::none;
    };

    struct error_ctx {
        quorl_utils::error error;
    };

    // What the reply check sees: the request's name and the reply's
    // first_error (the exchange fault, if any).
    struct reply_ctx {
        std::string request_name;
        quorl_utils::error error;
    };

    using response_handler = std::function<void(std::shared_ptr<resp_ctx> const&)>;
    using event_handler = std::function<void(std::shared_ptr<event_ctx> const&)>;
    using error_handler = std::function<void(std::shared_ptr<error_ctx> const&)>;
    using reply_check_handler = std::function<bool(std::shared_ptr<reply_ctx> const&)>;

    // The writer gets the bytes of each frame, in order. It may return void,
    // or bool where false means the bytes were not taken (reported as
    // local_error::write_refused).
    template <typename Writer, typename = std::enable_if_t<
                                   std::is_invocable_v<Writer&, std::vector<unsigned char> const&>>>
    quorl(std::shared_ptr<quorl_utils::event_loop> const& loop, Writer writer)
        : quorl(loop, quorl_detail::to_byte_writer(std::move(writer)), 0) {}
    quorl(quorl const&) = delete;
    quorl& operator=(quorl const&) = delete;
    ~quorl();

    // Feeds received bytes, in arrival order, in chunks of any size.
    // end_of_stream: no byte follows these; a frame left incomplete is then
    // reported as local_error::truncated_stream. max_message bounds one frame,
    // max_buffer the bytes held while waiting for the rest of a frame.
    void receive(std::vector<unsigned char> const& bytes, bool end_of_stream, unsigned max_message,
                 unsigned max_buffer);

    // Each setter replaces what an earlier call set; the earlier link goes
    // inactive. A released link unsets.
    quorl_utils::link set_error_handler(error_handler const& handler);
    quorl_utils::link set_event_handler(std::string const& name, event_handler const& handler);
    quorl_utils::link set_reply_check_handler(reply_check_handler const& handler);
    // Used by requests sent with a zero timeout. 45 s unless set.
    void set_default_reply_timeout(std::chrono::seconds const& timeout);

    // Sends a request. expect_reply false sends it with no reply wanted: the
    // handler then runs once, on a later turn, with no error (or not_sent).
    // A zero timeout means the default reply timeout. Releasing the link
    // cancels the request: its handler is never called.
    quorl_utils::link send(req_msg const& request, response_handler const& handler,
                           bool expect_reply, std::chrono::seconds const& timeout);

private:
    quorl(std::shared_ptr<quorl_utils::event_loop> const& loop, quorl_detail::byte_writer writer,
          int);
    std::shared_ptr<quorl_detail::endpoint> core;
};

}  // namespace zelvo
