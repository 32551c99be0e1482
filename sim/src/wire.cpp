#include "wire.hpp"

#include <cstdint>
#include <initializer_list>
#include <set>
#include <stdexcept>

#include "tavrin/utils/mac_address.hpp"
#include "values/capability_keys.hpp"
#include "values/wire_values.hpp"

namespace zelvo::tavrin::sim::wire {

namespace {

using nlohmann::json;

namespace keys = impl::capability_keys;

constexpr bt_ctrl::phy known_phys[] = {bt_ctrl::phy::m1, bt_ctrl::phy::m2, bt_ctrl::phy::coded};
constexpr bt_ctrl::addr_type known_addr_types[] = {bt_ctrl::addr_type::public_address,
                                                   bt_ctrl::addr_type::random_address};
constexpr bt_ctrl::state known_states[] = {bt_ctrl::state::enabled, bt_ctrl::state::disabled,
                                           bt_ctrl::state::rebooting};

// The value among `known` whose word is exactly the text: the wire words are
// lower case, and a config should spell them as the wire does.
template <typename Enum, std::size_t N>
Enum read_word(json const& value, std::string const& path, Enum const (&known)[N]) {
    std::string choices;
    for (Enum candidate : known) {
        if (value.is_string() &&
            value.get_ref<std::string const&>() == bt_ctrl::to_string(candidate)) {
            return candidate;
        }
        choices += (choices.empty() ? "\"" : ", \"") + bt_ctrl::to_string(candidate) + "\"";
    }
    fail(path, "expected one of " + choices);
}

template <typename Enum, std::size_t N>
std::set<Enum> read_words(json const& value, std::string const& path, Enum const (&known)[N]) {
    if (!value.is_array()) {
        fail(path, "expected an array");
    }
    std::set<Enum> words;
    for (std::size_t i = 0; i < value.size(); ++i) {
        words.insert(read_word(value[i], path + "[" + std::to_string(i) + "]", known));
    }
    return words;
}

template <typename Enum>
json to_words(std::set<Enum> const& values) {
    json words = json::array();
    for (Enum value : values) {
        words.push_back(bt_ctrl::to_string(value));
    }
    return words;
}

}  // namespace

std::int64_t read_integer(json const& value, std::string const& path, std::int64_t min,
                          std::int64_t max) {
    // An unsigned JSON number may be beyond what a signed one can hold.
    bool const in_range =
        value.is_number_unsigned()
            ? value.get<std::uint64_t>() <= static_cast<std::uint64_t>(max) &&
                  (min <= 0 || value.get<std::uint64_t>() >= static_cast<std::uint64_t>(min))
            : value.is_number_integer() && value.get<std::int64_t>() >= min &&
                  value.get<std::int64_t>() <= max;
    if (!in_range) {
        fail(path,
             "expected an integer from " + std::to_string(min) + " to " + std::to_string(max));
    }
    return value.get<std::int64_t>();
}

void fail(std::string const& path, std::string const& problem) {
    throw std::runtime_error(path + ": " + problem);
}

json to_json(bt_ctrl::address const& address) {
    return impl::wire_values::to_json(address);
}

json to_json(bt_ctrl::capabilities const& caps) {
    json object = {{"maxTxPower", caps.maxTxPower},
                   {"maxMtuSize", caps.maxMtuSize},
                   {"addrTypes", to_words(caps.addrTypes)}};
    for (auto const& flag : keys::flags) {
        object[flag.key] = caps.*flag.member;
    }
    for (auto const& length : keys::value_lengths) {
        object[length.key] = caps.*length.member;
    }
    for (auto const& list : keys::phy_lists) {
        object[list.key] = to_words(caps.*list.member);
    }
    return object;
}

json to_json(interface_description const& description) {
    return {{"addr", to_json(description.address)},
            {"vendor", description.vendor},
            {"part", description.part},
            {"caps", to_json(description.caps)}};
}

json handshake_reply(version_info const& versions,
                     std::vector<interface_description> const& interfaces) {
    json described = json::object();
    for (auto const& description : interfaces) {
        described[description.name] = to_json(description);
    }
    return {{"version", versions.version},
            {"apiVersion", versions.api_version},
            {"ifs", std::move(described)}};
}

bt_ctrl::address read_address(json const& value, std::string const& path) {
    if (!value.is_object()) {
        fail(path, "expected an object with \"type\" and \"mac\"");
    }
    for (auto const& item : value.items()) {
        if (item.key() != "type" && item.key() != "mac") {
            fail(path + "." + item.key(), "unknown key");
        }
    }
    if (!value.contains("type") || !value.contains("mac")) {
        fail(path, "expected an object with \"type\" and \"mac\"");
    }
    auto const type = read_word(value.at("type"), path + ".type", known_addr_types);
    auto const text = read_string(value.at("mac"), path + ".mac");
    utils::mac_address mac;
    try {
        mac = text;
    } catch (std::runtime_error const& error) {
        fail(path + ".mac", error.what());
    }
    bt_ctrl::address const address(type, mac);
    if (!address.is_valid()) {
        fail(path, "not a valid address: " + address.to_string());
    }
    return address;
}

bt_ctrl::phy read_phy(json const& value, std::string const& path) {
    return read_word(value, path, known_phys);
}

bt_ctrl::state read_status(json const& value, std::string const& path) {
    return read_word(value, path, known_states);
}

std::string read_string(json const& value, std::string const& path) {
    if (!value.is_string()) {
        fail(path, "expected a string");
    }
    return value.get<std::string>();
}

void read_caps(json const& value, std::string const& path, bt_ctrl::capabilities& caps) {
    if (!value.is_object()) {
        fail(path, "expected an object");
    }
    for (auto const& item : value.items()) {
        auto const& key = item.key();
        auto const& field = item.value();
        auto const where = path + "." + key;
        if (key == "maxTxPower") {
            caps.maxTxPower = static_cast<signed char>(read_integer(field, where, -128, 127));
            continue;
        }
        if (key == "maxMtuSize") {
            caps.maxMtuSize = static_cast<unsigned short>(read_integer(field, where, 0, 65535));
            continue;
        }
        if (key == "addrTypes") {
            caps.addrTypes = read_words(field, where, known_addr_types);
            continue;
        }
        bool found = false;
        for (auto const& flag : keys::flags) {
            if (key == flag.key) {
                if (!field.is_boolean()) {
                    fail(where, "expected true or false");
                }
                caps.*flag.member = field.get<bool>();
                found = true;
            }
        }
        for (auto const& length : keys::value_lengths) {
            if (key == length.key) {
                caps.*length.member =
                    static_cast<unsigned short>(read_integer(field, where, 0, 65535));
                found = true;
            }
        }
        for (auto const& list : keys::phy_lists) {
            if (key == list.key) {
                caps.*list.member = read_words(field, where, known_phys);
                found = true;
            }
        }
        if (!found) {
            fail(where, "unknown key");
        }
    }
}

}  // namespace zelvo::tavrin::sim::wire
