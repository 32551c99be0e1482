// quorl_utils::payload: the body of a request, a response or an event.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "quorl/export.hpp"
#include "stravik/part_payload.hpp"

namespace zelvo::quorl_utils {

// Bytes and the tag that says how to read them. A value type.
class QUORL_API payload {
public:
    payload() = default;
    // Throws invalid_argument for a format outside the enumeration, or for
    // bytes tagged format::none.
    payload(std::vector<unsigned char>&& bytes, stravik_part_payload::format format);
    // The value as compact JSON text (no indent, no forced ASCII), tagged
    // format::json. A string with invalid UTF-8 throws nlohmann::json's
    // type_error.
    explicit payload(nlohmann::json const& value);

    std::vector<unsigned char> const& get_bytes() const { return bytes; }
    stravik_part_payload::format get_format() const { return format; }

private:
    std::vector<unsigned char> bytes;
    stravik_part_payload::format format = stravik_part_payload::format::none;
};

}  // namespace zelvo::quorl_utils
