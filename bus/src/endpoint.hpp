// endpoint: the machinery shared by both ends of the bus. quorl and
// quorl_server are thin faces of it: one asks (pending requests, reply check,
// events), the other answers (request handlers, responders); the stream,
// the framing, the error reports and the rules on exceptions are common.
//
// Ownership: the face owns the endpoint through the only strong reference
// that outlives a call. Everything queued on the loop (continuations, error
// reports, the timeout timer's handler) refers to it weakly, so that work
// posted before the end does nothing after it. While the endpoint runs
// handlers it holds itself, so a handler may destroy the face: the end() that
// follows marks the endpoint ended, and processing stops at the next message.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "frame_reader.hpp"
#include "quorl/quorl.hpp"
#include "quorl/server.hpp"

namespace zelvo::quorl_detail {

// A registered handler; the link target of its registration.
template <typename Handler>
struct slot;

// One request that waits for its outcome; the link target of send().
struct exchange;

class endpoint : public std::enable_shared_from_this<endpoint> {
public:
    using request_handler = quorl_server::request_handler;

    endpoint(std::shared_ptr<quorl_utils::event_loop> loop, byte_writer writer);
    ~endpoint();

    // Called by the face's destructor: stops everything and hands every
    // request still waiting its aborted outcome on a later turn.
    void end();

    void receive(std::vector<unsigned char> const& bytes, bool end_of_stream, unsigned max_message,
                 unsigned max_buffer);

    quorl_utils::link set_error_handler(quorl::error_handler const& handler);
    quorl_utils::link set_event_handler(std::string const& name,
                                        quorl::event_handler const& handler);
    quorl_utils::link set_reply_check_handler(quorl::reply_check_handler const& handler);
    quorl_utils::link set_request_handler(std::string const& name, request_handler const& handler);
    quorl_utils::link set_fallback_handler(request_handler const& handler);
    void set_default_reply_timeout(std::chrono::seconds const& timeout);

    quorl_utils::link send(quorl::req_msg const& request, quorl::response_handler const& handler,
                           bool expect_reply, std::chrono::seconds const& timeout);
    bool send_event(std::string const& name, quorl_utils::payload const& payload);
    // The answer to request `id`; false when the instance has ended or the
    // writer refused it.
    bool answer(std::uint32_t id, status_space space, std::int32_t code,
                quorl_utils::payload const& payload);

    // Bytes held of an incomplete frame.
    std::size_t buffered() const { return reader.buffered(); }

    // Called when a link is released.
    void forget_exchange(std::uint32_t id);

    // The waiting request with this id, or pending.end().
    std::deque<std::shared_ptr<exchange>>::iterator find_pending(std::uint32_t id);
    void forget_slot(void const* which);

private:
    template <typename Handler>
    using slot_ptr = std::shared_ptr<slot<Handler>>;
    using check_slot = slot_ptr<quorl::reply_check_handler>;

    void drain();
    void dispatch(frame_view const& frame);
    void on_request(frame_view const& frame);
    void on_response(frame_view const& frame);
    void on_event(frame_view const& frame);
    void stream_failed(quorl_utils::local_error fault);
    bool write_frame(frame_kind kind, std::uint32_t id, status_space space, std::int32_t code,
                     std::string const& name, quorl_utils::payload const& payload);
    bool write(std::vector<unsigned char> const& bytes);
    void report(quorl_utils::error const& error);
    void post_drain();

    void start_ticker();
    void on_tick();
    void run_due();

    std::shared_ptr<quorl_utils::event_loop> loop;
    byte_writer writer;
    std::vector<unsigned char> scratch;  // the bytes of the frame being written
    bool encoding = false;               // scratch is in use

    frame_reader reader;
    std::size_t max_message = 0;
    std::size_t max_buffer = 0;
    bool stream_ended = false;
    bool draining = false;
    bool drain_posted = false;
    bool broken = false;  // the stream can't be trusted: nothing more is read
    bool ended = false;

    std::uint32_t last_id = 0;
    // Requests waiting for a reply, oldest first. Ids grow by one per request
    // (modulo 2^32), so the queue is ordered by id relative to its front, and
    // replies, which mostly come in order, are found at the front.
    std::deque<std::shared_ptr<exchange>> pending;
    std::deque<std::shared_ptr<exchange>> due;  // timed out, outcome not yet given
    std::chrono::seconds default_timeout{45};

    // Reply timeouts count whole seconds on one timer that ticks while
    // requests wait, instead of one timer per request.
    std::shared_ptr<quorl_utils::timer> ticker;
    bool ticking = false;
    std::uint64_t ticks = 0;

    slot_ptr<quorl::error_handler> error_slot;
    // Shared with outcomes posted to the loop, so that they see the check of
    // the moment they run, also after the instance ended.
    std::shared_ptr<check_slot> reply_check = std::make_shared<check_slot>();
    slot_ptr<request_handler> fallback_slot;
    std::unordered_map<std::string, slot_ptr<quorl::event_handler>> event_slots;
    std::unordered_map<std::string, slot_ptr<request_handler>> request_slots;
};

}  // namespace zelvo::quorl_detail

namespace zelvo {

// The shared state of one request's responder copies: answers at most once,
// and answers exchange_error::unanswered when the last copy goes unanswered.
class __attribute__((visibility("hidden"))) quorl_server::responder::state {
public:
    state(std::weak_ptr<quorl_detail::endpoint> owner, std::uint32_t id);
    state(state const&) = delete;
    state& operator=(state const&) = delete;
    ~state();

    bool give(quorl_detail::status_space space, std::int32_t code,
              quorl_utils::payload const& payload);
    bool answered() const { return done; }

private:
    std::weak_ptr<quorl_detail::endpoint> owner;
    std::uint32_t id;
    bool done;
};

}  // namespace zelvo
