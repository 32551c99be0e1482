// adapters::test_loop: the queue, the virtual clock and the in-memory network.
//
// Everything the loop makes holds the core weakly, and everything queued holds
// what it works on weakly, so any of them may die in any order. Work that
// calls the application does its bookkeeping (and queues what follows) first,
// so that an exception from the application loses nothing but itself.
#include "tavrin/adapters/test_loop.hpp"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tavrin/misc/create_link.hpp"
#include "tavrin/utils/tcp_connection.hpp"
#include "tavrin/utils/timer.hpp"

namespace zelvo::tavrin::adapters {

namespace {

class mem_timer;

std::size_t const quiescence_limit = 1000000;

}  // namespace

// Hidden, as the library's internals are, though its enclosing class is exported.
class __attribute__((visibility("hidden"))) test_loop::core {
public:
    struct listener {
        accept_handler handler;
    };
    // A timer's place in line: its deadline, then the order of starts.
    using timer_key = std::pair<std::chrono::milliseconds, std::uint64_t>;

    std::deque<std::function<void()>> queue;
    // How many functions at the front of the queue belong to the running turn.
    std::size_t left_in_turn = 0;
    // The number of the running turn, or of the last one between turns.
    std::uint64_t turn = 0;
    std::chrono::milliseconds clock{0};
    std::map<timer_key, std::weak_ptr<mem_timer>> timers;
    std::uint64_t starts = 0;
    // By "address:port".
    std::map<std::string, std::shared_ptr<listener>> listeners;
    std::size_t max_chunk = 0;
    std::size_t high_water_mark = test_loop::default_high_water_mark;
    std::uint64_t connections = 0;

    // Runs the function in the running turn, right after the caller's.
    void post_next(std::function<void()> function) {
        queue.push_front(std::move(function));
        ++left_in_turn;
    }
};

namespace {

using core = test_loop::core;
using state = utils::connection::state;

class mem_timer : public utils::timer, public std::enable_shared_from_this<mem_timer> {
public:
    explicit mem_timer(std::weak_ptr<core> loop) : loop(std::move(loop)) {}
    ~mem_timer() override { stop(); }

    void set_handler(std::function<void()> const& function) override { handler = function; }

    void start(std::chrono::seconds const& delay) override {
        auto const c = loop.lock();
        if (!c) {
            return;
        }
        stop();
        key = {c->clock + std::max(delay, std::chrono::seconds(0)), c->starts++};
        c->timers.emplace(key, weak_from_this());
        running = true;
    }

    void stop() override {
        auto const c = loop.lock();
        if (running && c) {
            c->timers.erase(key);
        }
        running = false;
    }

