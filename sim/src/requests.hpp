// sim::requests: what the controller answers to each request it serves, as
// functions of the request's body, the radio and the session's handshake.
// They know nothing of the bus, of faults or of delays: the controller
// decides whether and when an outcome is sent.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <variant>

#include "tavrin/sim/config.hpp"
#include "tavrin/sim/ctrl_error.hpp"
#include "tavrin/sim/radio.hpp"

namespace zelvo::tavrin::sim::requests {

// Where a session stands in its handshake. A new "hdshkStart" goes back to
// `started` from anywhere and unbinds.
struct handshake_state {
    enum class phase { none, started, bound };
    phase stage = phase::none;
    std::string bound_interface;  // set in `bound` only
    std::string client_id;        // as "hdshkStart" gave it, or empty
};

struct context {
    sim::radio& radio;
    version_info const& versions;
    handshake_state& handshake;
};

// The reply's body, or the code the request is refused with.
using outcome = std::variant<nlohmann::json, ctrl_error>;
// `body` is empty when the request carried no JSON.
using handler = outcome (*)(std::optional<nlohmann::json> const& body, context const& ctx);

// Every request name the controller serves, with its handler.
std::map<std::string, handler> const& table();

}  // namespace zelvo::tavrin::sim::requests
