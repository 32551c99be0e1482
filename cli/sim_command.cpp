#include "sim_command.hpp"

#include <csignal>
#include <exception>

#include <asio.hpp>

#include "embedded_sim.hpp"

namespace zelvo::tavrin::cli {

int run_sim(sim_options const& options, std::ostream& out, std::ostream& err) {
    try {
        asio::io_context io;
        auto const loop = adapters::asio_loop::create(io);
        // A fault in one client's session must not take the others down.
        loop->set_exception_handler([&err](std::exception_ptr failure) {
            try {
                std::rethrow_exception(failure);
            } catch (std::exception const& e) {
                err << "tavrin sim: " << e.what() << '\n';
            } catch (...) {
                err << "tavrin sim: unknown failure\n";
            }
        });
        embedded_sim sim(loop, options.listen, options.config_file);
        auto limits = sim.controller().get_limits();
        limits.max_sessions = options.max_sessions;
        sim.controller().set_limits(limits);
        sim.controller().set_log_handler(
            [&out](std::string const& line) { out << "tavrin sim: " << line << std::endl; },
            options.verbose);
        // The listener waits longer after each failure in a row, up to a
        // second, so these lines can't flood.
        sim.listener().set_error_handler([&out](std::error_code const& ec) {
            out << "tavrin sim: cannot accept a client: " << ec.message() << " (trying again)"
                << std::endl;
        });
        asio::signal_set signals(io, SIGINT, SIGTERM);
        signals.async_wait([&io](asio::error_code const&, int) { io.stop(); });
        out << "simulated controller listening at " << sim.address().to_string()
            << " (interrupt to stop)" << std::endl;
        io.run();
        return 0;
    } catch (std::exception const& failure) {
        err << "tavrin sim: " << failure.what() << '\n';
        return 1;
    }
}

}  // namespace zelvo::tavrin::cli
