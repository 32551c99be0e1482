// bt_ctrl::reservation, a claim on one of the controller's radio slots, with
// its kind reservation::type. It is defined inside bt_ctrl (interface.hpp),
// since bt_ctrl's own operations name reservation::type; this header names
// what it serves.
#pragma once

#include "tavrin/bt_ctrl/interface.hpp"
