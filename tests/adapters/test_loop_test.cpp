// The deterministic loop: turns, virtual time, exceptions, the in-memory network.
#include "tavrin/adapters/test_loop.hpp"

#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zelvo::tavrin::adapters {
namespace {

using namespace std::chrono_literals;
using state = utils::connection::state;
using bytes = std::vector<unsigned char>;
using lines = std::vector<std::string>;
using by_turn = std::vector<lines>;  // what each turn logged

bytes text(std::string const& value) {
    return bytes(value.begin(), value.end());
}

std::string word(state value) {
    char const* const words[] = {"closed", "connecting", "connected", "closing"};
    return words[static_cast<int>(value)];
}

class TestLoopTest : public testing::Test {
protected:
    // Logs what the connection reports as "who state" and "who got bytes".
    void record(std::shared_ptr<utils::connection> const& end, std::string const& who) {
        end->set_state_handler(
            [this, who](state value) { log.push_back(who + " " + word(value)); });
        end->set_receive_handler([this, who](bytes const& received) {
            log.push_back(who + " got " + std::string(received.begin(), received.end()));
        });
    }

    // Runs turns until idle; what each one logged.
    by_turn turns() {
        by_turn result;
        while (!loop->idle()) {
            log.clear();
            loop->run_turn();
            result.push_back(log);
        }
        log.clear();
        return result;
    }

    // A timer whose handler logs "what@now" and then does `then`.
    std::shared_ptr<utils::timer> timer(std::string const& what,
                                        std::function<void()> const& then = {}) {
        auto made = loop->create_timer();
        made->set_handler([this, what, then] {
            log.push_back(what + "@" + std::to_string(loop->now().count()));
            if (then) {
                then();
            }
        });
        return made;
    }

    // Listens on 10.0.0.1:7000 into `server`, logged as "server".
    utils::link listen() {
        return loop->listen(address, 7000, [this](std::shared_ptr<utils::connection> const& end) {
            log.push_back("accepted " + word(end->get_state()));
            server = end;
            record(server, "server");
        });
    }

    void connect_pair() {
        listener = listen();
        record(client, "client");
        client->connect(address, 7000);
        loop->run();
        ASSERT_TRUE(server);
        log.clear();
    }

