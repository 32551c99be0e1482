// `tavrin sim`: a simulated controller on real TCP until interrupted.
#pragma once

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>

#include "endpoint.hpp"
#include "tavrin/sim/controller.hpp"

namespace zelvo::tavrin::cli {

struct sim_options {
    endpoint listen;
    std::optional<std::string> config_file;
    // A line per accepted and closed client, besides those of dropped ones.
    bool verbose = false;
    std::size_t max_sessions = sim::controller::limits{}.max_sessions;
};

// Runs until SIGINT or SIGTERM; returns the exit code. Lines about clients
// go to `out`, each starting "tavrin sim: ".
int run_sim(sim_options const& options, std::ostream& out, std::ostream& err);

}  // namespace zelvo::tavrin::cli
