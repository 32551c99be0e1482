// sim::client_log: the controller's lines about its clients. A dropped client
// always gets a line that says why, but a flood of them (a client that
// reconnects and misbehaves in a loop) must not flood the log: at most
// `burst` such lines a second, and the rest counted in one line when the
// second is over. With verbose on, accepted and closed clients get a line
// each, unlimited.
//
// The second is measured by a timer of the loop, so the limit is
// deterministic on the virtual-time loop.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "tavrin/utils/event_loop.hpp"
#include "tavrin/utils/timer.hpp"

namespace zelvo::tavrin::sim {

class client_log {
public:
    using handler = std::function<void(std::string const&)>;
    static constexpr unsigned burst = 10;

    explicit client_log(std::shared_ptr<utils::event_loop> loop);
    client_log(client_log const&) = delete;
    client_log& operator=(client_log const&) = delete;
    ~client_log();

    // An empty handler writes nothing.
    void set_handler(handler sink, bool verbose);
    void dropped(std::string const& line);
    void verbose(std::string const& line);
    // Always written: what peers do is bounded by what asks for it.
    void note(std::string const& line) const { write(line); }

private:
    void write(std::string const& line) const;
    void end_window();

    std::shared_ptr<utils::event_loop> loop;
    std::shared_ptr<utils::timer> window;
    std::shared_ptr<handler const> sink;
    bool chatty = false;
    bool window_open = false;
    unsigned in_window = 0;
    unsigned suppressed = 0;
};

}  // namespace zelvo::tavrin::sim
