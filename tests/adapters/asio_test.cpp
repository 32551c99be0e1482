#include "tavrin/adapters/asio.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "quorl/quorl.hpp"
#include "quorl/server.hpp"

namespace {

namespace tv = zelvo::tavrin;
using tv::adapters::asio_listener;
using tv::adapters::asio_loop;
using state = tv::utils::connection::state;
using bytes = std::vector<unsigned char>;
using states = std::vector<state>;
using namespace std::chrono_literals;

tv::utils::ip_address const loopback("127.0.0.1");

// Runs until `done` holds, or for at most a generous bound (a hang fails
// instead of blocking the suite).
template <typename Done>
bool run_until(asio::io_context& io, Done done) {
    auto const deadline = std::chrono::steady_clock::now() + 20s;
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        io.restart();
        io.run_one_for(50ms);
    }
    return done();
}

// Runs until nothing is pending; false when work is still pending at the bound.
bool drain(asio::io_context& io) {
    io.restart();
    io.run_for(20s);
    return io.stopped();
}

struct recorder {
    void watch(tv::utils::connection& connection) {
        connection.set_state_handler([this](state now) { seen.push_back(now); });
        connection.set_receive_handler([this](bytes const& chunk) {
            received.insert(received.end(), chunk.begin(), chunk.end());
        });
    }
    bool saw(state which) const { return std::find(seen.begin(), seen.end(), which) != seen.end(); }

    states seen;
    bytes received;
};

class asio_adapter : public testing::Test {
protected:
    // A client connected to the listener; its accepted end is accepted[0].
    std::shared_ptr<tv::utils::tcp_connection> open() {
        auto client = loop->create_tcp_connection();
        client_log.watch(*client);
        client->connect(loopback, listener->port());
        EXPECT_TRUE(
            run_until(io, [&] { return client_log.saw(state::connected) && !accepted.empty(); }));
        return client;
    }
    bool run_until_closed(recorder const& log) {
        return run_until(io, [&] { return log.saw(state::closed); });
    }

    asio::io_context io;
    std::shared_ptr<asio_loop> loop = asio_loop::create(io);
    recorder client_log, server_log;
    std::vector<std::shared_ptr<tv::utils::connection>> accepted;
    std::shared_ptr<asio_listener> listener =
        asio_listener::create(loop, loopback, 0, [this](auto const& connection) {
            server_log.watch(*connection);
            accepted.push_back(connection);
        });
};

TEST_F(asio_adapter, connect_reports_on_later_turns_and_names_the_peer) {
    auto client = loop->create_tcp_connection();
    client_log.watch(*client);
    EXPECT_FALSE(client->send({1}));
    client->connect(loopback, listener->port());
    EXPECT_EQ(client->get_state(), state::connecting);
    EXPECT_TRUE(client_log.seen.empty());
    ASSERT_TRUE(
        run_until(io, [&] { return client_log.saw(state::connected) && !accepted.empty(); }));

    EXPECT_EQ(client_log.seen, (states{state::connecting, state::connected}));
    EXPECT_EQ(client->get_name(), "127.0.0.1:" + std::to_string(listener->port()));
    EXPECT_EQ(accepted[0]->get_state(), state::connected);
    EXPECT_EQ(accepted[0]->get_name().rfind("127.0.0.1:", 0), 0u);
    EXPECT_TRUE(server_log.seen.empty());
}

TEST_F(asio_adapter, a_refused_connect_reports_closed_and_the_connection_connects_again) {
    auto refusing = asio_listener::create(loop, loopback, 0, nullptr);
    auto const dead_port = refusing->port();
    refusing.reset();

    auto client = loop->create_tcp_connection();
    client_log.watch(*client);
    client->connect(loopback, dead_port);
    ASSERT_TRUE(run_until_closed(client_log));
    EXPECT_EQ(client_log.seen, (states{state::connecting, state::closed}));

    client->connect(loopback, listener->port());
    ASSERT_TRUE(run_until(io, [&] { return client_log.seen.size() == 4; }));
    EXPECT_EQ(client_log.seen[3], state::connected);
    EXPECT_TRUE(client->send({1}));
}

TEST_F(asio_adapter, close_writes_what_is_queued_then_both_ends_report_closed) {
    auto client = open();
    bytes const big(300000, 0x5a);
    EXPECT_TRUE(client->send(big));
    EXPECT_TRUE(client->send(big));
    client->close();
    client->close();
    EXPECT_FALSE(client->send({1}));
    EXPECT_EQ(client->get_state(), state::closing);
    EXPECT_EQ(client_log.seen.size(), 2u);

    ASSERT_TRUE(run_until(
        io, [&] { return client_log.saw(state::closed) && server_log.saw(state::closed); }));
    EXPECT_EQ(server_log.received.size(), 2 * big.size());
    EXPECT_EQ(client_log.seen,
              (states{state::connecting, state::connected, state::closing, state::closed}));
    EXPECT_EQ(server_log.seen, (states{state::closed}));
}

