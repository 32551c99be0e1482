// `tavrin sim`: a simulated controller on real TCP until interrupted.
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "endpoint.hpp"

namespace zelvo::tavrin::cli {

// Runs until SIGINT or SIGTERM; returns the exit code.
int run_sim(endpoint const& listen, std::optional<std::string> const& config_file,
            std::ostream& out, std::ostream& err);

}  // namespace zelvo::tavrin::cli
