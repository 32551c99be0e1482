// Readable text of connections: their values, and a watcher that prints a
// line for each change a connection reports until it is dropped.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/bt_ctrl/signal.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::cli {

// "interval 24-40 (30-50 ms), latency 0, timeout 500 (5000 ms)".
std::string params_text(unsigned short interval_min, unsigned short interval_max,
                        unsigned short latency, unsigned short timeout);
// "quality 80, strength -60 dBm".
std::string signal_text(bt_ctrl::signal const& reading);
// "AA:BB:CC:DD:EE:FF-public" or "-random"; throws invalid_argument with a
// message for the user for anything else. A bare MAC is public.
bt_ctrl::address parse_address(std::string const& text);

// Follows one connection: each change of state, MTU, PHY and parameters
// becomes a line "<prefix><what>" on `say`, and `changed` (when set) hears
// the kind of change ("state", "mtu", "phy", "params") after the line. The
// subscriptions end with this object; it does not keep the connection alive.
class connection_lines {
public:
    using say_type = std::function<void(std::string const&)>;
    using changed_type = std::function<void(std::string const&)>;

    connection_lines(bt_ctrl::connection const& conn, std::string prefix, say_type say,
                     changed_type changed = nullptr);

private:
    utils::scoped_link state;
    utils::scoped_link mtu;
    utils::scoped_link phy;
    utils::scoped_link params;
};

}  // namespace zelvo::tavrin::cli