TEST_F(asio_adapter, a_close_from_the_accepted_end_reports_closed_at_the_client) {
    auto client = open();
    accepted[0]->send({1, 2, 3});
    accepted[0]->close();
    ASSERT_TRUE(run_until(
        io, [&] { return client_log.saw(state::closed) && server_log.saw(state::closed); }));
    EXPECT_EQ(client_log.received, (bytes{1, 2, 3}));
    EXPECT_EQ(client_log.seen, (states{state::connecting, state::connected, state::closed}));
    EXPECT_EQ(server_log.seen, (states{state::closing, state::closed}));
    EXPECT_EQ(client->get_state(), state::closed);
}

TEST_F(asio_adapter, bytes_keep_their_order_across_many_sends_and_an_echo) {
    auto client = open();
    auto* server_end = accepted[0].get();
    server_end->set_receive_handler([&](bytes const& chunk) { server_end->send(chunk); });

    bytes expected;
    unsigned seed = 12345;
    auto send_some = [&](int count) {
        for (int i = 0; i < count; ++i) {
            bytes part(1 + seed % 3000);
            for (auto& byte : part) {
                seed = seed * 1103515245 + 12345;
                byte = static_cast<unsigned char>(seed >> 16);
            }
            ASSERT_TRUE(client->send(part));
            expected.insert(expected.end(), part.begin(), part.end());
        }
    };
    send_some(1000);
    loop->post([&] { send_some(1000); });
    ASSERT_TRUE(run_until(
        io, [&] { return client_log.received.size() >= expected.size() && expected.size() > 0; }));
    EXPECT_EQ(client_log.received, expected);
}

TEST_F(asio_adapter, a_connection_may_close_itself_from_its_receive_handler) {
    auto client = open();
    client->set_receive_handler([&](bytes const& chunk) {
        client_log.received.insert(client_log.received.end(), chunk.begin(), chunk.end());
        client->close();
    });
    accepted[0]->send({7});
    ASSERT_TRUE(run_until_closed(client_log));
    EXPECT_EQ(client_log.received, (bytes{7}));
    EXPECT_EQ(client_log.seen,
              (states{state::connecting, state::connected, state::closing, state::closed}));
}

TEST_F(asio_adapter, a_connection_destroyed_from_its_own_handlers_reports_nothing_more) {
    // From the receive handler.
    auto client = open();
    client->set_receive_handler([&](bytes const&) { client.reset(); });
    accepted[0]->send({7});
    ASSERT_TRUE(run_until_closed(server_log));
    EXPECT_FALSE(client);

    // From the state handler, on connected.
    recorder second_log;
    auto second = loop->create_tcp_connection();
    second->set_state_handler([&](state now) {
        second_log.seen.push_back(now);
        if (now == state::connected)
            second.reset();
    });
    second->connect(loopback, listener->port());
    ASSERT_TRUE(run_until(io, [&] { return accepted.size() == 2 && !second; }));
    ASSERT_TRUE(run_until(io, [&] { return server_log.seen.size() == 2; }));
    EXPECT_EQ(client_log.seen, (states{state::connecting, state::connected}));
    EXPECT_EQ(second_log.seen, (states{state::connecting, state::connected}));
}

TEST(asio_loop_turns, posted_functions_run_later_in_order_even_after_the_loop_is_gone) {
    asio::io_context io;
    auto loop = asio_loop::create(io);
    std::vector<int> order;
    for (int i = 0; i < 4; ++i)
        loop->post([&, i] {
            order.push_back(i);
            if (i == 0)
                loop->post([&] { order.push_back(4); });
        });
    EXPECT_TRUE(order.empty());
    ASSERT_TRUE(drain(io));
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));

    loop->post([&] { order.push_back(5); });
    loop.reset();
    ASSERT_TRUE(drain(io));
    EXPECT_EQ(order.back(), 5);
}

struct timers {
    explicit timers(int count) : loop(asio_loop::create(io)), fired(count) {
        for (int i = 0; i < count; ++i) {
            all.push_back(loop->create_timer());
            all.back()->set_handler([this, i] { ++fired[i]; });
        }
    }
    asio::io_context io;
    std::shared_ptr<asio_loop> loop;
    std::vector<std::shared_ptr<tv::utils::timer>> all;
    std::vector<int> fired;
};

