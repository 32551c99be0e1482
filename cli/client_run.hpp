// The flow of `tavrin info` and `tavrin demo`: enable a client, show what the
// controller offers, finish the handshake, wait for `enabled`, report.
#pragma once

#include <chrono>
#include <optional>
#include <ostream>
#include <string>

#include "endpoint.hpp"

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
    // The demo narrates each step, shows the library's log lines, and then
    // shows a recovery and a clean stop.
    bool demo = false;
    bool verbose = false;
};

// Returns the process exit code: 0 when the client reached `enabled` (and, for
// the demo, stopped cleanly), 1 otherwise, with the reason on `err`.
int run_client(run_options const& options, std::ostream& out, std::ostream& err);

}  // namespace zelvo::tavrin::cli
