// bt_ctrl::scan_result: one advertising packet that a scan saw.
//
// Scanning is not available yet: bt_ctrl's scan operations throw logic_error
// "Not implemented", so nothing fills or delivers this value. It is declared
// so that applications can write their scan handlers against the final
// interface.
#pragma once

#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/advertiser.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/export.hpp"

namespace zelvo::tavrin {

class TAVRIN_API bt_ctrl::scan_result {
public:
    // The advertiser's address.
    bt_ctrl::address address;
    // Received signal strength in dBm; -128 means no reading.
    signed char rssi = -128;
    scan_packet_type packet_type = scan_packet_type::adv_nonconn_ind;
    // The packet's AD structures.
    advertiser::adv_data data;
};

}  // namespace zelvo::tavrin
