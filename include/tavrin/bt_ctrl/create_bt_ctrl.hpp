// create_bt_ctrl: the one way to make a client.
#pragma once

#include <array>
#include <memory>
#include <optional>

#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/export.hpp"
#include "tavrin/utils/event_loop.hpp"
#include "tavrin/utils/ip_address.hpp"

namespace zelvo::tavrin {

// A client in state `disabled`, on `loop`, for the controller at `ip`:`port`.
// The controller is not contacted until enable(). `client_id` names the
// application to the controller; without it, the controller keeps no
// reservations for it. The loop must run the client's work on the thread
// that calls it.
TAVRIN_API std::shared_ptr<bt_ctrl> create_bt_ctrl(
    std::shared_ptr<utils::event_loop> const& loop,
    std::optional<std::array<unsigned char, 16>> const& client_id, utils::ip_address const& ip,
    unsigned short port);

}  // namespace zelvo::tavrin
