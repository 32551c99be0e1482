// A simulated controller listening on real TCP inside this process, on the
// caller's io_context: what `tavrin sim` runs, and what the other commands use
// when no --ctrl is given.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <asio.hpp>

#include "endpoint.hpp"
#include "tavrin/adapters/asio.hpp"
#include "tavrin/sim/controller.hpp"

namespace zelvo::tavrin::cli {

class embedded_sim {
public:
    // Listens at `where` (port 0 picks a free port) with the configuration in
    // `config_file`, or the built-in one. Throws with a message for the user.
    embedded_sim(std::shared_ptr<adapters::asio_loop> const& loop, endpoint const& where,
                 std::optional<std::string> const& config_file);

    endpoint address() const;
    sim::controller& controller() { return *ctrl; }
    adapters::asio_listener& listener() { return *accepting; }
    std::string const& default_interface() const { return default_name; }

private:
    std::string default_name;
    std::unique_ptr<sim::controller> ctrl;
    std::shared_ptr<adapters::asio_listener> accepting;
    endpoint bound;
};

}  // namespace zelvo::tavrin::cli
