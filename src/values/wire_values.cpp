#include "values/wire_values.hpp"

#include <string>

namespace zelvo::tavrin::impl {

namespace {

using json = nlohmann::json;
using bt_ctrl = tavrin::bt_ctrl;

// The string under `key`, or null if it is missing or no string.
std::string const* find_string(json::object_t const& object, char const* key) {
    auto const found = object.find(key);
    if (found == object.end() || !found->second.is_string()) {
        return nullptr;
    }
    return &found->second.get_ref<std::string const&>();
}

template <typename Enum, typename Parse>
std::set<Enum> to_known_set(json::array_t const& array, Parse parse) {
    std::set<Enum> known;
    for (auto const& element : array) {
        auto const value = parse(element.get<std::string>());
        if (value != Enum::unknown) {
            known.insert(value);
        }
    }
    return known;
}

}  // namespace

json wire_values::to_json(bt_ctrl::address const& address) {
    if (!address) {
        return json::object();
    }
    return {{"type", bt_ctrl::to_string(address.type)}, {"mac", address.mac.to_string(':', true)}};
}

bt_ctrl::address wire_values::to_address(json::object_t const& object) {
    auto const* const mac = find_string(object, "mac");
    auto const* const type = find_string(object, "type");
    if (mac == nullptr || type == nullptr) {
        return {};
    }
    return {bt_ctrl::to_addr_type(*type), utils::mac_address(*mac)};
}

std::set<bt_ctrl::addr_type> wire_values::to_address_types(json::array_t const& array) {
    return to_known_set<bt_ctrl::addr_type>(array, bt_ctrl::to_addr_type);
}

std::set<bt_ctrl::phy> wire_values::to_phys(json::array_t const& array) {
    return to_known_set<bt_ctrl::phy>(array, bt_ctrl::to_phy);
}

std::tuple<unsigned short, unsigned short, unsigned short, unsigned short>
wire_values::to_conn_params(json::object_t const& object) {
    return {to_number<unsigned short>(object.at("intervalMin")),
            to_number<unsigned short>(object.at("intervalMax")),
            to_number<unsigned short>(object.at("latency")),
            to_number<unsigned short>(object.at("timeout"))};
}

bt_ctrl::signal wire_values::to_signal(json::object_t const& object) {
    return {to_number<unsigned char>(object.at("quality")),
            to_number<signed char>(object.at("strength"))};
}

std::map<unsigned short, unsigned int> wire_values::to_conn_queue(json::object_t const& object) {
    std::map<unsigned short, unsigned int> queue;
    for (auto const& [key, entry] : object) {
        auto const handle = static_cast<unsigned short>(std::stoi(key));
        auto const position = to_number<unsigned int>(entry.get<json::object_t>().at("piq"));
        queue.emplace(handle, position);
    }
    return queue;
}

std::map<unsigned short, unsigned int> wire_values::to_adv_queue(json::object_t const& object) {
    return to_conn_queue(object);
}

std::map<bt_ctrl::reservation::type, unsigned int> wire_values::to_reservation_cnt(
    json::object_t const& object) {
    return {
        {bt_ctrl::reservation::type::advertiser, to_number<unsigned int>(object.at("advertiser"))},
        {bt_ctrl::reservation::type::connection, to_number<unsigned int>(object.at("connection"))},
    };
}

}  // namespace zelvo::tavrin::impl
