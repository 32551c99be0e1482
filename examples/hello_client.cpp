// The smallest client: enable, let the controller choose the interface, and
// print every state change. Start a controller first, e.g. `tavrin sim`.
//
//     hello_client [ADDR PORT]      (default 127.0.0.1 7410)
#include <cstdlib>
#include <iostream>
#include <string>

#include <asio.hpp>

#include "tavrin/adapters/asio.hpp"
#include "tavrin/bt_ctrl.hpp"

using namespace zelvo::tavrin;

int main(int argc, char** argv) {
    std::string const address = argc > 2 ? argv[1] : "127.0.0.1";
    auto const port = static_cast<unsigned short>(argc > 2 ? std::atoi(argv[2]) : 7410);

    asio::io_context io;
    auto const client = create_bt_ctrl(adapters::asio_loop::create(io), std::nullopt,
                                       utils::ip_address(address), port);

    utils::scoped_link states = client->notify_on_state_change([&](bt_ctrl::state state) {
        std::cout << "state: " << bt_ctrl::to_string(state) << std::endl;
        if (state == bt_ctrl::state::enabled) {
            std::cout << "address: " << client->get_address().to_string() << std::endl;
            io.stop();
        }
    });
    // Dropping the context lets the controller choose the interface. Until the
    // controller answers, the client keeps trying with a growing delay.
    client->enable([](std::shared_ptr<bt_ctrl::handshake_ctx> const&, std::error_code const& ec) {
        if (ec) {
            std::cerr << "enable failed: " << ec.message() << std::endl;
        }
    });
    io.run();
}
