// The simulator over real loopback TCP, through the Asio adapter.
#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "quorl/quorl.hpp"
#include "tavrin/adapters/asio.hpp"
#include "tavrin/sim/controller.hpp"

namespace zelvo::tavrin::sim {
namespace {

using namespace std::chrono_literals;

TEST(SimOverTcp, AHandshakeCompletesOverLoopback) {
    asio::io_context io;
    auto const loop = adapters::asio_loop::create(io);
    controller ctl(loop, config::builtin());
    utils::ip_address const loopback("127.0.0.1");
    auto const listener = adapters::asio_listener::create(loop, loopback, 0, ctl.accept_handler());

    auto const link = loop->create_tcp_connection();
    quorl bus(loop, [&link](std::vector<unsigned char> const& bytes) { return link->send(bytes); });
    link->set_receive_handler(
        [&bus](auto const& bytes) { bus.receive(bytes, false, 524288, 524288); });
    std::vector<std::string> replies;
    auto const keep = [&replies](auto const& reply) {
        replies.emplace_back(reply->payload.begin(), reply->payload.end());
    };
    link->set_state_handler([&](utils::connection::state now) {
        if (now == utils::connection::state::connected) {
            bus.send({"hdshkStart", quorl_utils::payload(nlohmann::json::object())}, keep, true,
                     10s);
            bus.send({"hdshkFinish", quorl_utils::payload(nlohmann::json())}, keep, true, 10s);
        }
    });
    link->connect(loopback, listener->port());

    auto const deadline = std::chrono::steady_clock::now() + 20s;
    while (replies.size() < 2 && std::chrono::steady_clock::now() < deadline) {
        io.restart();
        io.run_one_for(50ms);
    }
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(nlohmann::json::parse(replies[0]).at("ifs").at("hci0").at("caps").at("maxMtuSize"),
              517);
    EXPECT_EQ(replies[1], R"({"if":"hci0"})");
}

}  // namespace
}  // namespace zelvo::tavrin::sim
