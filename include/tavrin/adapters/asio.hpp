// adapters::asio_loop: tavrin on a standalone Asio io_context (header-only;
// needs <asio.hpp>, Debian's libasio-dev).
//
//     asio::io_context io;
//     auto loop = zelvo::tavrin::adapters::asio_loop::create(io);
//     // hand `loop` to the library (or to a zelvo::quorl), then:
//     io.run();
//
// Everything runs on the thread that runs the io_context, which must outlive
// every object made here. Like the library, the objects are not thread-safe.
//
// Exceptions. An exception from an application callback (a posted function, a
// timer handler, a connection's receive or state handler, an accept handler)
// goes to the handler given to set_exception_handler(), and the loop goes on.
// With none set, it leaves io_context::run(), as Asio does with any handler's
// exception; calling run() again goes on where it stopped: nothing queued is
// lost, a connection whose handler threw goes on reading, a listener goes on
// accepting.
//
// Connections. connect() takes a numeric address; sockets use TCP_NODELAY.
// send() queues the bytes; those sent while a write is in flight leave
// together in the next write. A peer that does not read can't make the queue
// grow without bound: send() refuses (returns false) bytes that would take the
// unwritten bytes past the high-water mark, 4 MiB unless set otherwise for the
// loop or the connection; bytes sent into an empty queue are always taken.
// The bus turns a refusal into its write_refused error. close() writes what is queued, ends our
// side and reports closed when the peer ends its side too, or after a linger of 2 s; bytes that
// arrive after close() are dropped. End of stream or an error from the peer reports closed at once
// and drops unsent bytes. Destroying a connection closes its socket at once and reports nothing. A
// handler should not own its connection: the connection owns its handlers.
#pragma once

#include <algorithm>
#include <array>
#include <asio.hpp>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tavrin/utils/connection.hpp"
#include "tavrin/utils/event_loop.hpp"
#include "tavrin/utils/ip_address.hpp"
#include "tavrin/utils/tcp_connection.hpp"
#include "tavrin/utils/timer.hpp"

namespace zelvo::tavrin::adapters {

namespace asio_detail {

// The io_context and the exception policy, shared by the loop and by all it
// made, so that posted work and pending operations outlive the loop object.
struct context {
    explicit context(asio::io_context& io) : io(io) {}

    // Runs an application callback under the exception policy.
    template <typename Function, typename... Args>
    void call(Function const& function, Args const&... args) const {
        if (!on_exception) {
            function(args...);
            return;
        }
        try {
            function(args...);
        } catch (...) {
            auto handler = on_exception;  // it may replace itself
            handler(std::current_exception());
        }
    }

    asio::io_context& io;
    std::function<void(std::exception_ptr)> on_exception;
    // For connections made from now on.
    std::size_t high_water_mark = 4 * 1024 * 1024;
};

// Numeric text only: nothing is resolved. Throws logic_error for an empty
// address.
inline asio::ip::address to_asio(utils::ip_address const& address) {
    return asio::ip::make_address(address.to_string(false, false));
}

inline std::string name_of(asio::ip::tcp::endpoint const& endpoint) {
    auto text = endpoint.address().to_string();
    if (endpoint.address().is_v6())
        text = "[" + text + "]";
    return text + ":" + std::to_string(endpoint.port());
}

// A connection's socket, buffers and handlers. Each pending operation holds a
// reference, so what it touches lives until it completes; the user-facing
// asio_connection only detaches it. `session` grows at every end: completions
// of an earlier session are stale and do nothing.
struct stream : std::enable_shared_from_this<stream> {
    using state = utils::connection::state;
    using bytes_handler = std::function<void(std::vector<unsigned char> const&)>;
    using state_handler = std::function<void(state)>;

    explicit stream(std::shared_ptr<context> shared)
        : ctx(std::move(shared)),
          socket(ctx->io),
          linger(ctx->io),
          high_water_mark(ctx->high_water_mark) {}

