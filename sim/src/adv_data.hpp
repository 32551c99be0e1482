// sim::adv_data: advertising data as a request carries it and as the air
// does. The JSON form is {"primary"?: [...], "scanRsp"?: [...]}, each element
// {"type": 0..255, "value"?: hex digits}; on air each AD structure is a
// length byte (of type and payload), the type and the payload.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

namespace zelvo::tavrin::sim::adv_data {

// What one set's data or scan response may take on air: a legacy set's
// 31 bytes, and for an interface with extended advertising, what one
// command of the radio carries.
constexpr std::size_t legacy_limit = 31;
constexpr std::size_t extended_limit = 251;

struct ad_structure {
    unsigned char type = 0;
    std::vector<unsigned char> value;
};

struct advertising_data {
    std::vector<ad_structure> primary;
    // Engaged when the request gave "scanRsp", even an empty one.
    std::optional<std::vector<ad_structure>> scan_response;
};

// Empty for a value of the wrong shape: not an object, a key beside the
// two, an element without a "type" from 0 to 255, a "value" that is not an
// even number of hex digits (either case).
std::optional<advertising_data> read(nlohmann::json const& value);
// Upper-case digits; no "value" for an empty payload; no "primary" for no
// structures.
nlohmann::json to_json(advertising_data const& data);
// The bytes the structures take on air.
std::size_t air_size(std::vector<ad_structure> const& structures);
std::vector<unsigned char> to_air(std::vector<ad_structure> const& structures);
// Whether both the data and the scan response fit in `limit` bytes.
bool fits(advertising_data const& data, std::size_t limit);

}  // namespace zelvo::tavrin::sim::adv_data
