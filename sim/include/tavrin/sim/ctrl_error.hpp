// sim::ctrl_error: the numeric codes with which the controller refuses a
// request. They travel as the bus's application codes (responder::fail), and
// the client turns each into one of its own error values; the comment on each
// code names that value where the name alone does not.
//
// Codes 1 and 47 and above are never sent. docs/simulator.md lists the table.
#pragma once

namespace zelvo::tavrin::sim {

enum class ctrl_error : int {
    unsupported_functionality = 2,  // the controller has no such request or feature
    unavailable_functionality = 3,  // the feature exists but is off now
    internal_error = 4,             // client: internal_failure
    malformed_request = 5,          // body not JSON or of the wrong shape; client: internal_failure
    no_such_interface = 6,          // client: no_interface
    interface_failure = 7,          // the radio interface failed; client: internal_failure
    unsupported_phy = 8,
    gatt_bad_offset_value = 9,
    gatt_unsupported_writing_type = 10,
    unsupported_scan_type = 11,
    scan_failure = 12,  // the radio failed to scan; client: internal_failure
    insufficient_resources = 13,
    unknown_resource_reservation = 14,
    unexpected_resource_type = 15,
    unexpected_resource_target = 16,
    busy_resource = 17,
    connection_inappropriate_state = 18,
    gatt_bad_value_size = 19,
    gatt_exceeded_mtu_size_limit = 20,
    gatt_attribute_proto_failure = 21,
    driver_failure = 22,
    connection_failure = 23,  // the radio failed on a connection; client: internal_failure
    connection_limit_exceeded = 24,
    connection_duplicate = 25,
    connection_invalid_parameter = 26,
    bad_address = 27,
    bad_address_type = 28,  // client: bad_address, as 27
    unsupported_address = 29,
    advertiser_limit_exceeded = 30,
    gatt_unknown_handle = 31,
    gatt_unavailable_attribute = 32,
    advertiser_bad_channel_map = 33,
    advertiser_data_limit_exceeded = 34,  // client: advertiser limit_exceeded, as 30
    advertiser_inappropriate_state = 35,
    asymmetric_resource_reservation = 36,
    inappropriate_state = 37,  // the request does not fit the session's state
    gatt_circular_reference = 38,
    gatt_unknown_reference = 39,
    gatt_offset_out_of_range = 40,         // client: gatt bad_offset_value, as 9
    interface_inappropriate_state = 41,    // client: inappropriate_state, as 37
    advertising_inappropriate_state = 42,  // client: advertiser inappropriate_state, as 35
    connection_not_ready = 43,             // client: connection inappropriate_state, as 18
    gatt_inappropriate_state = 44,
    gatt_unsupported_attribute_operation = 45,
    gatt_unexpected_handle = 46,
};

}  // namespace zelvo::tavrin::sim
