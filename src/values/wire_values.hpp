// impl::wire_values: the JSON forms of the Bluetooth value types, as the
// controller's messages carry them. The client implementation derives from
// this class, so its message handlers call these conversions unqualified.
//
// Readers throw on malformed input and the exception goes to the caller: a
// required key that is missing raises out_of_range "map::at", a value of the
// wrong JSON type raises the JSON library's type_error ("type must be number,
// but is ..."), and numbers are read by to_number. Optional parts (an address, unknown words in a
// list) are dropped instead.
#pragma once

#include <limits>
#include <map>
#include <set>
#include <stdexcept>
#include <tuple>

#include <nlohmann/json.hpp>

#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/bt_ctrl/reservation.hpp"
#include "tavrin/bt_ctrl/signal.hpp"

namespace zelvo::tavrin::impl {

class wire_values {
public:
    // A number from the controller as T, by the JSON library's conversion,
    // which names the type it found when the value is no number. A fraction
    // is truncated toward zero; a floating-point value that T can't hold (out
    // of range, infinite, NaN) throws runtime_error "number out of range: "
    // and the value, as the conversion itself would be undefined. Integers
    // are cut to T's width as the JSON library does.
    template <typename T>
    static T to_number(nlohmann::json const& value) {
        if (value.is_number_float()) {
            auto const number = value.get<double>();
            if (!(number > static_cast<double>(std::numeric_limits<T>::lowest()) - 1 &&
                  number < static_cast<double>(std::numeric_limits<T>::max()) + 1)) {
                throw std::runtime_error("number out of range: " + value.dump());
            }
        }
        return value.get<T>();
    }

    // {"type": "public", "mac": "AA:BB:CC:DD:EE:FF"}; {} for an address of
    // unknown type.
    static nlohmann::json to_json(tavrin::bt_ctrl::address const& address);

    // The unknown all-zero address unless both "mac" and "type" are strings:
    // a MAC without a type is no address. An unknown type word keeps the MAC
    // with type unknown; a malformed MAC throws as utils::mac_address does.
    static tavrin::bt_ctrl::address to_address(nlohmann::json::object_t const& object);

    // The known words of a list of strings; unknown words are left out. A
    // non-string element throws, and nothing is delivered.
    static std::set<tavrin::bt_ctrl::addr_type> to_address_types(
        nlohmann::json::array_t const& array);
    static std::set<tavrin::bt_ctrl::phy> to_phys(nlohmann::json::array_t const& array);

    // (intervalMin, intervalMax, latency, timeout), all required.
    static std::tuple<unsigned short, unsigned short, unsigned short, unsigned short>
    to_conn_params(nlohmann::json::object_t const& object);

    // "quality" (0 to 255) and "strength" (signed), both required.
    static tavrin::bt_ctrl::signal to_signal(nlohmann::json::object_t const& object);

    // Handle to queue position, from {"<handle>": {"piq": <position>}, ...}.
    // Keys are decimal (std::stoi, whose failures pass unchanged) and cut to
    // 16 bits; of two keys that cut to one handle, the first in key order
    // wins.
    static std::map<unsigned short, unsigned int> to_conn_queue(
        nlohmann::json::object_t const& object);
    static std::map<unsigned short, unsigned int> to_adv_queue(
        nlohmann::json::object_t const& object);

    // Free slots per kind, from "connection" and "advertiser", both required.
    static std::map<tavrin::bt_ctrl::reservation::type, unsigned int> to_reservation_cnt(
        nlohmann::json::object_t const& object);
};

}  // namespace zelvo::tavrin::impl
