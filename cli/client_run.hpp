// The flow of the client commands (info, demo, watch, connect, advertise,
// serve): enable a client, show what the controller offers, finish the
// handshake, wait for `enabled`, then do the command's task.
#pragma once

#include <chrono>
#include <optional>
#include <ostream>
#include <string>

#include "adv_report.hpp"
#include "endpoint.hpp"
#include "gatt_file.hpp"
#include "tavrin/bt_ctrl/interface.hpp"

namespace zelvo::tavrin::cli {

struct run_options {
    // The controller; none means a simulated controller in this process.
    std::optional<endpoint> ctrl;
    // For the embedded controller only.
    std::optional<std::string> sim_config;
    // "" lets the controller choose.
    std::string interface;
    // For the whole run; the command fails when it is over.
    std::chrono::seconds time_limit{10};
    // info: show the controller and bind an interface. demo: narrate each
    // step with the library's log lines, connect to `peer` and show its
    // changes, then a recovery and a clean stop. watch: a line for every
    // change until interrupted. connect: open a connection to `peer`, show
    // it, close it on interrupt. advertise: start advertising `advertising`,
    // show its changes, stop on interrupt. serve: build `database`, listen
    // with the name in `advertising`, serve each central, stop on
    // interrupt. For watch, connect, advertise and serve the time limit
    // ends when the client is enabled.
    enum class command { info, demo, watch, connect, advertise, serve };
    command what = command::info;
    // The peer of demo and connect; the demo's default is the simulator's
    // first peer in this process, or the built-in configuration's.
    std::optional<bt_ctrl::address> peer;
    adv_options advertising;
    gatt_file database;
    bool verbose = false;
};

// Returns the process exit code: 0 when the client reached `enabled` and the
// command's task ended well (the demo stopped cleanly, watch and connect were
// interrupted), 1 otherwise, with the reason on `err`.
int run_client(run_options const& options, std::ostream& out, std::ostream& err);

}  // namespace zelvo::tavrin::cli
