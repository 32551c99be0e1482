// impl::bt_ctrl::reservation: a reservation as the client keeps it, with the
// id that the controller gave it. The application sees only the public part,
// through shared_ptr<bt_ctrl::reservation const>; the id is read by
// get_reserv_id, which gives it only for objects in the client's set.
#pragma once

#include <string>

#include "client/bt_ctrl.hpp"
#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/reservation.hpp"

namespace zelvo::tavrin::impl {

class bt_ctrl::reservation : public tavrin::bt_ctrl::reservation {
public:
    reservation(type kind, tavrin::bt_ctrl::address const& target, std::string const& custom) {
        resource_type = kind;
        address = target;
        custom_data = custom;
    }

    // Given by the controller; 0 until the reply that creates it.
    unsigned short resv_id = 0;
};

}  // namespace zelvo::tavrin::impl
