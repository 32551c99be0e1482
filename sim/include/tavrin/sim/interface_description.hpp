// sim::interface_description: one radio interface as the handshake offers it
// to clients. A value type.
#pragma once

#include <string>

#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/capabilities.hpp"

namespace zelvo::tavrin::sim {

struct interface_description {
    std::string name;  // the key clients bind with, e.g. "hci0"
    bt_ctrl::address address;
    std::string vendor;
    std::string part;
    bt_ctrl::capabilities caps;
};

}  // namespace zelvo::tavrin::sim