    // The loop has taken the timer out of line; the handler to run.
    std::function<void()> fire() {
        running = false;
        return handler;
    }

private:
    std::weak_ptr<core> loop;
    std::function<void()> handler;
    core::timer_key key;
    bool running = false;
};

std::string place(utils::ip_address const& address, unsigned short port) {
    std::string host = "?";
    if (address.size(false, false) != 0) {
        host = address.is_ipv6() ? "[" + address.to_string(false, false) + "]"
                                 : address.to_string(false, false);
    }
    return host + ":" + std::to_string(port);
}

// One end of an in-memory connection. What reaches it (its own reports, the
// peer's bytes and close) waits in its inbox, each item stamped with the turn
// it came in and the session (connection attempt) it belongs to; a pump job
// handles one item per turn, only items from earlier turns, and drops items
// of an earlier session.
class mem_connection : public utils::tcp_connection,
                       public std::enable_shared_from_this<mem_connection> {
public:
    mem_connection(std::weak_ptr<core> loop, std::uint64_t number, std::string side)
        : loop(std::move(loop)), number(number), side(std::move(side)) {
        name = "mem:" + this->side + "-" + std::to_string(number);
    }

    // Destroying a connected end closes it for its peer.
    ~mem_connection() override {
        auto const c = loop.lock();
        auto const p = peer.lock();
        if (c && p) {
            p->push(*c, {kind::closed, state::closed, peer_session});
        }
    }

    bool send(std::vector<unsigned char> const& bytes) override {
        auto const c = loop.lock();
        if (!c || current != state::connected) {
            return false;
        }
        if (auto const p = peer.lock(); p && !bytes.empty()) {
            // Into an empty queue anything goes, so that one message larger
            // than the mark is not refused for ever.
            if (p->waiting_bytes > 0 && p->waiting_bytes + bytes.size() > c->high_water_mark) {
                return false;
            }
            p->push(*c, {kind::bytes, state::connected, peer_session, 0, bytes});
        }
        return true;
    }

    void close() override {
        auto const c = loop.lock();
        if (!c || current == state::closed || current == state::closing) {
            return;
        }
        current = state::closing;
        // Closing is reported before a closed that is already on its way.
        auto const pending = std::find_if(inbox.begin(), inbox.end(), [this](item const& i) {
            return i.what == kind::closed && i.session == session;
        });
        inbox.insert(pending, {kind::report, state::closing, session, c->turn});
        auto const p = peer.lock();
        peer.reset();
        if (p) {
            // The peer gets our bytes, then closed; its report of closed sends
            // ours.
            p->push(*c, {kind::closed, state::closed, peer_session});
        } else {
            push(*c, {kind::closed, state::closed, session});
        }
        schedule(*c);
    }

    void connect(utils::ip_address const& address, unsigned short port) override {
        auto const c = loop.lock();
        if (!c || current != state::closed) {
            return;
        }
        ++session;
        current = state::connecting;
        peer.reset();
        target = place(address, port);
        name = "mem:" + target + " " + side + "-" + std::to_string(number);
        push(*c, {kind::report, state::connecting, session});
        push(*c, {kind::resolve, state::connecting, session});
    }

    std::string const& get_name() const override { return name; }
    state get_state() const override { return current; }

    void set_receive_handler(
        std::function<void(std::vector<unsigned char> const&)> const& handler) override {
        on_receive = handler;
    }
    void set_state_handler(std::function<void(state)> const& handler) override {
        on_state = handler;
    }

    void pause_reading(bool paused) {
        reading_paused = paused;
        if (auto const c = loop.lock(); c && !paused) {
            schedule(*c);
        }
    }

private:
    enum class kind { report, resolve, bytes, closed };
    struct item {
        kind what;
        state reported;
        std::uint64_t session;
        std::uint64_t turn = 0;
        std::vector<unsigned char> bytes = {};
        std::size_t taken = 0;
    };

    void push(core& c, item i) {
        i.turn = c.turn;
        if (i.what == kind::bytes) {
            waiting_bytes += i.bytes.size();
        }
        inbox.push_back(std::move(i));
        schedule(c);
    }

    void schedule(core& c) {
        if (pump_posted || inbox.empty()) {
            return;
        }
        pump_posted = true;
        c.queue.push_back([weak = weak_from_this()] {
            if (auto const self = weak.lock()) {
                self->pump();
            }
        });
    }

    void pump() {
        auto const c = loop.lock();
        if (!c) {
            return;
        }
        auto const keep = shared_from_this();
        pump_posted = false;
        while (!inbox.empty()) {
            item& next = inbox.front();
            if (next.session != session ||
                (next.what == kind::bytes && current != state::connected)) {
                if (next.what == kind::bytes) {
                    waiting_bytes -= next.bytes.size() - next.taken;
                }
                inbox.pop_front();
                continue;
            }
            if (next.what == kind::bytes && reading_paused) {
                return;  // pause_reading(false) schedules the pump again
            }
            if (next.turn >= c->turn) {
                break;
            }
            switch (next.what) {
                case kind::report: {
                    auto const reported = next.reported;
                    inbox.pop_front();
                    return report(*c, reported);
                }
                case kind::resolve:
                    inbox.pop_front();
                    if (current != state::connecting) {
                        continue;
                    }
                    return resolve(*c);
                case kind::closed: {
                    inbox.pop_front();
                    if (current == state::closed) {
                        continue;
                    }
                    current = state::closed;
                    auto const p = peer.lock();
                    peer.reset();
                    if (p) {
                        p->push(*c, {kind::closed, state::closed, peer_session});
                    }
                    return report(*c, state::closed);
                }
                case kind::bytes:
                    return deliver(*c);
            }
        }
        schedule(*c);
    }

    void report(core& c, state reported) {
        schedule(c);
        auto const handler = on_state;
        if (handler) {
            handler(reported);
        }
    }

    // Coalesces the bytes of earlier turns at the front of the inbox.
    void deliver(core& c) {
        std::size_t const limit =
            c.max_chunk != 0 ? c.max_chunk : std::numeric_limits<std::size_t>::max();
        std::vector<unsigned char> chunk;
        while (!inbox.empty() && chunk.size() < limit) {
            item& next = inbox.front();
            if (next.what != kind::bytes || next.session != session || next.turn >= c.turn) {
                break;
            }
            auto const count = std::min(next.bytes.size() - next.taken, limit - chunk.size());
            auto const from = next.bytes.begin() + static_cast<std::ptrdiff_t>(next.taken);
            chunk.insert(chunk.end(), from, from + static_cast<std::ptrdiff_t>(count));
            next.taken += count;
            waiting_bytes -= count;
            if (next.taken == next.bytes.size()) {
                inbox.pop_front();
            }
        }
        schedule(c);
        auto const handler = on_receive;
        if (handler) {
            handler(chunk);
        }
    }

    // The turn of connected (or closed when nothing listens at the target).
    void resolve(core& c) {
        auto const found = c.listeners.find(target);
        if (found == c.listeners.end()) {
            current = state::closed;
            return report(c, state::closed);
        }
        auto const server = std::make_shared<mem_connection>(loop, number, "server");
        server->name = "mem:" + target + " server-" + std::to_string(number);
        server->target = target;
        server->session = 1;
        server->current = state::connected;
        server->peer = weak_from_this();
        server->peer_session = session;
        peer = server;
        peer_session = server->session;
        current = state::connected;
        c.post_next([entry = std::weak_ptr<core::listener>(found->second), server] {
            accept_handler handler;
            if (auto const listener = entry.lock()) {
                handler = listener->handler;
            }
            // Nobody takes it: dropping it closes the client.
            if (handler) {
                handler(server);
            }
        });
        report(c, state::connected);
    }

    using accept_handler = test_loop::accept_handler;

    std::weak_ptr<core> loop;
    std::uint64_t number;
    std::string side;
    std::string name;
    std::string target;
    state current = state::closed;
    std::uint64_t session = 0;
    std::weak_ptr<mem_connection> peer;
    std::uint64_t peer_session = 0;
    std::deque<item> inbox;
    std::size_t waiting_bytes = 0;  // of the bytes items in the inbox, not yet delivered
    bool reading_paused = false;
    bool pump_posted = false;
    std::function<void(std::vector<unsigned char> const&)> on_receive;
    std::function<void(state)> on_state;
};

// The loop's work runs on the core, which a local reference keeps alive, so
// that a function may destroy the loop that runs it.
std::size_t run_turn(core& c) {
    ++c.turn;
    c.left_in_turn = c.queue.size();
    std::size_t ran = 0;
    while (c.left_in_turn > 0 && !c.queue.empty()) {
        --c.left_in_turn;
        auto const function = std::move(c.queue.front());
        c.queue.pop_front();
        ++ran;
        function();
    }
    return ran;
}

std::size_t run(core& c) {
    std::size_t ran = 0;
    while (!c.queue.empty()) {
        ran += run_turn(c);
        if (ran > quiescence_limit) {
            throw std::logic_error("test_loop: no quiescence");
        }
    }
    return ran;
}

}  // namespace

std::shared_ptr<test_loop> test_loop::create() {
    return std::shared_ptr<test_loop>(new test_loop());
}

test_loop::test_loop() : self(std::make_shared<core>()) {}
test_loop::~test_loop() = default;

std::shared_ptr<utils::timer> test_loop::create_timer() {
    return std::make_shared<mem_timer>(self);
}

std::shared_ptr<utils::tcp_connection> test_loop::create_tcp_connection() {
    return std::make_shared<mem_connection>(self, ++self->connections, "client");
}

void test_loop::post(std::function<void()> const& function) {
    if (function) {
        self->queue.push_back(function);
    }
}

std::size_t test_loop::run_turn() {
    auto const c = self;
    return adapters::run_turn(*c);
}

std::size_t test_loop::run() {
    auto const c = self;
    return adapters::run(*c);
}

void test_loop::advance(std::chrono::milliseconds const& duration) {
    if (duration.count() < 0) {
        throw std::invalid_argument("test_loop: negative advance");
    }
    auto const c = self;
    auto const end = c->clock + duration;
    adapters::run(*c);
    std::size_t fired = 0;
    while (!c->timers.empty() && c->timers.begin()->first.first <= end) {
        if (++fired > quiescence_limit) {
            throw std::logic_error("test_loop: no quiescence");
        }
        auto const due = c->timers.begin();
        c->clock = due->first.first;
        std::function<void()> handler;
        if (auto const timer = due->second.lock()) {
            handler = timer->fire();
        }
        c->timers.erase(due);
        if (handler) {
            handler();
        }
        adapters::run(*c);
    }
    c->clock = end;
}

std::chrono::milliseconds test_loop::now() const {
    return self->clock;
}
bool test_loop::idle() const {
    return self->queue.empty();
}
std::size_t test_loop::running_timers() const {
    return self->timers.size();
}

utils::link test_loop::listen(utils::ip_address const& address, unsigned short port,
                              accept_handler const& handler) {
    auto const entry = std::make_shared<core::listener>(core::listener{handler});
    auto const where = place(address, port);
    self->listeners[where] = entry;
    return misc::create_link(entry, [loop = std::weak_ptr<core>(self), where, raw = entry.get()] {
        auto const c = loop.lock();
        if (!c) {
            return;
        }
        auto const found = c->listeners.find(where);
        if (found != c->listeners.end() && found->second.get() == raw) {
            c->listeners.erase(found);
        }
    });
}

void test_loop::set_max_chunk(std::size_t bytes) {
    self->max_chunk = bytes;
}

void test_loop::set_high_water_mark(std::size_t bytes) {
    self->high_water_mark = bytes;
}

void test_loop::pause_reading(std::shared_ptr<utils::connection> const& end, bool paused) {
    auto const mine = std::dynamic_pointer_cast<mem_connection>(end);
    if (!mine) {
        throw std::invalid_argument("test_loop: not a connection of a test_loop");
    }
    mine->pause_reading(paused);
}

}  // namespace zelvo::tavrin::adapters
