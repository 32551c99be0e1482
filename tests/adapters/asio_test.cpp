#include "tavrin/adapters/asio.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "quorl/quorl.hpp"
#include "quorl/server.hpp"

namespace {

namespace tv = zelvo::tavrin;
using tv::adapters::asio_connection;
using tv::adapters::asio_listener;
using tv::adapters::asio_loop;
using state = tv::utils::connection::state;
using bytes = std::vector<unsigned char>;
using states = std::vector<state>;
using namespace std::chrono_literals;

tv::utils::ip_address const loopback("127.0.0.1");

// Runs until `done` holds, or at most for a generous bound, so that a hang
// fails instead of blocking the suite.
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
    // A client connected to the listener, logged in `log`; its server end is accepted.back().
    std::shared_ptr<tv::utils::tcp_connection> open(recorder& log) {
        auto client = loop->create_tcp_connection();
        log.watch(*client);
        auto const before = accepted.size();
        client->connect(loopback, listener->port());
        EXPECT_TRUE(
            run_until(io, [&] { return log.saw(state::connected) && accepted.size() > before; }));
        return client;
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

TEST_F(asio_adapter, connect_reports_on_later_turns_names_the_peer_and_may_be_retried) {
    auto const dead_port = asio_listener::create(loop, loopback, 0, nullptr)->port();
    auto client = loop->create_tcp_connection();
    client_log.watch(*client);
    EXPECT_FALSE(client->send({1}));
    client->connect(loopback, dead_port);
    ASSERT_TRUE(run_until(io, [&] { return client_log.saw(state::closed); }));
    auto const& asio_client = dynamic_cast<asio_connection const&>(*client);
    EXPECT_EQ(asio_client.last_error(), asio::error::connection_refused);
    client->connect(loopback, listener->port());
    EXPECT_EQ(client->get_state(), state::connecting);
    EXPECT_FALSE(asio_client.last_error());
    EXPECT_EQ(client_log.seen, (states{state::connecting, state::closed}));
    ASSERT_TRUE(run_until(io, [&] { return client_log.seen.size() == 4 && !accepted.empty(); }));
    EXPECT_EQ(client_log.seen[3], state::connected);
    EXPECT_EQ(client->get_name(), "127.0.0.1:" + std::to_string(listener->port()));
    EXPECT_EQ(accepted.at(0)->get_state(), state::connected);
    EXPECT_EQ(accepted.at(0)->get_name().rfind("127.0.0.1:", 0), 0u);
    EXPECT_TRUE(server_log.seen.empty());
    EXPECT_TRUE(client->send({1}));
}

TEST_F(asio_adapter, close_writes_what_is_queued_then_both_ends_report_closed) {
    for (bool const client_closes : {true, false}) {
        SCOPED_TRACE(client_closes ? "client closes" : "server end closes");
        auto client = open(client_log);
        auto& closer = client_closes ? *client : *accepted.at(1);
        auto& peer_log = client_closes ? server_log : client_log;
        client_log = server_log = {};
        bytes const big(300000, 0x5a);
        EXPECT_TRUE(closer.send(big));
        EXPECT_TRUE(closer.send(big));
        closer.close();
        closer.close();
        EXPECT_FALSE(closer.send({1}));
        EXPECT_EQ(closer.get_state(), state::closing);
        EXPECT_TRUE(client_log.seen.empty() && server_log.seen.empty());
        ASSERT_TRUE(run_until(
            io, [&] { return client_log.saw(state::closed) && server_log.saw(state::closed); }));
        EXPECT_EQ(peer_log.received.size(), 2 * big.size());
        EXPECT_EQ(peer_log.seen, (states{state::closed}));
        EXPECT_EQ((client_closes ? client_log : server_log).seen,
                  (states{state::closing, state::closed}));
        EXPECT_EQ(client->get_state(), state::closed);
        // Only the peer's end tells why: our own close is no fault.
        auto const& peer =
            dynamic_cast<asio_connection const&>(client_closes ? *accepted.at(0) : *client);
        EXPECT_EQ(peer.last_error(), asio::error::eof);
        EXPECT_FALSE(dynamic_cast<asio_connection const&>(closer).last_error());
        client_log = server_log = {};
    }
}

TEST_F(asio_adapter, send_refuses_past_the_high_water_mark_until_the_queue_drains) {
    bytes const chunk(1000, 0x42);
    // A connection's own mark, and the loop's for connections made later.
    auto client = open(client_log);
    std::static_pointer_cast<tv::adapters::asio_connection>(client)->set_high_water_mark(2500);
    loop->set_high_water_mark(2000);
    auto later = open(client_log);
    // Nothing runs meanwhile, so nothing is written: the bytes wait.
    for (auto* connection : {client.get(), later.get()}) {
        EXPECT_TRUE(connection->send(chunk));
        EXPECT_TRUE(connection->send(chunk));
    }
    EXPECT_TRUE(client->send(bytes(500, 0x42)));
    EXPECT_FALSE(client->send({1}));
    EXPECT_FALSE(later->send({1}));
    // Once written, the queue takes bytes again; a send into an empty queue
    // is taken whatever its size.
    bool taken = false;
    ASSERT_TRUE(run_until(io, [&] { return taken || (taken = later->send(bytes(5000, 0x42))); }));
    ASSERT_TRUE(run_until(io, [&] { return server_log.received.size() == 9500; }));
}

TEST_F(asio_adapter, bytes_keep_their_order_across_many_sends_and_an_echo) {
    auto client = open(client_log);
    auto* server_end = accepted.at(0).get();
    server_end->set_receive_handler([&](bytes const& chunk) { server_end->send(chunk); });
    bytes expected;
    unsigned seed = 12345;
    auto send_some = [&] {
        for (int i = 0; i < 1000; ++i) {
            bytes part(1 + seed % 3000);
            for (auto& byte : part)
                byte = static_cast<unsigned char>((seed = seed * 1103515245 + 12345) >> 16);
            ASSERT_TRUE(client->send(part));
            expected.insert(expected.end(), part.begin(), part.end());
        }
    };
    send_some();
    loop->post(send_some);
    ASSERT_TRUE(run_until(io, [&] { return client_log.received.size() >= expected.size(); }));
    EXPECT_EQ(client_log.received, expected);
}

TEST_F(asio_adapter, a_connection_may_close_or_destroy_itself_from_its_handlers) {
    auto client = open(client_log);
    client->set_receive_handler([&](bytes const&) { client->close(); });
    accepted.at(0)->send({7});
    ASSERT_TRUE(run_until(io, [&] { return client_log.saw(state::closed); }));
    EXPECT_EQ(client_log.seen,
              (states{state::connecting, state::connected, state::closing, state::closed}));

    recorder destroyed_log;
    client = open(destroyed_log);
    client->set_receive_handler([&](bytes const&) { client.reset(); });
    accepted.at(1)->send({7});
    ASSERT_TRUE(run_until(io, [&] { return server_log.seen.size() == 2; }));
    EXPECT_FALSE(client);
    client = loop->create_tcp_connection();
    client->set_state_handler([&](state now) {
        destroyed_log.seen.push_back(now);
        if (now == state::connected)
            client.reset();
    });
    client->connect(loopback, listener->port());
    ASSERT_TRUE(run_until(io, [&] { return server_log.seen.size() == 3 && !client; }));
    EXPECT_EQ(destroyed_log.seen,
              (states{state::connecting, state::connected, state::connecting, state::connected}));
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
    loop->post([&] { order.push_back(5); });
    loop.reset();
    ASSERT_TRUE(drain(io));
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5}));
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

