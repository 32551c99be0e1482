// The client object and all its nested types.
#pragma once

#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/advertiser.hpp"
#include "tavrin/bt_ctrl/capabilities.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/bt_ctrl/reservation.hpp"
#include "tavrin/bt_ctrl/signal.hpp"
