// sim::config: what a simulated controller announces and which interfaces its
// radio has. A value type; nothing refers back to it once a simulated_radio or
// a controller has been built from it.
//
// The JSON form is documented in docs/simulator.md. Its errors are
// runtime_errors that name the offending key as a path, e.g.
// `interfaces[0].caps.maxMtuSize: expected an integer from 0 to 65535`, and,
// from load(), the file first.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/sim/central.hpp"
#include "tavrin/sim/interface_description.hpp"
#include "tavrin/sim/peer.hpp"
#include "tavrin/sim/slots.hpp"

namespace zelvo::tavrin::sim {

// The versions the controller announces in its handshake, "x.y.z" each.
struct version_info {
    std::string version = "1.0.0";      // of the controller software
    std::string api_version = "1.0.0";  // of the API it speaks
};

struct config {
    // The largest message, header included, that a client takes and that
    // the controller takes from a client.
    static constexpr unsigned max_message = 524288;

    struct interface {
        interface_description description;
        bt_ctrl::state status = bt_ctrl::state::enabled;  // at start
        sim::slots slots;
    };

    version_info versions;
    // Bound when a client finishes its handshake without naming one.
    std::string default_interface;
    std::vector<interface> interfaces;
    // Virtual peripherals within reach of every interface.
    std::vector<peer> peers;
    // Virtual centrals within reach of every interface.
    std::vector<central> centrals;

    // Everything on: every flag, the three PHYs, both address types, an MTU
    // of 517 and value lengths of 512. Missing caps keys in a JSON config
    // keep these values.
    static bt_ctrl::capabilities full_capabilities();
    // One fully capable interface "hci0", public address, enabled, with the
    // default slots; one peer, 02:54:56:00:01:01 (public), that accepts
    // after a second and prefers 2M.
    static config builtin();

    // Reads the JSON form; unknown keys are errors, so that a typo can't
    // pass as a default. The result has passed check().
    static config from_json(nlohmann::json const& document);
    // Reads a file in the JSON form. Errors start with
    // "simulator config <path>: ".
    static config load(std::string const& path);

    // Throws runtime_error unless there is at least one interface, names are
    // non-empty and unique, every address is a valid public or random one,
    // no interface has more than slots::max_per_type slots of a type, peers
    // have valid and distinct addresses and number at most peer::max_peers,
    // centrals have valid addresses, number at most central::max_centrals
    // and have scripts of at most gatt_step::max_steps,
    // default_interface names one of them, and the handshake's reply fits in
    // max_message.
    void check() const;
};

}  // namespace zelvo::tavrin::sim
