// The client object and all its nested types.
#pragma once

#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/advertiser.hpp"
#include "tavrin/bt_ctrl/capabilities.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/connection_gatts.hpp"
#include "tavrin/bt_ctrl/create_bt_ctrl.hpp"
#include "tavrin/bt_ctrl/gatts.hpp"
#include "tavrin/bt_ctrl/handshake_ctx.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/bt_ctrl/reservation.hpp"
#include "tavrin/bt_ctrl/scan_result.hpp"
#include "tavrin/bt_ctrl/signal.hpp"
