#include "quorl/payload.hpp"

#include <nlohmann/json.hpp>
#include <stdexcept>

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

template <>
nlohmann::json from_bytes<nlohmann::json>(std::vector<unsigned char> const& bytes) {
    return nlohmann::json::parse(bytes.begin(), bytes.end(), nullptr, true, false);
}

}  // namespace zelvo::stravik_part_payload