    void connect(asio::ip::tcp::endpoint const& peer) {
        name = name_of(peer);
        ended_by.clear();
        move_to(state::connecting);
        socket.async_connect(peer, [self = shared_from_this(), id = session](std::error_code ec) {
            if (id != self->session)
                return;
            if (ec || self->now != state::connecting)
                return self->finish(ec);
            self->start(true);
        });
    }

    // The socket is connected: report it unless told not to, and read.
    void start(bool report) {
        std::error_code ignored;
        socket.set_option(asio::ip::tcp::no_delay(true), ignored);
        if (name.empty())
            name = name_of(socket.remote_endpoint(ignored));
        if (report)
            move_to(state::connected);
        else
            now = state::connected;
        read();
    }

    void read() {
        socket.async_read_some(asio::buffer(buffer), [self = shared_from_this(), id = session](
                                                         std::error_code ec, std::size_t size) {
            if (id != self->session)
                return;
            if (ec)
                return self->finish(ec);
            bool deliver = self->now == state::connected && self->on_bytes;
            if (deliver)
                self->chunk.assign(self->buffer.data(), self->buffer.data() + size);
            // Before the handler, so that reading goes on whatever it does.
            self->read();
            if (deliver) {
                auto handler = self->on_bytes;
                self->ctx->call(*handler, self->chunk);
            }
        });
    }

    bool send(std::vector<unsigned char> const& bytes) {
        if (now != state::connected)
            return false;
        auto const unwritten = queued.size() + writing.size();
        if (unwritten > 0 && unwritten + bytes.size() > high_water_mark)
            return false;
        queued.insert(queued.end(), bytes.begin(), bytes.end());
        if (!writing_now && !queued.empty())
            write();
        return true;
    }

    void write() {
        writing.swap(queued);
        writing_now = true;
        asio::async_write(
            socket, asio::buffer(writing),
            [self = shared_from_this(), id = session](std::error_code ec, std::size_t) {
                if (id != self->session)
                    return;
                self->writing_now = false;
                self->writing.clear();
                if (ec)
                    return self->finish(ec);
                if (!self->queued.empty())
                    self->write();
                else if (self->now == state::closing)
                    self->end_our_side();
            });
    }

    void close() {
        if (now == state::closed || now == state::closing)
            return;
        bool was_connecting = now == state::connecting;
        move_to(state::closing);
        std::error_code ignored;
        if (was_connecting)
            socket.close(ignored);  // the connect completes as aborted
        else if (!writing_now)
            end_our_side();
    }

    // All is written: send our end of stream and wait for the peer's, which
    // the read loop sees, or for the linger to pass.
    void end_our_side() {
        std::error_code ignored;
        socket.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
        linger.expires_after(std::chrono::seconds(2));
        linger.async_wait([self = shared_from_this(), id = session](std::error_code ec) {
            if (!ec && id == self->session)
                self->finish();
        });
    }

    // `ec` is what ended the session, if anything did besides our close().
    void finish(std::error_code const& ec = {}) {
        if (now == state::closed)
            return;
        ended_by = now == state::closing ? std::error_code{} : ec;
        ++session;
        writing_now = false;
        queued.clear();
        writing.clear();
        std::error_code ignored;
        socket.close(ignored);
        linger.cancel();
        move_to(state::closed);
    }

    void detach() {
        on_bytes.reset();
        on_state.reset();
        finish();
    }

    // State reports are posted, so they keep their order with each other
    // whatever turn the change happens on.
    void move_to(state next) {
        now = next;
        asio::post(ctx->io, [self = shared_from_this(), next] {
            if (auto handler = self->on_state)
                self->ctx->call(*handler, next);
        });
    }

