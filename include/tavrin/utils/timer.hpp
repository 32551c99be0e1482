// utils::timer: a one-shot timer on the application's event loop.
#pragma once

#include <chrono>
#include <functional>

#include "quorl/event_loop.hpp"
#include "tavrin/export.hpp"

namespace zelvo::tavrin::utils {

// start() runs the handler once, on the loop, after the delay; a second
// start() restarts it. stop() cancels a running timer and is harmless when
// stopped. The handler never runs from inside start() or stop().
class TAVRIN_API timer : public quorl_utils::timer {
public:
    ~timer() override;
    void set_handler(std::function<void()> const& handler) override = 0;
    void start(std::chrono::seconds const& delay) override = 0;
    void stop() override = 0;
};

}  // namespace zelvo::tavrin::utils
