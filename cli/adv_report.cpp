#include "adv_report.hpp"

#include <cctype>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>

namespace zelvo::tavrin::cli {

namespace {

constexpr unsigned char flags_type = 0x01;
constexpr unsigned char uuid16_list_type = 0x03;
constexpr unsigned char complete_name_type = 0x09;
// LE General Discoverable Mode, BR/EDR Not Supported.
constexpr unsigned char general_discoverable = 0x06;
constexpr std::size_t legacy_limit = 31;

std::string hex(std::vector<unsigned char> const& bytes) {
    std::string text;
    char digits[3];
    for (auto const byte : bytes) {
        std::snprintf(digits, sizeof digits, "%02X", byte);
        text += digits;
    }
    return text;
}

std::string uuid_text(unsigned short uuid) {
    char digits[5];
    std::snprintf(digits, sizeof digits, "%04X", uuid);
    return digits;
}

}  // namespace

bt_ctrl::advertiser::adv_data build_adv_data(adv_options const& options) {
    bt_ctrl::advertiser::adv_data data;
    data.emplace(flags_type, std::vector<unsigned char>{general_discoverable});
    if (!options.name.empty()) {
        data.emplace(complete_name_type,
                     std::vector<unsigned char>(options.name.begin(), options.name.end()));
    }
    if (!options.uuids.empty()) {
        std::vector<unsigned char> list;
        for (auto const uuid : options.uuids) {
            list.push_back(static_cast<unsigned char>(uuid & 0xFF));
            list.push_back(static_cast<unsigned char>(uuid >> 8));
        }
        data.emplace(uuid16_list_type, std::move(list));
    }
    std::size_t size = 0;
    for (auto const& entry : data) {
        size += 2 + entry.second.size();
    }
    if (size > legacy_limit) {
        throw std::invalid_argument("the advertising data takes " + std::to_string(size) +
                                    " bytes, more than the 31 of an advertising packet: use a "
                                    "shorter name or fewer UUIDs");
    }
    return data;
}

unsigned short parse_uuid16(std::string const& text) {
    auto digits = text;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        digits = digits.substr(2);
    }
    bool well_formed = digits.size() == 4;
    for (unsigned char c : digits) {
        well_formed = well_formed && std::isxdigit(c);
    }
    if (!well_formed) {
        throw std::invalid_argument("\"" + text +
                                    "\" is not a 16-bit UUID (four hexadecimal digits, such as "
                                    "180F)");
    }
    return static_cast<unsigned short>(std::stoul(digits, nullptr, 16));
}

std::string adv_data_text(bt_ctrl::advertiser::adv_data const& data) {
    std::string text;
    for (auto const& [type, value] : data) {
        text += text.empty() ? "" : ", ";
        if (type == flags_type) {
            text += "flags " + hex(value);
        } else if (type == complete_name_type) {
            text += "name \"" + std::string(value.begin(), value.end()) + "\"";
        } else if (type == uuid16_list_type && value.size() % 2 == 0) {
            text += "services";
            for (std::size_t i = 0; i < value.size(); i += 2) {
                text += " " + uuid_text(static_cast<unsigned short>(value[i] | value[i + 1] << 8));
            }
        } else {
            char type_text[5];
            std::snprintf(type_text, sizeof type_text, "0x%02X", type);
            text += "type " + std::string(type_text) + ": " + hex(value);
        }
    }
    return text.empty() ? "(none)" : text;
}

std::string interval_text(unsigned short interval) {
    // 0.625 ms units, shown to a tenth of a millisecond.
    auto const tenths = (interval * 625 + 50) / 100;
    auto text = std::to_string(interval) + " (" + std::to_string(tenths / 10);
    if (tenths % 10 != 0) {
        text += "." + std::to_string(tenths % 10);
    }
    return text + " ms)";
}

advertiser_lines::advertiser_lines(bt_ctrl::advertiser const& adv, std::string prefix, say_type say,
                                   changed_type changed) {
    auto const* const watched = &adv;
    state =
        adv.notify_on_state_change([prefix, say, changed, watched](bt_ctrl::advertiser::state now) {
            auto line = prefix + "advertiser " + bt_ctrl::advertiser::to_string(now);
            if (now == bt_ctrl::advertiser::state::stopped) {
                line +=
                    " (reason: " + bt_ctrl::advertiser::to_string(watched->get_stop_reason()) + ")";
            }
            say(line);
            if (changed) {
                changed(now);
            }
        });
    data = adv.notify_on_data_change(
        [prefix, say](bt_ctrl::advertiser::adv_data const& primary,
                      std::optional<bt_ctrl::advertiser::adv_data> const& scan) {
            say(prefix + "data " + adv_data_text(primary) +
                (scan ? "; scan response " + adv_data_text(*scan) : ""));
        });
}

}  // namespace zelvo::tavrin::cli
