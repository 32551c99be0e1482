// bt_ctrl::address, a Bluetooth device address. It is defined inside
// bt_ctrl (interface.hpp), since bt_ctrl::reservation holds one and bt_ctrl's
// own operations name reservation::type; this header names what it serves.
#pragma once

#include "tavrin/bt_ctrl/interface.hpp"
