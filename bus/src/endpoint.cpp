#include "endpoint.hpp"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

#include "handler_slots.hpp"

namespace zelvo::quorl_detail {

using quorl_utils::app_error;
using quorl_utils::error;
using quorl_utils::exchange_error;
using quorl_utils::local_error;
using quorl_utils::remote_error;

namespace {

constexpr std::uint64_t no_deadline = std::numeric_limits<std::uint64_t>::max();

using check_slot = std::shared_ptr<slot<quorl::reply_check_handler>>;

std::shared_ptr<quorl::resp_ctx> failed(error const& first) {
    auto context = std::make_shared<quorl::resp_ctx>();
    context->first_error = first;
    return context;
}

// Gives an exchange, already marked done, its outcome: the reply check
// first, then the request's handler unless the check held the reply back. If
// the check throws, the handler still gets its outcome, on a later turn.
void deliver(quorl_utils::event_loop& loop, check_slot const check, exchange& request,
             std::shared_ptr<quorl::resp_ctx> const& context) {
    auto const handler = std::move(request.handler);
    if (check && check->live) {
        auto reply = std::make_shared<quorl::reply_ctx>();
        reply->request_name = request.name;
        reply->error = context->first_error;
        bool passed = false;
        try {
            passed = check->call(reply);
        } catch (...) {
            if (handler && !request.cancelled) {
                loop.defer([handler, context] { handler(context); });
            }
            throw;
        }
        if (!passed || request.cancelled) {
            return;
        }
    }
    if (handler) {
        handler(context);
    }
}

struct outcome {
    std::shared_ptr<exchange> request;
    std::shared_ptr<quorl::resp_ctx> context;
};
using outcome_queue = std::shared_ptr<std::deque<outcome>>;

// Gives queued outcomes on a later turn, one by one. If a handler throws,
// the rest is posted again before the exception leaves, so none is lost.
void post_outcomes(std::weak_ptr<quorl_utils::event_loop> const& weak_loop,
                   std::shared_ptr<check_slot> check, outcome_queue queue) {
    auto const loop = weak_loop.lock();
    if (!loop) {
        return;
    }
    loop->defer([weak_loop, check, queue] {
        auto const loop = weak_loop.lock();
        while (loop && !queue->empty()) {
            outcome next = std::move(queue->front());
            queue->pop_front();
            if (next.request->done) {
                continue;
            }
            next.request->done = true;
            try {
                deliver(*loop, *check, *next.request, next.context);
            } catch (...) {
                post_outcomes(weak_loop, check, queue);
                throw;
            }
        }
    });
}

error remote(std::int32_t code) {
    return error(code, typeid(remote_error), describe(static_cast<remote_error>(code)));
}

}  // namespace

endpoint::endpoint(std::shared_ptr<quorl_utils::event_loop> loop, byte_writer writer)
    : loop(std::move(loop)), writer(std::move(writer)) {
    if (!this->loop) {
        throw std::invalid_argument("quorl: no event loop");
    }
    if (!this->writer) {
        throw std::invalid_argument("quorl: no writer");
    }
}

endpoint::~endpoint() = default;

void endpoint::end() {
    if (ended) {
        return;
    }
    ended = true;
    if (ticker) {
        ticker->stop();
    }
    reader.clear();

    auto aborted = std::make_shared<std::deque<outcome>>();
    for (auto& request : due) {
        aborted->push_back({std::move(request), failed(exchange_error::aborted)});
    }
    for (auto& request : pending) {
        aborted->push_back({std::move(request), failed(exchange_error::aborted)});
    }
    due.clear();
    pending.clear();

    if (error_slot) {
        error_slot->drop();
    }
    if (fallback_slot) {
        fallback_slot->drop();
    }
    for (auto& entry : event_slots) {
        if (entry.second) {
            entry.second->drop();
        }
    }
    for (auto& entry : request_slots) {
        if (entry.second) {
            entry.second->drop();
        }
    }
    error_slot.reset();
    fallback_slot.reset();
    event_slots.clear();
    request_slots.clear();
    if (!aborted->empty()) {
        post_outcomes(loop, reply_check, aborted);
    }
}

void endpoint::receive(std::vector<unsigned char> const& bytes, bool end_of_stream,
                       unsigned max_message_size, unsigned max_buffer_size) {
    if (ended) {
        return;
    }
    max_message = max_message_size;
    max_buffer = max_buffer_size;
    stream_ended = stream_ended || end_of_stream;
    if (broken) {
        return;
    }
    reader.append(bytes.data(), bytes.size());
    drain();
}

void endpoint::drain() {
    // A receive() from inside a handler only appends: the running drain takes
    // its bytes in order.
    if (draining) {
        return;
    }
    draining = true;
    auto const self = shared_from_this();
    struct reset_on_exit {
        bool& flag;
        ~reset_on_exit() { flag = false; }
    } const reset{draining};

    while (!ended && !broken) {
        frame_view frame;
        switch (reader.peek(max_message, frame)) {
            case frame_reader::result::malformed:
                stream_failed(local_error::malformed_frame);
                return;
            case frame_reader::result::too_large:
                stream_failed(local_error::message_too_large);
                return;
            case frame_reader::result::incomplete:
                reader.compact();
                if (reader.buffered() > max_buffer) {
                    stream_failed(local_error::buffer_overflow);
                } else if (stream_ended && reader.buffered() > 0) {
                    reader.clear();
                    report(local_error::truncated_stream);
                }
                return;
            case frame_reader::result::frame:
                break;
        }
        // Taken before it is handled: a handler that throws has consumed its
        // message, and the messages behind it go on in a continuation.
        reader.take(frame);
        try {
            dispatch(frame);
        } catch (...) {
            post_drain();
            throw;
        }
    }
}

void endpoint::post_drain() {
    if (drain_posted) {
        return;
    }
    drain_posted = true;
    loop->defer([weak = weak_from_this()] {
        if (auto const self = weak.lock()) {
            self->drain_posted = false;
            if (!self->ended) {
                self->drain();
            }
        }
    });
}

void endpoint::dispatch(frame_view const& frame) {
    switch (frame.kind) {
        case frame_kind::request:
            on_request(frame);
            break;
        case frame_kind::response:
            on_response(frame);
            break;
        case frame_kind::event:
            on_event(frame);
            break;
        case frame_kind::error:
            report(remote(frame.code));
            break;
    }
}

void endpoint::on_request(frame_view const& frame) {
    std::string name(frame.name, frame.name + frame.name_size);
    auto found = request_slots.find(name);
    auto const handling =
        found != request_slots.end() && found->second ? found->second : fallback_slot;
    if (!handling) {
        if (frame.id != 0) {
            answer(frame.id, status_space::exchange,
                   static_cast<std::int32_t>(exchange_error::unknown_request), {});
        }
        return;
    }
    auto context = std::make_shared<quorl_server::request_ctx>();
    context->name = std::move(name);
    context->payload.assign(frame.payload, frame.payload + frame.payload_size);
    context->format = frame.format;
    quorl_server::responder const responder(
        std::make_shared<quorl_server::responder::state>(weak_from_this(), frame.id));
    handling->call(context, responder);
}

void endpoint::on_response(frame_view const& frame) {
    auto const found = find_pending(frame.id);
    if (found == pending.end()) {
        return;  // cancelled or timed out: its outcome is given already
    }
    auto const request = std::move(*found);
    if (found == pending.begin()) {
        pending.pop_front();
    } else {
        pending.erase(found);
    }

    auto context = std::make_shared<quorl::resp_ctx>();
    switch (frame.space) {
        case status_space::none:
            context->payload.assign(frame.payload, frame.payload + frame.payload_size);
            context->format = frame.format;
            break;
        case status_space::application:
            context->second_error = static_cast<app_error>(frame.code);
            break;
        case status_space::exchange:
            context->first_error = static_cast<exchange_error>(frame.code);
            break;
    }
    request->done = true;
    deliver(*loop, *reply_check, *request, context);
}

void endpoint::on_event(frame_view const& frame) {
    std::string name(frame.name, frame.name + frame.name_size);
    auto const found = event_slots.find(name);
    if (found == event_slots.end() || !found->second) {
        return;
    }
    auto const handling = found->second;
    auto context = std::make_shared<quorl::event_ctx>();
    context->name = std::move(name);
    context->payload.assign(frame.payload, frame.payload + frame.payload_size);
    context->format = frame.format;
    handling->call(context);
}

void endpoint::stream_failed(local_error fault) {
    broken = true;
    reader.clear();
    report(fault);
    // Tell the peer which of its bytes we could not take; best effort.
    write_frame(frame_kind::error, 0, status_space::none, static_cast<std::int32_t>(fault), {}, {});
}

bool endpoint::write_frame(frame_kind kind, std::uint32_t id, status_space space, std::int32_t code,
                           std::string const& name, quorl_utils::payload const& payload) {
    // The writer may destroy the instance; the endpoint lives to the end of
    // this call. One buffer serves every frame; a writer that re-enters the
    // endpoint and writes meanwhile gets a buffer of its own.
    auto const self = shared_from_this();
    std::vector<unsigned char> own;
    bool const outermost = !encoding;
    auto& bytes = outermost ? scratch : own;
    encoding = true;
    struct release_on_exit {
        bool& flag;
        bool outermost;
        ~release_on_exit() {
            if (outermost) {
                flag = false;
            }
        }
    } const release{encoding, outermost};
    encode_frame(bytes, kind, id, space, code, name, payload.get_format(), payload.get_bytes());
    return write(bytes);
}

bool endpoint::write(std::vector<unsigned char> const& bytes) {
    if (writer(bytes)) {
        return true;
    }
    report(local_error::write_refused);
    return false;
}

void endpoint::report(error const& fault) {
    loop->defer([weak = weak_from_this(), fault] {
        auto const self = weak.lock();
        if (self && !self->ended && self->error_slot) {
            auto const handling = self->error_slot;
            auto context = std::make_shared<quorl::error_ctx>();
            context->error = fault;
            handling->call(context);
        }
    });
}

quorl_utils::link endpoint::send(quorl::req_msg const& request,
                                 quorl::response_handler const& handler, bool expect_reply,
                                 std::chrono::seconds const& timeout) {
    if (request.name.empty()) {
        throw std::invalid_argument("quorl: empty request name");
    }
    auto const self = shared_from_this();  // the writer may destroy the instance
    auto const sent = std::make_shared<exchange>();
    sent->owner = weak_from_this();
    sent->name = request.name;
    sent->handler = handler;
    if (expect_reply) {
        last_id = last_id == 0xffffffff ? 1 : last_id + 1;
        sent->id = last_id;
        auto const wait = timeout.count() > 0 ? timeout : default_timeout;
        if (wait.count() > 0) {
            // A running ticker is part-way through its second.
            sent->deadline = ticks + static_cast<std::uint64_t>(wait.count()) + (ticking ? 1 : 0);
        } else {
            sent->deadline = no_deadline;
        }
    }
    if (expect_reply) {
        // Registered before the write, so that a reply can never arrive first.
        pending.push_back(sent);
        if (sent->deadline != no_deadline) {
            start_ticker();
        }
    }

    bool written = false;
    try {
        written = write_frame(frame_kind::request, sent->id, status_space::none, 0, request.name,
                              request.payload);
    } catch (...) {
        forget_exchange(sent->id);
        throw;
    }
    if (!written || !expect_reply) {
        forget_exchange(sent->id);
        auto const context =
            written ? std::make_shared<quorl::resp_ctx>() : failed(exchange_error::not_sent);
        post_outcomes(loop, reply_check,
                      std::make_shared<std::deque<outcome>>(1, outcome{sent, context}));
    }
    return quorl_utils::link(sent);
}

bool endpoint::send_event(std::string const& name, quorl_utils::payload const& payload) {
    if (name.empty()) {
        throw std::invalid_argument("quorl: empty event name");
    }
    return !ended && write_frame(frame_kind::event, 0, status_space::none, 0, name, payload);
}

bool endpoint::answer(std::uint32_t id, status_space space, std::int32_t code,
                      quorl_utils::payload const& payload) {
    return !ended && write_frame(frame_kind::response, id, space, code, {}, payload);
}

void endpoint::start_ticker() {
    if (ticking) {
        return;
    }
    if (!ticker) {
        ticker = loop->make_timer();
        ticker->set_handler([weak = weak_from_this()] {
            if (auto const self = weak.lock()) {
                self->on_tick();
            }
        });
    }
    ticking = true;
    ticker->start(std::chrono::seconds(1));
}

void endpoint::on_tick() {
    ticking = false;
    if (ended) {
        return;
    }
    ++ticks;
    bool waiting = false;
    for (auto const& request : pending) {
        if (request->deadline <= ticks) {
            due.push_back(request);
        } else {
            waiting = waiting || request->deadline != no_deadline;
        }
    }
    pending.erase(
        std::remove_if(pending.begin(), pending.end(),
                       [this](auto const& request) { return request->deadline <= ticks; }),
        pending.end());
    if (waiting) {
        start_ticker();
    }
    run_due();
}

void endpoint::run_due() {
    auto const self = shared_from_this();
    while (!due.empty() && !ended) {
        auto const request = std::move(due.front());
        due.pop_front();
        if (request->done) {
            continue;
        }
        request->done = true;
        try {
            deliver(*loop, *reply_check, *request, failed(exchange_error::timed_out));
        } catch (...) {
            if (!due.empty()) {
                loop->defer([weak = weak_from_this()] {
                    if (auto const alive = weak.lock()) {
                        alive->run_due();
                    }
                });
            }
            throw;
        }
    }
}

std::deque<std::shared_ptr<exchange>>::iterator endpoint::find_pending(std::uint32_t id) {
    if (id == 0 || pending.empty()) {
        return pending.end();
    }
    std::uint32_t const oldest = pending.front()->id;
    if (id == oldest) {
        return pending.begin();
    }
    auto const found = std::lower_bound(
        pending.begin(), pending.end(), id - oldest,
        [oldest](auto const& request, std::uint32_t age) { return request->id - oldest < age; });
    return found != pending.end() && (*found)->id == id ? found : pending.end();
}

void endpoint::forget_exchange(std::uint32_t id) {
    auto const found = find_pending(id);
    if (found != pending.end()) {
        pending.erase(found);
    }
}

}  // namespace zelvo::quorl_detail
