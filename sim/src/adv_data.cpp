#include "adv_data.hpp"

#include <string>

namespace zelvo::tavrin::sim::adv_data {

namespace {

using nlohmann::json;

int digit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

std::optional<std::vector<unsigned char>> from_hex(std::string const& text) {
    if (text.size() % 2 != 0) {
        return std::nullopt;
    }
    std::vector<unsigned char> bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        auto const high = digit(text[i]), low = digit(text[i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<unsigned char>(high * 16 + low));
    }
    return bytes;
}

std::optional<std::vector<ad_structure>> read_structures(json const& value) {
    if (!value.is_array()) {
        return std::nullopt;
    }
    std::vector<ad_structure> structures;
    for (auto const& element : value) {
        if (!element.is_object()) {
            return std::nullopt;
        }
        ad_structure read;
        for (auto const& item : element.items()) {
            if (item.key() == "type" && item.value().is_number_unsigned() &&
                item.value().get<std::uint64_t>() <= 255) {
                read.type = static_cast<unsigned char>(item.value().get<std::uint64_t>());
            } else if (item.key() == "value" && item.value().is_string()) {
                auto bytes = from_hex(item.value().get_ref<std::string const&>());
                if (!bytes) {
                    return std::nullopt;
                }
                read.value = std::move(*bytes);
            } else {
                return std::nullopt;
            }
        }
        if (!element.contains("type")) {
            return std::nullopt;
        }
        structures.push_back(std::move(read));
    }
    return structures;
}

json structures_json(std::vector<ad_structure> const& structures) {
    static char const digits[] = "0123456789ABCDEF";
    json all = json::array();
    for (auto const& structure : structures) {
        json element = {{"type", structure.type}};
        if (!structure.value.empty()) {
            std::string text;
            for (auto const byte : structure.value) {
                text += digits[byte >> 4];
                text += digits[byte & 15];
            }
            element["value"] = text;
        }
        all.push_back(std::move(element));
    }
    return all;
}

}  // namespace

std::optional<advertising_data> read(json const& value) {
    if (!value.is_object()) {
        return std::nullopt;
    }
    advertising_data data;
    for (auto const& item : value.items()) {
        auto structures = read_structures(item.value());
        if (!structures || (item.key() != "primary" && item.key() != "scanRsp")) {
            return std::nullopt;
        }
        if (item.key() == "primary") {
            data.primary = std::move(*structures);
        } else {
            data.scan_response = std::move(*structures);
        }
    }
    return data;
}

json to_json(advertising_data const& data) {
    json all = json::object();
    if (!data.primary.empty()) {
        all["primary"] = structures_json(data.primary);
    }
    if (data.scan_response) {
        all["scanRsp"] = structures_json(*data.scan_response);
    }
    return all;
}

std::size_t air_size(std::vector<ad_structure> const& structures) {
    std::size_t size = 0;
    for (auto const& structure : structures) {
        size += 2 + structure.value.size();
    }
    return size;
}

std::vector<unsigned char> to_air(std::vector<ad_structure> const& structures) {
    std::vector<unsigned char> bytes;
    for (auto const& structure : structures) {
        // Callers keep the whole within a limit that a length byte holds.
        bytes.push_back(static_cast<unsigned char>(1 + structure.value.size()));
        bytes.push_back(structure.type);
        bytes.insert(bytes.end(), structure.value.begin(), structure.value.end());
    }
    return bytes;
}

bool fits(advertising_data const& data, std::size_t limit) {
    return air_size(data.primary) <= limit &&
           (!data.scan_response || air_size(*data.scan_response) <= limit);
}

}  // namespace zelvo::tavrin::sim::adv_data
