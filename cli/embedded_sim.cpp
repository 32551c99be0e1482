#include "embedded_sim.hpp"

#include <stdexcept>

#include "tavrin/sim/config.hpp"

namespace zelvo::tavrin::cli {

embedded_sim::embedded_sim(std::shared_ptr<adapters::asio_loop> const& loop, endpoint const& where,
                           std::optional<std::string> const& config_file) {
    auto const settings = config_file ? sim::config::load(*config_file) : sim::config::builtin();
    default_name = settings.default_interface;
    ctrl = std::make_unique<sim::controller>(loop, settings);
    try {
        accepting = adapters::asio_listener::create(loop, where.address, where.port,
                                                    ctrl->accept_handler());
    } catch (std::exception const& failure) {
        throw std::runtime_error("cannot listen at " + where.to_string() + ": " + failure.what());
    }
    bound = where;
    bound.port = accepting->port();
}

endpoint embedded_sim::address() const {
    return bound;
}

}  // namespace zelvo::tavrin::cli