    std::shared_ptr<context> ctx;
    asio::ip::tcp::socket socket;
    asio::steady_timer linger;
    state now = state::closed;
    unsigned session = 0;
    std::string name;
    // Held by shared_ptr so that a handler running keeps itself alive when it
    // replaces itself or destroys its connection.
    std::shared_ptr<bytes_handler const> on_bytes;
    std::shared_ptr<state_handler const> on_state;
    std::vector<unsigned char> queued, writing;  // swapped, so no allocation once warm
    bool writing_now = false;
    std::error_code ended_by;
    std::size_t high_water_mark;
    std::array<unsigned char, 65536> buffer;
    std::vector<unsigned char> chunk;
};

}  // namespace asio_detail

// A one-shot steady timer. A wait that a stop(), a restart or the timer's
// destruction overtook never calls the handler, even when it was already due.
class asio_timer : public utils::timer, public std::enable_shared_from_this<asio_timer> {
public:
    explicit asio_timer(std::shared_ptr<asio_detail::context> shared)
        : ctx(std::move(shared)), timer(ctx->io) {}

    void set_handler(std::function<void()> const& handler) override {
        on_fire = handler ? std::make_shared<std::function<void()> const>(handler) : nullptr;
    }
    void start(std::chrono::seconds const& delay) override {
        timer.expires_after(delay);
        timer.async_wait([weak = weak_from_this(), id = ++armed](std::error_code ec) {
            auto self = weak.lock();  // keeps the timer alive while its handler runs
            if (ec || !self || id != self->armed)
                return;
            if (auto handler = self->on_fire)
                self->ctx->call(*handler);
        });
    }
    void stop() override {
        ++armed;
        timer.cancel();
    }

private:
    std::shared_ptr<asio_detail::context> ctx;
    asio::steady_timer timer;
    std::shared_ptr<std::function<void()> const> on_fire;
    unsigned armed = 0;
};

// A TCP connection; see the top of this file. Reusable after closed, accepted
// ones included.
class asio_connection : public utils::tcp_connection {
public:
    explicit asio_connection(std::shared_ptr<asio_detail::context> ctx)
        : core(std::make_shared<asio_detail::stream>(std::move(ctx))) {}
    // Adopts a connected socket; reading starts at once.
    asio_connection(std::shared_ptr<asio_detail::context> ctx, asio::ip::tcp::socket socket)
        : asio_connection(std::move(ctx)) {
        core->socket = std::move(socket);
        core->start(false);
    }
    ~asio_connection() override { core->detach(); }

    // Ignored unless closed. Throws logic_error for an empty address.
    void connect(utils::ip_address const& address, unsigned short port) override {
        if (core->now == state::closed)
            core->connect({asio_detail::to_asio(address), port});
    }
    bool send(std::vector<unsigned char> const& bytes) override { return core->send(bytes); }
    void close() override { core->close(); }
    std::string const& get_name() const override { return core->name; }
    state get_state() const override { return core->now; }
    // Why the last session ended, when it was not by close(): the failed
    // connect's error (asio::error::connection_refused, say), the peer's end
    // of stream (asio::error::eof) or a read's or write's error. Empty while
    // a session runs, and after a close of ours.
    std::error_code last_error() const { return core->ended_by; }
    // See "Connections" at the top of this file.
    void set_high_water_mark(std::size_t bytes) { core->high_water_mark = bytes; }
    void set_receive_handler(
        std::function<void(std::vector<unsigned char> const&)> const& handler) override {
        core->on_bytes =
            handler ? std::make_shared<asio_detail::stream::bytes_handler const>(handler) : nullptr;
    }
    void set_state_handler(std::function<void(state)> const& handler) override {
        core->on_state =
            handler ? std::make_shared<asio_detail::stream::state_handler const>(handler) : nullptr;
    }

private:
    std::shared_ptr<asio_detail::stream> core;
};

class asio_loop : public utils::event_loop {
public:
    static std::shared_ptr<asio_loop> create(asio::io_context& io) {
        return std::shared_ptr<asio_loop>(new asio_loop(io));
    }

    std::shared_ptr<utils::timer> create_timer() override {
        return std::make_shared<asio_timer>(ctx);
    }
    std::shared_ptr<utils::tcp_connection> create_tcp_connection() override {
        return std::make_shared<asio_connection>(ctx);
    }
    void post(std::function<void()> const& function) override {
        asio::post(ctx->io, [ctx = ctx, function] { ctx->call(function); });
    }

