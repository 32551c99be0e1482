// sim::wire: the JSON forms of the values the controller announces, written
// for replies and read from config files. One key table serves both ways, so
// that a config's "caps" keys are exactly the handshake's.
//
// Readers throw runtime_error "<path>: <problem>", where path names the key
// in the document, e.g. "interfaces[0].caps.maxMtuSize".
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/capabilities.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/sim/interface_description.hpp"

namespace zelvo::tavrin::sim::wire {

// {"type": "public", "mac": "AA:BB:CC:DD:EE:FF"}.
nlohmann::json to_json(bt_ctrl::address const& address);
// Every caps key, the PHY lists included.
nlohmann::json to_json(bt_ctrl::capabilities const& caps);
// {"addr": ..., "vendor": ..., "part": ..., "caps": ...}; the name is the key
// the caller files it under.
nlohmann::json to_json(interface_description const& description);

// The body of the reply to "hdshkStart": {"version", "apiVersion", "ifs":
// {name: description}}.
nlohmann::json handshake_reply(version_info const& versions,
                               std::vector<interface_description> const& interfaces);

[[noreturn]] void fail(std::string const& path, std::string const& problem);

// An object with a "type" of "public" or "random" and a "mac"; the address
// must be valid for its type.
bt_ctrl::address read_address(nlohmann::json const& value, std::string const& path);
// "1m", "2m" or "coded".
bt_ctrl::phy read_phy(nlohmann::json const& value, std::string const& path);
// "enabled", "disabled" or "rebooting".
bt_ctrl::state read_status(nlohmann::json const& value, std::string const& path);
std::string read_string(nlohmann::json const& value, std::string const& path);
// An integer from min to max.
std::int64_t read_integer(nlohmann::json const& value, std::string const& path, std::int64_t min,
                          std::int64_t max);
// Sets the caps keys that the object holds and keeps the others.
void read_caps(nlohmann::json const& value, std::string const& path, bt_ctrl::capabilities& caps);

}  // namespace zelvo::tavrin::sim::wire
