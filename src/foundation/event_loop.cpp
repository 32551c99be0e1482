#include "tavrin/utils/event_loop.hpp"

#include "tavrin/utils/connection.hpp"
#include "tavrin/utils/tcp_connection.hpp"
#include "tavrin/utils/timer.hpp"

namespace zelvo::tavrin::utils {

namespace {

// The bus reaches the application's loop through these two hooks, which only
// forward to the operations the application implements.
void post_for_bus(quorl_utils::event_loop& loop, std::function<void()> const& function) {
    static_cast<event_loop&>(loop).post(function);
}

std::shared_ptr<quorl_utils::timer> timer_for_bus(quorl_utils::event_loop& loop) {
    return static_cast<event_loop&>(loop).create_timer();
}

}  // namespace

event_loop::event_loop() : quorl_utils::event_loop(&post_for_bus, &timer_for_bus) {}
event_loop::~event_loop() = default;
timer::~timer() = default;
connection::~connection() = default;
tcp_connection::~tcp_connection() = default;

}  // namespace zelvo::tavrin::utils