TEST(asio_timer, fires_once_unless_restarted_stopped_or_destroyed_even_from_its_handler) {
    timers t(4);
    t.all[0]->start(1h);
    t.all[0]->start(0s);  // drain() returning shows that the hour-long wait is gone
    t.all[1]->stop();
    t.all[1]->start(1h);
    t.all[1]->stop();
    t.all[2]->start(0s);
    t.all[2].reset();
    t.all[3]->set_handler([&] {
        ++t.fired[3];
        t.all[3].reset();
    });
    t.all[3]->start(0s);
    EXPECT_EQ(t.fired, (std::vector<int>{0, 0, 0, 0}));
    EXPECT_TRUE(drain(t.io));
    EXPECT_EQ(t.fired, (std::vector<int>{1, 0, 0, 1}));
    t.all[0]->start(0s);
    EXPECT_TRUE(drain(t.io));
    EXPECT_EQ(t.fired, (std::vector<int>{2, 0, 0, 1}));
}

// Timers started together are all due in the same pass; whichever fires first
// acts on the others, whose completions are then already queued.
TEST(asio_timer, a_wait_already_due_is_still_overtaken_by_stop_restart_or_destruction) {
    using overtake = void (*)(std::shared_ptr<tv::utils::timer>&);
    overtake const stop = [](auto& timer) { timer->stop(); };
    overtake const restart = [](auto& timer) { timer->start(0s); };
    overtake const destroy = [](auto& timer) { timer.reset(); };
    for (auto act : {stop, restart, destroy}) {
        SCOPED_TRACE(act == stop ? "stop" : act == restart ? "restart" : "destroy");
        timers t(4);
        bool first = true;
        for (int i = 0; i < 4; ++i)
            t.all[i]->set_handler([&, i] {
                ++t.fired[i];
                for (int j = 0; j < 4 && first; ++j)
                    if (j != i)
                        act(t.all[j]);
                first = false;
            });
        for (auto& timer : t.all)
            timer->start(0s);
        ASSERT_TRUE(drain(t.io));
        EXPECT_EQ(std::count(t.fired.begin(), t.fired.end(), 1), act == restart ? 4 : 1);
        EXPECT_EQ(std::count(t.fired.begin(), t.fired.end(), 0), act == restart ? 0 : 3);
    }
}

