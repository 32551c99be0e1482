// Advertising for people: AD structures built from the command's options,
// and readable text of advertising data and of an advertiser's changes.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tavrin/bt_ctrl/advertiser.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::cli {

// What `tavrin advertise` sends: a name and 16-bit service UUIDs.
struct adv_options {
    std::string name;
    std::vector<unsigned short> uuids;
    // In units of 0.625 ms, as the controller takes it.
    unsigned short interval = 160;
    bool connectable = false;
};

// Flags (general discoverable, no BR/EDR), the complete list of 16-bit
// service UUIDs (little-endian) if there are any, and the complete local
// name if there is one, in the order of their AD types. Throws invalid_argument, with a message for
// the user, when the structures can't fit a legacy advertising set (31 bytes).
bt_ctrl::advertiser::adv_data build_adv_data(adv_options const& options);

// A 16-bit UUID from "180F" or "0x180F"; throws invalid_argument with a
// message for the user for anything else.
unsigned short parse_uuid16(std::string const& text);

// "flags 06, name \"tavrin\", services 180F 181A": each structure by its
// type, unknown ones as "type 0xNN: HEX".
std::string adv_data_text(bt_ctrl::advertiser::adv_data const& data);

// "160 (100 ms)".
std::string interval_text(unsigned short interval);

// Follows one advertiser: each change of state and of data becomes a line
// "<prefix><what>" on `say`; `changed`, when set, hears the new state after
// the line. The subscriptions end with this object.
class advertiser_lines {
public:
    using say_type = std::function<void(std::string const&)>;
    using changed_type = std::function<void(bt_ctrl::advertiser::state)>;

    advertiser_lines(bt_ctrl::advertiser const& adv, std::string prefix, say_type say,
                     changed_type changed = nullptr);

private:
    utils::scoped_link state;
    utils::scoped_link data;
};

}  // namespace zelvo::tavrin::cli
