// What the benchmarks on the Asio adapter share: a bus server whose "echo"
// answers each request with its own bytes, and a bounded run of the main
// io_context.
#pragma once

#include <asio.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "quorl/server.hpp"
#include "tavrin/adapters/asio.hpp"

namespace bench {

// One quorl_server per connection it serves, each kept until the server
// goes, on the loop it was made with.
class echo_sessions {
public:
    echo_sessions(std::shared_ptr<zelvo::tavrin::adapters::asio_loop> loop, unsigned max_message)
        : loop(std::move(loop)), max_message(max_message) {}

    void serve(std::shared_ptr<zelvo::tavrin::utils::connection> const& connection) {
        using bytes = std::vector<unsigned char>;
        auto made = std::make_unique<session>();
        made->connection = connection;
        made->server = std::make_unique<zelvo::quorl_server>(
            loop, [to = connection.get()](bytes const& frame) { return to->send(frame); });
        made->echo =
            made->server->set_request_handler("echo", [](auto const& request, auto const& answer) {
                answer.reply(zelvo::quorl_utils::payload(bytes(request->payload), request->format));
            });
        connection->set_receive_handler(
            [server = made->server.get(), limit = max_message](bytes const& chunk) {
                server->receive(chunk, false, limit, limit);
            });
        sessions.push_back(std::move(made));
    }

private:
    struct session {
        std::shared_ptr<zelvo::tavrin::utils::connection> connection;
        std::unique_ptr<zelvo::quorl_server> server;
        zelvo::quorl_utils::scoped_link echo;
    };

    std::shared_ptr<zelvo::tavrin::adapters::asio_loop> loop;
    unsigned max_message;
    std::vector<std::unique_ptr<session>> sessions;
};

// Runs `io` until `done`; throws once `limit` has passed without it.
inline void run_until(asio::io_context& io, std::function<bool()> const& done, char const* what,
                      std::chrono::seconds limit) {
    auto const deadline = std::chrono::steady_clock::now() + limit;
    io.restart();
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error(std::string("timed out waiting for ") + what);
        }
        io.run_one_for(std::chrono::milliseconds(100));
    }
}

}  // namespace bench
