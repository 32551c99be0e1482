// The payload encoding of the bus: a format tag carried with every payload,
// and the decoding of payload bytes into a value.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "quorl/export.hpp"

namespace zelvo::stravik_part_payload {

// How the bytes of a payload are to be read. The tag travels in every frame;
// the bus itself never looks inside a payload.
enum class format : unsigned char {
    none = 0,  // no payload
    raw = 1,   // opaque bytes
    json = 2,  // JSON text, UTF-8, no terminator
};

// Decodes payload bytes into a T. Only nlohmann::json is provided.
template <typename T>
T from_bytes(std::vector<unsigned char> const& bytes);

// Arrays and objects nested deeper than this are refused by from_bytes.
constexpr unsigned max_depth = 64;

// Parses the bytes as one JSON text, with exceptions on and comments off:
// throws nlohmann::json::parse_error when the bytes are not exactly one JSON
// value, or when arrays and objects nest deeper than max_depth (whatever
// reads, copies, compares or prints a value recurses once per level, so the
// depth is bounded where a peer's bytes become a value).
template <>
QUORL_API nlohmann::json from_bytes<nlohmann::json>(std::vector<unsigned char> const& bytes);

}  // namespace zelvo::stravik_part_payload
