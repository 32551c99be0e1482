#include "conn_report.hpp"

#include <stdexcept>
#include <utility>

#include "tavrin/utils/mac_address.hpp"

namespace zelvo::tavrin::cli {

namespace {

// Radio units to milliseconds: intervals of 1.25 ms, timeouts of 10 ms.
std::string milliseconds(unsigned value, unsigned quarter_ms) {
    auto const quarters = value * quarter_ms;
    auto text = std::to_string(quarters / 4);
    if (quarters % 4) {
        text += "." + std::to_string(quarters % 4 * 25);
    }
    return text;
}

}  // namespace

std::string params_text(unsigned short interval_min, unsigned short interval_max,
                        unsigned short latency, unsigned short timeout) {
    return "interval " + std::to_string(interval_min) + "-" + std::to_string(interval_max) + " (" +
           milliseconds(interval_min, 5) + "-" + milliseconds(interval_max, 5) + " ms), latency " +
           std::to_string(latency) + ", timeout " + std::to_string(timeout) + " (" +
           milliseconds(timeout, 40) + " ms)";
}

std::string signal_text(bt_ctrl::signal const& reading) {
    return "quality " + std::to_string(reading.quality) + ", strength " +
           std::to_string(reading.strength) + " dBm";
}

bt_ctrl::address parse_address(std::string const& text) {
    auto const dash = text.find('-');
    auto const type_word = dash == std::string::npos ? "public" : text.substr(dash + 1);
    bt_ctrl::addr_type type = bt_ctrl::addr_type::unknown;
    if (type_word == "public") {
        type = bt_ctrl::addr_type::public_address;
    } else if (type_word == "random") {
        type = bt_ctrl::addr_type::random_address;
    } else {
        throw std::invalid_argument("bad address type \"" + type_word + "\" in \"" + text +
                                    "\": public or random");
    }
    auto const mac_text = text.substr(0, dash);
    if (mac_text.size() != 17) {
        throw std::invalid_argument("bad address \"" + text +
                                    "\": six hexadecimal bytes separated by ':', "
                                    "as in 02:54:56:00:01:01 or 02:54:56:00:01:01-random");
    }
    try {
        return bt_ctrl::address(type, utils::mac_address(mac_text));
    } catch (std::exception const&) {
        throw std::invalid_argument("bad address \"" + text +
                                    "\": six hexadecimal bytes separated by ':', "
                                    "as in 02:54:56:00:01:01 or 02:54:56:00:01:01-random");
    }
}

connection_lines::connection_lines(bt_ctrl::connection const& conn, std::string prefix,
                                   say_type say, changed_type changed) {
    // Each handler shares the prefix and outlets; they run only while the
    // links do, that is while this object lives.
    auto const tell = [prefix = std::move(prefix), say = std::move(say),
                       changed = std::move(changed)](std::string const& kind,
                                                     std::string const& text) {
        say(prefix + text);
        if (changed) {
            changed(kind);
        }
    };
    auto const* const watched = &conn;
    state = conn.notify_on_state_change([tell, watched](bt_ctrl::connection::state now) {
        auto text = "state " + bt_ctrl::connection::to_string(now);
        if (now == bt_ctrl::connection::state::closed) {
            text +=
                " (reason: " + bt_ctrl::connection::to_string(watched->get_close_reason()) + ")";
        } else if (now == bt_ctrl::connection::state::opened) {
            text += " (" + bt_ctrl::connection::to_string(watched->get_direction()) + ", MTU " +
                    std::to_string(watched->get_mtu()) + ")";
        }
        tell("state", text);
    });
    mtu = conn.notify_on_mtu_change(
        [tell](unsigned short value) { tell("mtu", "MTU " + std::to_string(value)); });
    phy = conn.notify_on_phy_change(
        [tell](bt_ctrl::phy value) { tell("phy", "PHY " + bt_ctrl::to_string(value)); });
    params = conn.notify_on_params_change([tell](unsigned short min, unsigned short max,
                                                 unsigned short latency, unsigned short timeout) {
        tell("params", "parameters " + params_text(min, max, latency, timeout));
    });
}

}  // namespace zelvo::tavrin::cli