TEST_F(asio_adapter, with_an_exception_handler_a_throwing_callback_is_reported_and_all_goes_on) {
    std::vector<std::string> caught;
    loop->set_exception_handler([&](std::exception_ptr error) {
        try {
            std::rethrow_exception(error);
        } catch (std::exception const& e) {
            caught.push_back(e.what());
        }
    });
    auto client = open(client_log);
    accepted.at(0)->set_receive_handler([&](bytes const& chunk) {
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
    auto client = open(client_log);
    int chunks = 0;
    accepted.at(0)->set_receive_handler([&](bytes const&) {
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

// The bus over real TCP: a quorl on the client connection, a quorl_server on its server end.
TEST_F(asio_adapter, the_bus_over_tcp_answers_requests_delivers_events_and_aborts_at_its_end) {
    constexpr unsigned max_message = 1 << 20;
    auto client = open(client_log);
    auto* server_end = accepted.at(0).get();
    zelvo::quorl_server server(loop, [server_end](bytes const& b) { return server_end->send(b); });
    server_end->set_receive_handler(
        [&](bytes const& b) { server.receive(b, false, max_message, max_message); });
    auto bus =
        std::make_unique<zelvo::quorl>(loop, [&](bytes const& b) { return client->send(b); });
    client->set_receive_handler([&](bytes const& b) {
        if (bus)
            bus->receive(b, false, max_message, max_message);
    });
    std::vector<zelvo::quorl_server::responder> held;
    server.set_request_handler("echo", [](auto const& q, auto const& r) {
        r.reply(zelvo::quorl_utils::payload(bytes(q->payload), q->format));
    });
    server.set_request_handler("refuse", [](auto const&, auto const& r) { r.fail(42); });
    server.set_fallback_handler([&](auto const&, auto const& r) { held.push_back(r); });
    bytes event;
    bus->set_event_handler("tick", [&](auto const& e) { event = e->payload; });
    // Larger than one read, so that frames come in pieces.
    zelvo::quorl_utils::payload const body(nlohmann::json{{"n", std::string(200000, 'x')}});
    std::shared_ptr<zelvo::quorl::resp_ctx> reply;
    auto const ask = [&](std::string const& name) {
        reply = nullptr;
        bus->send(
            {name, body}, [&](auto const& got) { reply = got; }, true, 10s);
        return run_until(io, [&] { return reply != nullptr || !held.empty(); });
    };

    ASSERT_TRUE(ask("echo"));
    EXPECT_FALSE(reply->first_error || reply->second_error);
    EXPECT_EQ(reply->payload, body.get_bytes());
    ASSERT_TRUE(ask("refuse"));
    EXPECT_TRUE(!reply->first_error && reply->second_error == zelvo::quorl_utils::app_error(42));
    EXPECT_TRUE(server.send_event(
        "tick",
        zelvo::quorl_utils::payload(bytes{1, 2}, zelvo::stravik_part_payload::format::raw)));
    ASSERT_TRUE(run_until(io, [&] { return !event.empty(); }));
    EXPECT_EQ(event, (bytes{1, 2}));
    ASSERT_TRUE(ask("hold"));
    bus.reset();
    EXPECT_FALSE(reply);
    ASSERT_TRUE(run_until(io, [&] { return reply != nullptr; }));
    EXPECT_TRUE(reply->first_error == zelvo::quorl_utils::exchange_error::aborted);
}

}  // namespace
