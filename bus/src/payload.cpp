#include "quorl/payload.hpp"

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "stravik/part_payload.hpp"

namespace zelvo::quorl_utils {

payload::payload(std::vector<unsigned char>&& bytes, stravik_part_payload::format format)
    : bytes(std::move(bytes)), format(format) {
    auto const tag = static_cast<unsigned>(format);
    if (tag > static_cast<unsigned>(stravik_part_payload::format::json)) {
        throw std::invalid_argument("quorl: unknown payload format");
    }
    if (format == stravik_part_payload::format::none && !this->bytes.empty()) {
        throw std::invalid_argument("quorl: payload bytes without a format");
    }
}

payload::payload(nlohmann::json const& value) : format(stravik_part_payload::format::json) {
    std::string const text = value.dump();
    bytes.assign(text.begin(), text.end());
}

}  // namespace zelvo::quorl_utils

namespace zelvo::stravik_part_payload {

namespace {

// The offset of the first bracket that opens a level beyond max_depth, or
// npos. Brackets inside strings don't count; for text that is not JSON the
// answer does not matter, since the parser refuses it anyway.
std::size_t too_deep_at(std::vector<unsigned char> const& bytes) {
    std::size_t depth = 0;
    bool in_string = false;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        auto const c = bytes[i];
        if (in_string) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                in_string = false;
            }
        } else if (c == '"') {
            in_string = true;
        } else if (c == '[' || c == '{') {
            if (++depth > max_depth) {
                return i;
            }
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return std::string::npos;
}

}  // namespace

template <>
nlohmann::json from_bytes<nlohmann::json>(std::vector<unsigned char> const& bytes) {
    // The parser itself keeps its own stack, but copying, comparing and
    // printing a value recurse once per level: a peer must not choose how
    // deep that goes.
    if (auto const at = too_deep_at(bytes); at != std::string::npos) {
        throw nlohmann::json::parse_error::create(
            101, at + 1,
            "syntax error: nesting deeper than " + std::to_string(max_depth) + " levels", nullptr);
    }
    return nlohmann::json::parse(bytes.begin(), bytes.end(), nullptr, true, false);
}

}  // namespace zelvo::stravik_part_payload
