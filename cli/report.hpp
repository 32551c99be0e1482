// Readable text of what a controller says about itself: versions, interfaces,
// capabilities. Plain text tables, for a terminal.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <tuple>

#include "tavrin/bt_ctrl/capabilities.hpp"
#include "tavrin/bt_ctrl/handshake_ctx.hpp"

namespace zelvo::tavrin::cli {

std::string version_text(std::tuple<unsigned, unsigned, unsigned> const& version);

// One row per interface: name, address, vendor, part.
void print_interfaces(std::ostream& out,
                      std::map<std::string, bt_ctrl::handshake_ctx::interface> const& interfaces);

// Limits, supported and unsupported features, address types and PHYs.
void print_capabilities(std::ostream& out, bt_ctrl::capabilities const& caps,
                        std::string const& indent);

}  // namespace zelvo::tavrin::cli
