#include "sim_command.hpp"

#include <csignal>
#include <exception>

#include <asio.hpp>

#include "embedded_sim.hpp"

namespace zelvo::tavrin::cli {

int run_sim(endpoint const& listen, std::optional<std::string> const& config_file,
            std::ostream& out, std::ostream& err) {
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
        embedded_sim sim(loop, listen, config_file);
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
