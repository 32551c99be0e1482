// adapters::test_loop: a deterministic event loop with a virtual clock and an
// in-memory network, for tests of the library and of applications.
//
// Nothing happens by itself: work runs only inside run_turn(), run() and
// advance(), on the calling thread, in a fixed order, and time moves only in
// advance(). Those three are not meant to be called from inside what the
// loop runs. Timers fire in order of deadline, ties in order of start. The
// in-memory network joins this loop's tcp_connections to listeners of the
// same loop, so a client and a server run in one process with no sockets.
//
// Connections behave like TCP ones seen through utils::connection: every
// report comes on a later turn; bytes sent in one turn reach the peer
// together (coalesced) on a later turn, split into chunks of at most
// set_max_chunk() bytes, one chunk per turn; a close delivers what was sent
// before it, then reports closed on both ends. A connect with no listener at
// the address reports connecting, then closed.
//
// The connections' choices, where TCP leaves them open:
// - connect() and close() change get_state() at once (to connecting and
//   closing), and report it on a later turn; connected and closed show in
//   get_state() when they are reported. connect() is ignored unless closed.
// - connect() reports connecting on the next turn and connected (or closed)
//   on the turn after. On that turn the client's report comes first, then
//   the listener's handler gets the server end; the listener is looked up
//   then, not at connect().
// - Each turn, an end gets at most one report: a state, or one chunk of
//   everything its peer sent before the turn began and that has not arrived
//   yet, at most set_max_chunk() bytes.
// - close() reports closing on a later turn; meanwhile the peer gets the
//   bytes sent before the close, then reports closed; the closer reports
//   closed after that. Bytes still on their way to an end that closes are
//   dropped. A close() while connecting reports closing, then closed.
//   Destroying a connected end closes it the same way for its peer.
// - get_name() is "mem:client-N" before the first connect(), then
//   "mem:ADDRESS:PORT client-N"; the server end of that connection is
//   "mem:ADDRESS:PORT server-N", with the same N.
// - send() refuses (returns false) bytes that would take what waits for
//   the peer to read past the high-water mark; a send while nothing waits
//   is always taken. pause_reading() makes an end a reader that does not
//   read, so that its peer's bytes pile up as behind a slow TCP reader.
//
// An exception from a function, a timer handler or a connection handler
// leaves the call that ran it (run_turn(), run() or advance()); the thrower is
// consumed and the rest stays queued and runs on the next call. Objects made
// by the loop may outlive it: they then do nothing and send() returns false.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include "tavrin/export.hpp"
#include "tavrin/utils/connection.hpp"
#include "tavrin/utils/event_loop.hpp"
#include "tavrin/utils/ip_address.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::adapters {

class TAVRIN_API test_loop : public utils::event_loop {
public:
    using accept_handler = std::function<void(std::shared_ptr<utils::connection> const&)>;

    // The loop must be held by a shared_ptr: what it makes refers to it weakly.
    static std::shared_ptr<test_loop> create();
    ~test_loop() override;

    std::shared_ptr<utils::timer> create_timer() override;
    std::shared_ptr<utils::tcp_connection> create_tcp_connection() override;
    void post(std::function<void()> const& function) override;

    // One turn: runs the functions queued when the call starts, not those
    // they queue, in order. Returns how many ran. Empty functions are not
    // queued.
    std::size_t run_turn();
    // Runs turns until nothing is queued; time stands still. Returns how many
    // functions ran. Throws logic_error "test_loop: no quiescence" when work
    // keeps queueing itself for more than a million functions.
    std::size_t run();
    // Moves the clock forward: runs the queue empty, then fires each timer
    // due by now() + duration at its deadline (now() is the deadline while it
    // fires) and runs the queue empty after each; ends at now() + duration
    // with nothing queued. Timers fire only here, even those already due:
    // advance(0ms) fires the ones started with no delay. A timer that the
    // handlers start due in the span fires in it as well. If something
    // throws, now() stays at the deadline of the last timer fired (where it
    // was if none fired), the thrower is consumed and the timers not yet
    // fired keep running: the next advance() resumes from there. Throws
    // invalid_argument for a negative duration, and logic_error
    // "test_loop: no quiescence" after a million firings in one call.
    void advance(std::chrono::milliseconds const& duration);
    std::chrono::milliseconds now() const;
    // Nothing queued.
    bool idle() const;
    // Timers started and not yet fired or stopped.
    std::size_t running_timers() const;

    // Accepts connections to address:port made by this loop's connections.
    // The handler gets the server end, already connected, on the turn the
    // client end reports connected; a server end that nobody keeps closes
    // the client. Releasing the link stops listening; accepted connections
    // live on. A second listener at the same place (the address's mask does
    // not count) replaces the first, whose link goes inactive.
    utils::link listen(utils::ip_address const& address, unsigned short port,
                       accept_handler const& handler);
    // Deliveries carry at most this many bytes each; 0 (the default) means
    // no limit. Applies from the next delivery on, to bytes already sent too.
    void set_max_chunk(std::size_t bytes);

    // The bytes that one end may have waiting for its peer to read: past
    // the mark, send() returns false. The same default as the Asio adapter.
    static constexpr std::size_t default_high_water_mark = 4 * 1024 * 1024;
    void set_high_water_mark(std::size_t bytes);
    // While paused, the end gets no bytes (its state reports behind them
    // wait too); they pile up for it and count against its peer's mark.
    // Throws invalid_argument for a connection this loop did not make.
    void pause_reading(std::shared_ptr<utils::connection> const& end, bool paused);

    // Opaque: the queue, the clock, the timers and the listeners, shared
    // weakly with everything the loop makes.
    class core;

private:
    test_loop();
    std::shared_ptr<core> self;
};

}  // namespace zelvo::tavrin::adapters