TEST(asio_timer, fires_once_and_a_restart_replaces_the_pending_wait) {
    timers t(1);
    t.all[0]->start(1h);
    t.all[0]->start(0s);
    EXPECT_EQ(t.fired[0], 0);
    EXPECT_TRUE(drain(t.io));  // the hour-long wait is gone
    EXPECT_EQ(t.fired[0], 1);

    t.all[0]->start(0s);
    EXPECT_TRUE(drain(t.io));
    EXPECT_EQ(t.fired[0], 2);
}

TEST(asio_timer, a_stopped_or_destroyed_wait_never_fires) {
    timers t(2);
    t.all[0]->stop();
    t.all[0]->start(1h);
    t.all[0]->stop();
    t.all[1]->start(0s);
    t.all[1].reset();
    EXPECT_TRUE(drain(t.io));
    EXPECT_EQ(t.fired, (std::vector<int>{0, 0}));
}

// Timers started together are all due in the same pass; whichever fires first
// acts on the others, whose completions are then already queued.
TEST(asio_timer, a_wait_already_due_is_still_overtaken_by_stop_restart_or_destruction) {
    enum action { stop, restart, destroy };
    for (auto act : {stop, restart, destroy}) {
        timers t(4);
        bool first = true;
        for (int i = 0; i < 4; ++i)
            t.all[i]->set_handler([&, i] {
                ++t.fired[i];
                if (!std::exchange(first, false))
                    return;
                for (int j = 0; j < 4; ++j) {
                    if (j == i)
                        continue;
                    if (act == stop)
                        t.all[j]->stop();
                    else if (act == restart)
                        t.all[j]->start(0s);
                    else
                        t.all[j].reset();
                }
            });
        for (auto& timer : t.all)
            timer->start(0s);
        ASSERT_TRUE(drain(t.io));
        EXPECT_EQ(std::count(t.fired.begin(), t.fired.end(), 1), act == restart ? 4 : 1)
            << "action " << act;
        EXPECT_EQ(std::count(t.fired.begin(), t.fired.end(), 0), act == restart ? 0 : 3)
            << "action " << act;
    }
}

TEST(asio_timer, may_be_destroyed_from_its_own_handler) {
    timers t(1);
    t.all[0]->set_handler([&] {
        ++t.fired[0];
        t.all[0].reset();
    });
    t.all[0]->start(0s);
    EXPECT_TRUE(drain(t.io));
    EXPECT_EQ(t.fired[0], 1);
    EXPECT_FALSE(t.all[0]);
}

std::string what(std::exception_ptr const& error) {
    try {
        std::rethrow_exception(error);
    } catch (std::exception const& e) {
        return e.what();
    }
}

TEST_F(asio_adapter, with_an_exception_handler_a_throwing_callback_is_reported_and_all_goes_on) {
    std::vector<std::string> caught;
    loop->set_exception_handler([&](std::exception_ptr error) { caught.push_back(what(error)); });
    auto client = open();
    accepted[0]->set_receive_handler([&](bytes const& chunk) {
        server_log.received.insert(server_log.received.end(), chunk.begin(), chunk.end());
        throw std::runtime_error("receive");
    });
    auto timer = loop->create_timer();
    timer->set_handler([] { throw std::runtime_error("timer"); });
    timer->start(0s);
    loop->post([] { throw std::runtime_error("posted"); });

    client->send({1});
    ASSERT_TRUE(
        run_until(io, [&] { return server_log.received.size() == 1 && caught.size() == 3; }));
    client->send({2});
    ASSERT_TRUE(run_until(io, [&] { return server_log.received.size() == 2; }));
    std::sort(caught.begin(), caught.end());
    EXPECT_EQ(caught, (std::vector<std::string>{"posted", "receive", "receive", "timer"}));
}

TEST_F(asio_adapter, without_an_exception_handler_run_throws_and_running_again_loses_nothing) {
    auto client = open();
    int chunks = 0;
    accepted[0]->set_receive_handler([&](bytes const&) {
        ++chunks;
        throw std::runtime_error("receive");
    });
    bool after = false;
    loop->post([] { throw std::runtime_error("posted"); });
    loop->post([&] { after = true; });
    EXPECT_THROW(io.run_for(20s), std::runtime_error);
    EXPECT_FALSE(after);
    ASSERT_TRUE(run_until(io, [&] { return after; }));

    for (int expected = 1; expected <= 2; ++expected) {
        client->send({1});
        EXPECT_THROW(io.run_for(20s), std::runtime_error);
        EXPECT_EQ(chunks, expected);  // the reader that threw went on reading
    }
}

