// The JSON forms of advertising data and channels, both ways. Nothing here
// looks inside an AD structure's payload or limits its length: what the
// radio can send is the controller's judgement.
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "advertiser/advertiser.hpp"
#include "tavrin/misc/hex.hpp"

namespace zelvo::tavrin::impl {

namespace {

using json = nlohmann::json;
using adv_data = tavrin::bt_ctrl::advertiser::adv_data;

// Each structure goes behind any of its type already there, so that repeated
// types keep the order in which they came.
adv_data to_structures(json::array_t const& array) {
    adv_data result;
    for (auto const& element : array) {
        auto const type = wire_values::to_number<unsigned char>(element.at("type"));
        auto const value = element.value("value", std::string());
        result.emplace_hint(result.upper_bound(type), type,
                            misc::from_hex_string<std::vector<unsigned char>>(value, ""));
    }
    return result;
}

}  // namespace

bool bt_ctrl::advertiser::is_channel_map_valid(std::set<unsigned char> const& channels) {
    for (auto const channel : channels) {
        if (channel < 37 || channel > 39) {
            return false;
        }
    }
    return true;
}

std::vector<json> bt_ctrl::advertiser::to_json(std::set<unsigned char> const& channels) {
    std::vector<json> result;
    for (auto const channel : channels) {
        result.emplace_back("ch" + std::to_string(channel));
    }
    return result;
}

std::vector<json> bt_ctrl::advertiser::to_json(adv_data const& data) {
    std::vector<json> result;
    for (auto const& [type, payload] : data) {
        json structure{{"type", type}};
        if (!payload.empty()) {
            structure["value"] = misc::to_hex_string(payload, "", true);
        }
        result.push_back(std::move(structure));
    }
    return result;
}

std::map<std::string, json> bt_ctrl::advertiser::to_json(adv_data const& data,
                                                         std::optional<adv_data> const& scan_data) {
    std::map<std::string, json> result;
    if (!data.empty()) {
        result["primary"] = to_json(data);
    }
    if (scan_data) {
        // Engaged but empty still goes out: to the controller an empty scan
        // response differs from none.
        result["scanRsp"] = to_json(*scan_data);
    }
    return result;
}

std::set<unsigned char> bt_ctrl::advertiser::to_channel_map(std::vector<json> const& values) {
    std::set<unsigned char> result;
    for (auto const& value : values) {
        // The prefix is not looked at.
        auto const text = value.get<std::string>();
        result.insert(static_cast<unsigned char>(
            std::stoi(text.substr(std::min<std::size_t>(2, text.size())), nullptr, 10)));
    }
    return result;
}

std::pair<adv_data, std::optional<adv_data>> bt_ctrl::to_adv_data(json::object_t const& object) {
    std::pair<adv_data, std::optional<adv_data>> result;
    if (auto const found = object.find("primary");
        found != object.end() && found->second.is_array()) {
        result.first = to_structures(found->second.get<json::array_t>());
    }
    if (auto const found = object.find("scanRsp");
        found != object.end() && found->second.is_array()) {
        result.second = to_structures(found->second.get<json::array_t>());
    }
    return result;
}

}  // namespace zelvo::tavrin::impl
