// The bus over loopback TCP through the Asio adapter: a server and a client in
// one program, on one io_context. The client sends one request; the server
// replies, then sends an event, on which the client closes its connection.
#include <nlohmann/json.hpp>
#include <quorl/quorl.hpp>
#include <quorl/server.hpp>
#include <tavrin/adapters/asio.hpp>

#include <iostream>

namespace tv = zelvo::tavrin;
using bytes = std::vector<unsigned char>;
using json = nlohmann::json;
using zelvo::quorl_utils::payload;

constexpr unsigned max_message = 1 << 20;

json body_of(bytes const& raw) {
    return zelvo::stravik_part_payload::from_bytes<json>(raw);
}

int main() {
    asio::io_context io;
    auto loop = tv::adapters::asio_loop::create(io);
    tv::utils::ip_address const loopback("127.0.0.1");

    // The server side: one quorl_server for the one connection it accepts.
    std::shared_ptr<tv::utils::connection> accepted;
    std::unique_ptr<zelvo::quorl_server> server;
    auto listener = tv::adapters::asio_listener::create(loop, loopback, 0, [&](auto const& peer) {
        std::cout << "server: accepted " << peer->get_name() << "\n";
        accepted = peer;
        server = std::make_unique<zelvo::quorl_server>(
            loop, [&](bytes const& frame) { return accepted->send(frame); });
        server->set_request_handler("greet", [&](auto const& request, auto const& answer) {
            json const body = body_of(request->payload);
            std::cout << "server: request " << request->name << " " << body.dump() << "\n";
            answer.reply(payload(json{{"greeting", "hello, " + body.value("name", "?")}}));
            server->send_event("bye", payload(json{{"reason", "done"}}));
        });
        peer->set_receive_handler(
            [&](bytes const& chunk) { server->receive(chunk, false, max_message, max_message); });
    });

    // The client side.
    auto connection = loop->create_tcp_connection();
    zelvo::quorl client(loop, [&](bytes const& frame) { return connection->send(frame); });
    connection->set_receive_handler(
        [&](bytes const& chunk) { client.receive(chunk, false, max_message, max_message); });
    client.set_event_handler("bye", [&](auto const& event) {
        std::cout << "client: event " << event->name << " " << body_of(event->payload).dump()
                  << "\n";
        connection->close();
    });
    connection->set_state_handler([&](tv::utils::connection::state state) {
        using state_t = tv::utils::connection::state;
        if (state == state_t::connected) {
            std::cout << "client: connected to " << connection->get_name() << "\n";
            auto on_reply = [](auto const& reply) {
                if (reply->first_error || reply->second_error)
                    std::cout << "client: request failed\n";
                else
                    std::cout << "client: reply " << body_of(reply->payload).dump() << "\n";
            };
            client.send({"greet", payload(json{{"name", "asio"}})}, on_reply, true,
                        std::chrono::seconds(5));
        } else if (state == state_t::closed) {
            std::cout << "client: closed\n";
            io.stop();
        }
    });
    connection->connect(loopback, listener->port());
    io.run();
    return 0;
}
