// sim::peer: a virtual peripheral within reach of every simulated interface,
// and the parameters of a connection. Value types.
#pragma once

#include <chrono>

#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/bt_ctrl/signal.hpp"

namespace zelvo::tavrin::sim {

// A connection's parameters, in the units of the radio: intervals of
// 1.25 ms, a latency in connection events, a supervision timeout of 10 ms.
struct connection_params {
    unsigned short interval_min = 24;
    unsigned short interval_max = 40;
    unsigned short latency = 0;
    unsigned short timeout = 500;
};

struct peer {
    // The most peers a simulated radio keeps.
    static constexpr unsigned max_peers = 256;

    bt_ctrl::address address;
    // Whether it accepts a connection; one that does not ends the attempt
    // after accept_delay.
    bool accepts = true;
    std::chrono::seconds accept_delay{1};
    // What a connection to it starts with when the request names no PHY.
    bt_ctrl::phy phy = bt_ctrl::phy::m1;
    // Its MTU; a connection gets the smaller of this and the interface's.
    unsigned short mtu = 247;
    bt_ctrl::signal signal{80, -60};
};

}  // namespace zelvo::tavrin::sim