    std::shared_ptr<test_loop> loop = test_loop::create();
    utils::ip_address const address{"10.0.0.1"};
    std::shared_ptr<utils::tcp_connection> client = loop->create_tcp_connection();
    std::shared_ptr<utils::connection> server;
    utils::link listener;
    lines log;
};

TEST_F(TestLoopTest, ATurnRunsWhatWasQueuedWhenItBegan) {
    loop->post([this] {
        log.push_back("a");
        loop->post([this] { log.push_back("c"); });
    });
    loop->post([this] { log.push_back("b"); });
    loop->post({});
    EXPECT_EQ(loop->run_turn(), 2u);
    EXPECT_EQ(log, (lines{"a", "b"}));
    EXPECT_FALSE(loop->idle());
    EXPECT_EQ(loop->run_turn(), 1u);
    EXPECT_TRUE(loop->idle());
    EXPECT_EQ(loop->run_turn(), 0u);

    int left = 3;
    std::function<void()> chain = [&] {
        if (--left > 0) {
            loop->post(chain);
        }
    };
    loop->post(chain);
    EXPECT_EQ(loop->run(), 3u);
    EXPECT_EQ(loop->now(), 0ms);
    std::function<void()> forever = [&] { loop->post(forever); };
    loop->post(forever);
    EXPECT_THAT([&] { loop->run(); }, testing::ThrowsMessage<std::logic_error>(
                                          testing::StrEq("test_loop: no quiescence")));
}

TEST_F(TestLoopTest, AdvanceFiresDueTimersAtTheirDeadlinesInOrderWithThoseTheyStart) {
    std::shared_ptr<utils::timer> late, first, tied, started;
    started = timer("started");
    late = timer("late", [&] {
        if (loop->now() < 4s) {
            late->start(1s);
        }
    });
    first = timer("first", [&] {
        loop->post([this] { log.push_back("posted"); });
        started->start(0s);
    });
    tied = timer("tied");
    late->start(3s);
    first->start(1s);
    tied->start(1s);
    EXPECT_EQ(loop->running_timers(), 3u);
    loop->advance(500ms);
    EXPECT_TRUE(log.empty());
    loop->advance(10s);
    EXPECT_EQ(log, (lines{"first@1000", "posted", "tied@1000", "started@1000", "late@3000",
                          "late@4000"}));
    EXPECT_EQ(loop->now(), 10500ms);
    EXPECT_EQ(loop->running_timers(), 0u);
    EXPECT_THROW(loop->advance(-1ms), std::invalid_argument);
}

TEST_F(TestLoopTest, StartRestartsStopCancelsAndNeitherRunsTheHandler) {
    auto const fired = timer("fired");
    fired->start(0s);
    EXPECT_TRUE(log.empty());
    loop->advance(0ms);
    fired->start(1s);
    fired->start(2s);
    EXPECT_EQ(loop->running_timers(), 1u);
    loop->advance(1s);
    loop->advance(5s);
    fired->start(1s);
    fired->stop();
    fired->stop();
    auto doomed = timer("doomed");
    doomed->start(1s);
    doomed.reset();
    EXPECT_EQ(loop->running_timers(), 0u);
    loop->advance(5s);
    EXPECT_EQ(log, (lines{"fired@0", "fired@2000"}));
}

TEST_F(TestLoopTest, AnExceptionLeavesTheCallAndTheRestRunsOnTheNext) {
    loop->post([] { throw std::runtime_error("boom"); });
    loop->post([this] { log.push_back("after"); });
    EXPECT_THROW(loop->run(), std::runtime_error);
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(loop->run(), 1u);

    auto const bad = timer("bad", [] { throw std::runtime_error("boom"); });
    auto const good = timer("good");
    bad->start(1s);
    good->start(2s);
    EXPECT_THROW(loop->advance(5s), std::runtime_error);
    EXPECT_EQ(loop->now(), 1s);
    EXPECT_EQ(loop->running_timers(), 1u);
    loop->advance(4s);
    EXPECT_EQ(log, (lines{"after", "bad@1000", "good@2000"}));
    EXPECT_EQ(loop->now(), 5s);

    // The listener still gets the server end after the client's report threw.
    listener = listen();
    client->set_state_handler([](state value) {
        if (value == state::connected) {
            throw std::runtime_error("boom");
        }
    });
    client->connect(address, 7000);
    EXPECT_THROW(loop->run(), std::runtime_error);
    EXPECT_FALSE(server);
    loop->run();
    ASSERT_TRUE(server);
    EXPECT_EQ(client->get_state(), state::connected);
}

TEST_F(TestLoopTest, ConnectReportsOnLaterTurnsAndClosedWithNothingListening) {
    listener = listen();
    record(client, "client");
    EXPECT_EQ(client->get_name(), "mem:client-1");
    client->connect(address, 7001);
    EXPECT_EQ(client->get_state(), state::connecting);
    EXPECT_FALSE(client->send(text("early")));
    EXPECT_EQ(turns(), (by_turn{{"client connecting"}, {"client closed"}}));
    EXPECT_FALSE(client->send(text("x")));

    client->connect(address, 7000);
    EXPECT_EQ(turns(),
              (by_turn{{"client connecting"}, {"client connected", "accepted connected"}}));
    EXPECT_TRUE(client->send(text("x")));
    EXPECT_EQ(client->get_name(), "mem:10.0.0.1:7000 client-1");
    EXPECT_EQ(server->get_name(), "mem:10.0.0.1:7000 server-1");

    // A second listener at the same place replaces the first.
    auto const replacement = loop->listen(address, 7000, [](auto const&) {});
    EXPECT_FALSE(listener.active());
    EXPECT_TRUE(replacement.active());
}

TEST_F(TestLoopTest, BytesOfATurnArriveTogetherLaterInChunksOfAtMostTheLimit) {
    connect_pair();
    EXPECT_TRUE(client->send(text("ab")));
    EXPECT_TRUE(client->send(text("cd")));
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(turns(), (by_turn{{"server got abcd"}}));

    loop->set_max_chunk(2);
    server->send(text("hello"));
    EXPECT_EQ(turns(), (by_turn{{"client got he"}, {"client got ll"}, {"client got o"}}));

    // Bytes sent in a turn never reach the peer in that turn.
    loop->set_max_chunk(0);
    loop->post([this] { server->send(text("1")); });
    loop->post([this] { server->send(text("2")); });
    EXPECT_EQ(turns(), (by_turn{{}, {"client got 12"}}));
}

TEST_F(TestLoopTest, SendRefusesPastTheHighWaterMarkOfBytesThePeerHasNotRead) {
    connect_pair();
    loop->set_high_water_mark(6);
    loop->pause_reading(server, true);
    EXPECT_TRUE(client->send(text("abcd")));
    EXPECT_TRUE(client->send(text("ef")));
    EXPECT_FALSE(client->send(text("g")));  // 7 would wait
    loop->run();
    EXPECT_TRUE(log.empty());  // nothing read, so nothing was freed
    EXPECT_FALSE(client->send(text("g")));

    loop->pause_reading(server, false);
    EXPECT_EQ(turns(), (by_turn{{"server got abcdef"}}));
    EXPECT_TRUE(client->send(text("ghijkl")));
    EXPECT_EQ(turns(), (by_turn{{"server got ghijkl"}}));
    // Into an empty queue even a message over the mark goes.
    EXPECT_TRUE(client->send(text("a message over the mark")));
    EXPECT_EQ(turns(), (by_turn{{"server got a message over the mark"}}));
    EXPECT_THROW(loop->pause_reading(nullptr, true), std::invalid_argument);
}

TEST_F(TestLoopTest, CloseDeliversWhatWasSentThenBothEndsReportClosed) {
    for (bool const client_closes : {true, false}) {
        SCOPED_TRACE(client_closes ? "client closes" : "server closes");
        client = loop->create_tcp_connection();
        connect_pair();
        auto const closer = client_closes ? client : server;
        std::string const c = client_closes ? "client" : "server";
        std::string const p = client_closes ? "server" : "client";
        closer->send(text("bye"));
        closer->close();
        EXPECT_EQ(closer->get_state(), state::closing);
        EXPECT_FALSE(closer->send(text("late")));
        EXPECT_TRUE(log.empty());
        EXPECT_EQ(turns(),
                  (by_turn{{p + " got bye", c + " closing"}, {p + " closed"}, {c + " closed"}}));
        client->close();
        server->close();
        EXPECT_TRUE(loop->idle());
    }
}

TEST_F(TestLoopTest, HandlersMaySendCloseOrDestroyTheirConnectionOrReleaseTheListener) {
    listener = loop->listen(address, 7000, [this](auto const& end) {
        listener.release();
        server = end;
        record(server, "server");
        server->set_receive_handler([this](bytes const& received) { server->send(received); });
    });
    record(client, "client");
    client->connect(address, 7000);
    loop->run();
    EXPECT_FALSE(listener.active());
    client->send(text("echo"));
    EXPECT_EQ(turns(), (by_turn{{}, {"client got echo"}}));

    loop->set_max_chunk(1);
    client->set_receive_handler([this](bytes const&) {
        log.push_back("client got");
        client.reset();
    });
    server->send(text("abc"));
    EXPECT_EQ(turns(), (by_turn{{"client got"}, {"server closed"}}));

    // Nothing listens at 7000 any more; at 7001 nobody keeps the server end,
    // which closes the client.
    auto const ignoring = loop->listen(address, 7001, [](auto const&) {});
    for (unsigned short port : {7000, 7001}) {
        auto const other = loop->create_tcp_connection();
        record(other, "other");
        other->connect(address, port);
        loop->run();
    }
    EXPECT_EQ(log, (lines{"other connecting", "other closed", "other connecting", "other connected",
                          "other closed"}));

    listener = listen();
    client = loop->create_tcp_connection();
    client->set_state_handler([this](state value) {
        log.push_back("client " + word(value));
        if (value == state::connected) {
            client->close();
        } else if (value == state::closed) {
            client.reset();
        }
    });
    client->connect(address, 7000);
    EXPECT_EQ(turns(), (by_turn{{"client connecting"},
                                {"client connected", "accepted connected"},
                                {"server closed", "client closing"},
                                {"client closed"}}));
    EXPECT_FALSE(client);
}

TEST_F(TestLoopTest, ObjectsOutlivingTheLoopDoNothing) {
    connect_pair();
    auto const fired = timer("fired");
    fired->start(1s);
    client->send(text("queued"));
    auto const spare = loop->create_tcp_connection();
    loop.reset();

    EXPECT_FALSE(client->send(text("x")));
    EXPECT_FALSE(server->send(text("x")));
    client->close();
    spare->connect(address, 7000);
    EXPECT_EQ(spare->get_state(), state::closed);
    fired->start(1s);
    fired->stop();
    EXPECT_FALSE(listener.active());
    listener.release();
    client.reset();
    server.reset();
    EXPECT_TRUE(log.empty());
}

}  // namespace
}  // namespace zelvo::tavrin::adapters
