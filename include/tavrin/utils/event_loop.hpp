// utils::event_loop: what the application gives the library to run on.
//
// The library holds no thread, socket or timer of its own: it runs in the
// application's calls and in what this loop delivers. An application
// implements these three operations (or takes an adapter from
// tavrin/adapters/); the message bus derives what it needs from them.
#pragma once

#include <functional>
#include <memory>

#include "quorl/event_loop.hpp"
#include "tavrin/export.hpp"
#include "tavrin/utils/tcp_connection.hpp"
#include "tavrin/utils/timer.hpp"

namespace zelvo::tavrin::utils {

class TAVRIN_API event_loop : public quorl_utils::event_loop {
public:
    event_loop();
    ~event_loop() override;

    // A new stopped timer.
    virtual std::shared_ptr<timer> create_timer() = 0;
    // A new closed connection.
    virtual std::shared_ptr<tcp_connection> create_tcp_connection() = 0;
    // Runs the function once, on a later turn, on the loop's thread, in the
    // order of posting. Callable from inside any callback; functions posted
    // run even when whoever posted them is gone.
    virtual void post(std::function<void()> const& function) = 0;
};

}  // namespace zelvo::tavrin::utils
