// bt_ctrl::reservation: a claim on one of the controller's radio slots, for a
// connection or an advertiser, optionally for one peer.
//
// The client hands reservations out as shared_ptr<reservation const>, and a
// reservation's identity is that object: two objects with equal fields are two
// reservations. The fields are for reading; changing a reservation is a
// request to the client.
#pragma once

#include <string>

#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/export.hpp"

namespace zelvo::tavrin {

enum class bt_ctrl::reservation_type : unsigned char { connection = 0, advertiser = 1 };

class TAVRIN_API bt_ctrl::reservation {
public:
    using type = reservation_type;

    reservation() = default;
    reservation(reservation const&) = default;
    reservation& operator=(reservation const&) = default;
    virtual ~reservation();

    type resource_type = type::connection;
    // Unknown type: no particular peer.
    bt_ctrl::address address;
    // The application's own text, kept by the controller for it.
    std::string custom_data;
};

}  // namespace zelvo::tavrin
