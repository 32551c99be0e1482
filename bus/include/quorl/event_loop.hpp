// quorl_utils::event_loop and quorl_utils::timer: what a bus instance needs of
// the event loop it runs on.
//
// The bus owns no thread and no clock. It asks its loop for two things: to run
// a function on a later turn, and for one-shot timers (reply timeouts). A loop
// class passes both as hooks to the protected constructor, so that a derived
// interface can declare its own operations with the names it likes; the bus
// calls the hooks only after construction.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "quorl/export.hpp"

namespace zelvo::quorl_utils {

// A one-shot timer on the loop: start() runs the handler once, on the loop,
// after the delay; a second start() restarts it; stop() cancels, and is
// harmless when stopped.
class QUORL_API timer {
public:
    virtual ~timer();
    virtual void set_handler(std::function<void()> const& handler) = 0;
    virtual void start(std::chrono::seconds const& delay) = 0;
    virtual void stop() = 0;
};

class QUORL_API event_loop {
public:
    using post_hook = void (*)(event_loop& loop, std::function<void()> const& function);
    using timer_hook = std::shared_ptr<timer> (*)(event_loop& loop);

    virtual ~event_loop();
    event_loop(event_loop const&) = delete;
    event_loop& operator=(event_loop const&) = delete;

    // Runs the function once on a later turn, in the order of calls.
    void defer(std::function<void()> const& function) { post_through(*this, function); }
    // A new stopped timer.
    std::shared_ptr<timer> make_timer() { return timer_through(*this); }

protected:
    event_loop(post_hook post, timer_hook make_timer)
        : post_through(post), timer_through(make_timer) {}

private:
    post_hook post_through;
    timer_hook timer_through;
};

}  // namespace zelvo::quorl_utils