    // Replaces the policy for callbacks that run from now on; an empty
    // function lets exceptions leave io_context::run().
    void set_exception_handler(std::function<void(std::exception_ptr)> handler) {
        ctx->on_exception = std::move(handler);
    }

    // The high-water mark of the connections made from now on, accepted ones
    // included; see "Connections" at the top of this file.
    void set_high_water_mark(std::size_t bytes) { ctx->high_water_mark = bytes; }

    asio::io_context& context() const { return ctx->io; }
    std::shared_ptr<asio_detail::context> const& shared_context() const { return ctx; }

private:
    explicit asio_loop(asio::io_context& io) : ctx(std::make_shared<asio_detail::context>(io)) {}
    std::shared_ptr<asio_detail::context> ctx;
};

// Accepts TCP connections and hands each, connected and reading, to the
// handler, which should set the connection's handlers before it returns.
// Closing or destroying the listener stops accepting; accepted connections
// live on.
//
// A failed accept (out of file descriptors, say) is not retried at once,
// which would spin as long as the cause lasts: the listener waits 100 ms,
// then twice as long after each further failure, up to 1 s, and a success
// brings the wait back to none. Each failure goes to the error handler.
class asio_listener : public std::enable_shared_from_this<asio_listener> {
public:
    using accept_handler = std::function<void(std::shared_ptr<utils::connection> const&)>;
    using error_handler = std::function<void(std::error_code const&)>;

    // Port 0 binds an ephemeral port. Throws asio::system_error when the
    // address can't be bound.
    static std::shared_ptr<asio_listener> create(std::shared_ptr<asio_loop> const& loop,
                                                 utils::ip_address const& address,
                                                 unsigned short port,
                                                 accept_handler const& handler) {
        std::shared_ptr<asio_listener> listener(new asio_listener(
            loop->shared_context(), {asio_detail::to_asio(address), port}, handler));
        listener->accept();
        return listener;
    }
    ~asio_listener() { close(); }

    unsigned short port() const { return bound; }
    void close() {
        std::error_code ignored;
        acceptor.close(ignored);
        retry.cancel();
    }
    // Runs under the loop's exception policy, like the accept handler.
    void set_error_handler(error_handler handler) { on_error = std::move(handler); }

private:
    asio_listener(std::shared_ptr<asio_detail::context> shared,
                  asio::ip::tcp::endpoint const& endpoint, accept_handler handler)
        : ctx(std::move(shared)),
          acceptor(ctx->io, endpoint),
          retry(ctx->io),
          bound(acceptor.local_endpoint().port()),
          on_accept(std::move(handler)) {}

    void accept() {
        acceptor.async_accept(
            [weak = weak_from_this()](std::error_code ec, asio::ip::tcp::socket socket) {
                auto self = weak.lock();
                if (!self || !self->acceptor.is_open() || ec == asio::error::operation_aborted)
                    return;
                if (ec)
                    return self->accept_later(ec);
                self->backoff = std::chrono::milliseconds(0);
                self->accept();  // before the handler, which may throw or close us
                auto accepted = std::make_shared<asio_connection>(self->ctx, std::move(socket));
                self->ctx->call(self->on_accept, std::shared_ptr<utils::connection>(accepted));
            });
    }

    void accept_later(std::error_code const& ec) {
        using std::chrono::milliseconds;
        backoff = backoff == milliseconds(0) ? milliseconds(100)
                                             : std::min(backoff * 2, milliseconds(1000));
        retry.expires_after(backoff);
        retry.async_wait([weak = weak_from_this()](std::error_code waited) {
            auto self = weak.lock();
            if (!waited && self && self->acceptor.is_open())
                self->accept();
        });
        if (auto handler = on_error)  // a copy: it may replace itself
            ctx->call(handler, ec);
    }

    std::shared_ptr<asio_detail::context> ctx;
    asio::ip::tcp::acceptor acceptor;
    asio::steady_timer retry;
    std::chrono::milliseconds backoff{0};
    unsigned short bound;
    accept_handler on_accept;
    error_handler on_error;
};

}  // namespace zelvo::tavrin::adapters
