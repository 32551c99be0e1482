// sim::central: a virtual central within reach of every simulated interface,
// which scans the advertising sets on air and connects through connectable
// ones; and what a scan of one set gives. Value types.
#pragma once

#include <chrono>
#include <optional>
#include <vector>

#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/sim/peer_gatt.hpp"

namespace zelvo::tavrin::sim {

struct central {
    // The most centrals a config gives.
    static constexpr unsigned max_centrals = 64;

    bt_ctrl::address address;
    // For a central of the config: how long after a connectable set goes on
    // air it connects, to the first connectable set then on air. Empty for
    // one that connects only when asked to.
    std::optional<std::chrono::seconds> connect_after;
    // What a connection it opens starts with: the PHY (if the interface
    // offers it, else 1M) and its MTU (bounded by the interface's).
    bt_ctrl::phy phy = bt_ctrl::phy::m1;
    unsigned short mtu = 247;
    // What it does on each connection it opens, in order of `after`; at
    // most gatt_step::max_steps.
    std::vector<gatt_step> gatt{};
};

// One advertising set as a central's scan finds it. The data are AD
// structures as on air: a length byte (of type and payload), the type, the
// payload; the scan response is empty for a set that gives none.
struct scan_report {
    bt_ctrl::address address;
    bool connectable = false;
    std::vector<unsigned char> data;
    std::vector<unsigned char> scan_response;
};

// Why a central could not connect.
enum class central_result {
    connected,
    no_such_set,      // the interface has no set of that handle on air
    not_connectable,  // the set on air is not connectable
    bad_address,      // the central's address is not a valid one
    no_such_interface,
};

}  // namespace zelvo::tavrin::sim