// The bus over real TCP: a quorl on the client connection and a quorl_server
// on its accepted end.
class bus_over_asio : public asio_adapter {
protected:
    static constexpr unsigned max_message = 1 << 20;

    void SetUp() override {
        client = open();
        auto* server_end = accepted[0].get();
        server = std::make_unique<zelvo::quorl_server>(
            loop, [server_end](bytes const& frame) { return server_end->send(frame); });
        server_end->set_receive_handler([this](bytes const& chunk) {
            server->receive(chunk, false, max_message, max_message);
        });
        bus = std::make_unique<zelvo::quorl>(
            loop, [this](bytes const& frame) { return client->send(frame); });
        client->set_receive_handler([this](bytes const& chunk) {
            if (bus)
                bus->receive(chunk, false, max_message, max_message);
        });
        check = bus->set_reply_check_handler([this](auto const& reply) {
            checked.push_back(reply->request_name);
            return true;
        });
    }

    std::shared_ptr<zelvo::quorl::resp_ctx> ask(std::string const& name,
                                                nlohmann::json const& body) {
        std::shared_ptr<zelvo::quorl::resp_ctx> outcome;
        bus->send(
            {name, zelvo::quorl_utils::payload(body)}, [&](auto const& got) { outcome = got; },
            true, 10s);
        EXPECT_TRUE(run_until(io, [&] { return outcome != nullptr; })) << name;
        return outcome;
    }

    std::shared_ptr<tv::utils::tcp_connection> client;
    std::unique_ptr<zelvo::quorl_server> server;
    std::unique_ptr<zelvo::quorl> bus;
    zelvo::quorl_utils::scoped_link check;
    std::vector<std::string> checked;
};

TEST_F(bus_over_asio, requests_get_replies_and_application_errors_and_events_arrive) {
    auto echo = server->set_request_handler("echo", [](auto const& request, auto const& answer) {
        auto body = zelvo::stravik_part_payload::from_bytes<nlohmann::json>(request->payload);
        body["seen"] = true;
        answer.reply(zelvo::quorl_utils::payload(body));
    });
    auto refuse = server->set_request_handler(
        "refuse", [](auto const&, auto const& answer) { answer.fail(42); });
    nlohmann::json event;
    auto tick = bus->set_event_handler("tick", [&](auto const& got) {
        event = zelvo::stravik_part_payload::from_bytes<nlohmann::json>(got->payload);
    });

    auto reply = ask("echo", {{"n", 1}});
    ASSERT_TRUE(reply);
    EXPECT_FALSE(reply->first_error);
    EXPECT_FALSE(reply->second_error);
    EXPECT_EQ(reply->format, zelvo::stravik_part_payload::format::json);
    EXPECT_EQ(zelvo::stravik_part_payload::from_bytes<nlohmann::json>(reply->payload),
              (nlohmann::json{{"n", 1}, {"seen", true}}));

    reply = ask("refuse", nullptr);
    ASSERT_TRUE(reply);
    EXPECT_FALSE(reply->first_error);
    EXPECT_TRUE(reply->second_error == zelvo::quorl_utils::app_error(42));

    reply = ask("nobody", nullptr);
    ASSERT_TRUE(reply);
    EXPECT_TRUE(reply->first_error == zelvo::quorl_utils::exchange_error::unknown_request);

    EXPECT_TRUE(
        server->send_event("tick", zelvo::quorl_utils::payload(nlohmann::json{{"k", "v"}})));
    ASSERT_TRUE(run_until(io, [&] { return !event.is_null(); }));
    EXPECT_EQ(event, (nlohmann::json{{"k", "v"}}));
    EXPECT_EQ(checked, (std::vector<std::string>{"echo", "refuse", "nobody"}));
}

TEST_F(bus_over_asio, destroying_the_client_aborts_a_pending_request_on_a_later_turn) {
    std::vector<zelvo::quorl_server::responder> held;
    auto hold = server->set_request_handler(
        "hold", [&](auto const&, auto const& answer) { held.push_back(answer); });
    std::shared_ptr<zelvo::quorl::resp_ctx> outcome;
    bus->send(
        {"hold", zelvo::quorl_utils::payload(nlohmann::json::object())},
        [&](auto const& got) { outcome = got; }, true, 10s);
    ASSERT_TRUE(run_until(io, [&] { return !held.empty(); }));

    bus.reset();
    EXPECT_FALSE(outcome);
    ASSERT_TRUE(run_until(io, [&] { return outcome != nullptr; }));
    EXPECT_TRUE(outcome->first_error == zelvo::quorl_utils::exchange_error::aborted);
    EXPECT_EQ(checked, (std::vector<std::string>{"hold"}));
}

}  // namespace
