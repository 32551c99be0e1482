// A connection's life against a controller played by the test: the state
// gate, connect's checks and payloads, the "connOpen" reply and its races
// with close and with the application dropping the object, close's replies,
// and handlers that re-enter.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "conn_fixture.hpp"

namespace zelvo::tavrin::testing {
namespace {

std::string const state_events[] = {"connClosed", "connOpened", "connClosing", "connOpening",
                                    "connPending"};

// A state event for `handle` with every key any state reads.
json state_body(unsigned short handle) {
    return {{"connHandle", handle},
            {"connDirection", "incoming"},
            {"connPhy", "2m"},
            {"connMtu", 100},
            {"reason", "resourceRotation"}};
}

// Rows are the present state, columns the proposed one, both in the order
// closed, opened, closing, opening, pending.
bool const gate[5][5] = {
    {false, true, false, true, true},    // closed
    {true, false, true, false, false},   // opened
    {true, false, false, false, false},  // closing
    {true, true, true, false, false},    // opening
    {true, true, true, true, false},     // pending
};

// From every state but closed: a connection that the controller announces
// in one state, then an event proposing another.
TEST_F(ConnTest, TheGateMovesOnlyAlongTheTableAndTellsEachMoveOnce) {
    start_scripted();
    collect_new();
    unsigned short handle = 100;
    for (int from = 1; from < 5; ++from) {
        for (int to = 0; to < 5; ++to) {
            ++handle;
            event(state_events[from], state_body(handle));
            ASSERT_EQ(announced.size(), static_cast<std::size_t>(handle - 100));
            auto const conn = announced.back();
            heard.clear();
            watch(conn, "c");
            event(state_events[to], state_body(handle));
            auto const moved = gate[from][to];
            auto const expected = static_cast<conn_state>(moved ? to : from);
            SCOPED_TRACE(state_events[from] + " then " + state_events[to]);
            EXPECT_EQ(conn->get_state(), expected);
            EXPECT_EQ(heard, moved ? strings{"c " + to_string(expected)} : strings{});
        }
    }
}

// From closed: a connection found at synchronisation is closed until its
// status arrives, and the status goes through the gate.
TEST_F(ConnTest, FromClosedTheGateRefusesOnlyClosing) {
    answers["connsGet"] = with({{"maxConnections", 8},
                                {"connections",
                                 {{"1", {{"piq", 0}}},
                                  {"2", {{"piq", 0}}},
                                  {"3", {{"piq", 0}}},
                                  {"4", {{"piq", 0}}},
                                  {"5", {{"piq", 0}}}}}});
    answers["connStatusGet"] = [](json const& body, responder const& r) {
        auto const handle = body.at("connHandle").get<int>();
        r.reply(quorl_utils::payload(
            json{{"status", bt_ctrl::connection::to_string(static_cast<conn_state>(handle - 1))}}));
    };
    answers["connMtuGet"] = with({{"connMtu", 23}});
    answers["connDirectionGet"] = with({{"connDirection", "incoming"}});
    start_scripted();
    auto const queue = queue_now();
    ASSERT_EQ(queue.size(), 5u);
    std::multiset<conn_state> found;
    for (auto const& entry : queue) {
        found.insert(entry.first->get_state());
    }
    // closed stays, opened, opening and pending are taken, closing is refused.
    EXPECT_EQ(found,
              (std::multiset<conn_state>{conn_state::closed, conn_state::closed, conn_state::opened,
                                         conn_state::opening, conn_state::pending}));
}

struct check_case {
    std::string name;
    json caps_changes;
    // Prepares: may connect once first, disable, or drop the client.
    std::function<void(ConnTest&, conn_ptr const&)> before;
    bt_ctrl::address address;
    bt_ctrl::phy phy;
    bool advertiser_reservation;
    std::error_code expected;
};

// Each check of connect, and their order: the first failing one decides.
TEST_F(ConnTest, ConnectRefusesInOrderOnALaterTurnAndSendsNothing) {
    using b = error::bt_ctrl;
    auto const none = [](ConnTest&, conn_ptr const&) {};
    auto const connected = [](ConnTest& t, conn_ptr const& conn) {
        conn->connect(peer(), bt_ctrl::phy::unknown, nullptr, t.on_open("first"));
        t.loop->run();
    };
    auto const disabled = [](ConnTest& t, conn_ptr const&) { t.client->disable(); };
    auto const dropped = [](ConnTest& t, conn_ptr const&) {
        t.client.reset();
        t.loop->run();
    };
    auto const good = peer();
    auto const random = peer("C0:11:22:33:44:55", bt_ctrl::addr_type::random_address);
    auto const zeros = peer("00:00:00:00:00:00");
    auto const m1 = bt_ctrl::phy::m1;
    auto const unknown = bt_ctrl::phy::unknown;
    std::vector<check_case> const cases = {
        {"client gone", {}, dropped, zeros, bt_ctrl::phy::coded, true, b::no_instance},
        {"client disabled", {}, disabled, zeros, bt_ctrl::phy::coded, true, b::inappropriate_state},
        {"no conn capability",
         {{"conn", false}},
         none,
         zeros,
         bt_ctrl::phy::coded,
         true,
         b::unsupported_functionality},
        {"not closed",
         {},
         connected,
         zeros,
         bt_ctrl::phy::coded,
         true,
         error::connection::inappropriate_state},
        {"advertiser reservation",
         {},
         none,
         zeros,
         bt_ctrl::phy::coded,
         true,
         b::unknown_resource_reservation},
        {"phy not offered", {}, none, zeros, bt_ctrl::phy::coded, false, b::unsupported_phy},
        {"invalid address", {}, none, zeros, m1, false, b::unsupported_address},
        {"address type not offered", {}, none, random, unknown, false, b::unsupported_address},
        {"unknown address type",
         {},
         none,
         bt_ctrl::address(),
         unknown,
         false,
         b::unsupported_address},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        reset_script();
        interface_caps = caps(c.caps_changes.is_null() ? json::object() : c.caps_changes);
        start_scripted();
        auto const conn = client->create_connection();
        c.before(*this, conn);
        auto const state_before = conn->get_state();
        heard.clear();
        mark = got.size();
        auto resv = std::make_shared<bt_ctrl::reservation>();
        resv->resource_type = bt_ctrl::reservation::type::advertiser;
        auto link = conn->connect(c.address, c.phy, c.advertiser_reservation ? resv : nullptr,
                                  on_open("connect"));
        EXPECT_EQ(heard, strings{}) << "delivered inside the call";
        EXPECT_TRUE(link.active());
        loop->run();
        EXPECT_EQ(heard, strings{"connect: 0s " + result(c.expected)});
        EXPECT_EQ(conn->get_state(), state_before);
        EXPECT_THAT(names(mark), ::testing::Not(::testing::Contains("connOpen")));
    }
}

TEST_F(ConnTest, ConnectSendsTheAddressAndOnlyTheKeysItHas) {
    start_scripted();
    auto const mine = std::make_shared<bt_ctrl::reservation>();
    struct {
        bt_ctrl::phy phy;
        std::shared_ptr<bt_ctrl::reservation const> reservation;
        std::string body;
    } const cases[] = {
        {bt_ctrl::phy::unknown, nullptr, R"({"addr":{"mac":"AA:BB:CC:DD:EE:01","type":"public"}})"},
        {bt_ctrl::phy::m2, nullptr,
         R"({"addr":{"mac":"AA:BB:CC:DD:EE:01","type":"public"},"connPhy":"2m"})"},
        // A reservation that the client doesn't hold names no id.
        {bt_ctrl::phy::m1, mine,
         R"({"addr":{"mac":"AA:BB:CC:DD:EE:01","type":"public"},"connPhy":"1m"})"},
    };
    for (auto const& c : cases) {
        auto const conn = client->create_connection();
        conn->connect(peer(), c.phy, c.reservation, on_open("connect"));
        EXPECT_EQ(conn->get_state(), conn_state::pending);
        EXPECT_EQ(conn->get_direction(), bt_ctrl::connection::direction::outgoing);
        loop->run();
        EXPECT_EQ(last("connOpen").body.dump(), c.body);
    }
}

TEST_F(ConnTest, TheReplyMovesTheStateBeforeTheCompletionAndTheEventOpens) {
    start_scripted();
    auto const conn = client->create_connection();
    watch(conn, "app");
    heard.clear();
    conn->connect(peer(), bt_ctrl::phy::unknown, nullptr, on_open("connect"));
    loop->run();
    answer_open(5, "opening", 30);
    event("connOpened", {{"connHandle", 5}, {"connPhy", "2m"}, {"connMtu", 185}});
    EXPECT_EQ(heard, (strings{"app pending", "app opening", "connect: 30s ok", "app opened"}));
    EXPECT_EQ(conn->get_mtu(), 185);
    EXPECT_TRUE(*conn);

    // A refusal ends the attempt closed; the object can try again.
    auto const other = client->create_connection();
    watch(other, "other");
    heard.clear();
    other->connect(peer(), bt_ctrl::phy::unknown, nullptr, on_open("again"));
    loop->run();
    fail("connOpen", 24);
    loop->run();
    EXPECT_EQ(heard, (strings{"other pending", "other closed",
                              "again: 0s " + result(error::connection::limit_exceeded)}));
    EXPECT_EQ(other->get_direction(), bt_ctrl::connection::direction::unknown);
}

// A close asked before the controller named the connection waits for the
// reply, and the reply decides what becomes of it.
TEST_F(ConnTest, ACloseBeforeTheReplyIsSettledByTheReply) {
    struct {
        std::string name;
        std::function<void(ConnTest&)> answer;
        strings expected;
        conn_state after;
    } const cases[] = {
        {"named",
         [](ConnTest& t) { t.answer_open(7, "pending", 5); },
         {"app closing", "connect: 5s ok"},
         conn_state::closing},
        {"refused",
         [](ConnTest& t) { t.fail("connOpen", 13); },
         {"app closing", "app closed", "close: ok",
          "connect: 0s " + result(error::bt_ctrl::insufficient_resources)},
         conn_state::closed},
        // The attempt ended by itself: the waiting close is never told.
        {"closed at once",
         [](ConnTest& t) { t.answer_open(7, "closed", 5); },
         {"app closing", "app closed", "connect: 5s ok"},
         conn_state::closed},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        reset_script();
        start_scripted();
        auto const conn = client->create_connection();
        conn->connect(peer(), bt_ctrl::phy::unknown, nullptr, on_open("connect"));
        watch(conn, "app");
        heard.clear();
        auto const closing = conn->close(on_done("close"));
        EXPECT_TRUE(closing.active());
        loop->run();
        EXPECT_EQ(sent(),
                  strings{R"(connOpen {"addr":{"mac":"AA:BB:CC:DD:EE:01","type":"public"}})"});
        c.answer(*this);
        loop->run();
        EXPECT_EQ(heard, c.expected);
        EXPECT_EQ(conn->get_state(), c.after);
        if (c.after == conn_state::closing) {
            // The close that waited goes out at once, and its reply is the
            // close's completion.
            EXPECT_EQ(sent().back(), R"(connClose {"connHandle":7})");
            reply("connClose", json::object());
            loop->run();
            EXPECT_EQ(heard.back(), "close: ok");
            event("connClosed", {{"connHandle", 7}, {"reason", "userRequested"}});
            EXPECT_EQ(heard.back(), "app closed");
            EXPECT_EQ(conn->get_close_reason(), bt_ctrl::connection::close_reason::user_requested);
        } else {
            EXPECT_EQ(sent().size(), 1u);
        }
    }
}

// A connection that the client holds on the application's behalf shows in
// the queue when the controller lists its handle.
const_conn queued(ConnTest& t, unsigned short handle) {
    const_conn found;
    auto link = t.client->notify_on_connection_queue_changed(
        [&found](bt_ctrl::connection_queue const& queue) {
            if (!queue.empty()) {
                found = queue.begin()->first;
            }
        });
    t.event("connsChanged",
            {{"maxConnections", 4}, {"connections", {{std::to_string(handle), {{"piq", 0}}}}}});
    t.event("connsChanged", {{"maxConnections", 4}, {"connections", json::object()}});
    link.release();
    return found;
}

TEST_F(ConnTest, AnObjectDroppedBeforeTheReplyIsClosedFromAStandIn) {
    start_scripted();
    collect_new();
    auto conn = client->create_connection();
    conn->connect(peer(), bt_ctrl::phy::unknown, nullptr, on_open("connect"));
    loop->run();
    conn.reset();
    loop->run();
    EXPECT_EQ(sent().size(), 1u) << "nothing to name before the reply";
    answer_open(9, "opening", 5);
    EXPECT_EQ(heard.back(), "connect: 5s ok");
    EXPECT_EQ(sent().back(), R"(connClose {"connHandle":9})");
    auto const stand_in = queued(*this, 9);
    ASSERT_TRUE(stand_in);
    EXPECT_EQ(stand_in->get_state(), conn_state::closing);
    std::weak_ptr<bt_ctrl::connection const> watched = stand_in;
    watch(stand_in, "stand-in");
    event("connClosed", {{"connHandle", 9}, {"reason", "userRequested"}});
    EXPECT_EQ(heard.back(), "stand-in closed");
    EXPECT_TRUE(announced.empty());
    EXPECT_FALSE(queued(*this, 9)) << "released by the client";
}

TEST_F(ConnTest, AnObjectDroppedWhileOpenIsClosedAndAStandInHearsTheEnd) {
    start_scripted();
    collect_new();
    auto conn = open(5);
    conn.reset();
    loop->run();
    EXPECT_EQ(sent(), strings{R"(connClose {"connHandle":5})"});
    auto const stand_in = queued(*this, 5);
    ASSERT_TRUE(stand_in);
    EXPECT_EQ(stand_in->get_state(), conn_state::closing);
    EXPECT_EQ(stand_in->get_direction(), bt_ctrl::connection::direction::outgoing);
    watch(stand_in, "stand-in");
    event("connClosed", {{"connHandle", 5}, {"reason", "userRequested"}});
    EXPECT_EQ(heard.back(), "stand-in closed");
    EXPECT_TRUE(announced.empty());

    // Dropped while closing: no second close, and the stand-in still comes.
    auto again = open(6);
    again->close(on_done("close"));
    loop->run();
    mark = got.size();
    again.reset();
    loop->run();
    EXPECT_EQ(sent(), strings{});
    EXPECT_TRUE(queued(*this, 6));
}

TEST_F(ConnTest, WhileClosingTheControllerOpeningIsRefused) {
    start_scripted();
    auto const conn = open(5);
    heard.clear();
    conn->close(on_done("close"));
    event("connOpened", {{"connHandle", 5}, {"connPhy", "1m"}, {"connMtu", 23}});
    event("connClosing", {{"connHandle", 5}});
    reply("connClose", json::object());
    loop->run();
    event("connClosed", {{"connHandle", 5}, {"reason", "userRequested"}});
    EXPECT_EQ(heard, (strings{"app closing", "close: ok", "app closed"}));
    EXPECT_EQ(conn->get_mtu(), 23);
    EXPECT_EQ(conn->get_direction(), bt_ctrl::connection::direction::unknown);
}

// "Already going or gone" is success; any other failure means the mirror
// can't be trusted, and the link is rebuilt.
TEST_F(ConnTest, CloseRepliesCountInappropriateStateAsSuccessAndResetOnOtherFailures) {
    struct {
        int code;
        std::string expected;
        bool reset;
    } const cases[] = {
        {18, "ok", false},
        {43, "ok", false},
        {37, "ok", false},
        {41, "ok", false},
        {4, result(error::bt_ctrl::internal_failure), true},
        {24, result(error::connection::limit_exceeded), true},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.code);
        reset_script();
        start_scripted();
        auto const conn = open(5);
        heard.clear();
        conn->close(on_done("close"));
        loop->run();
        fail("connClose", c.code);
        loop->advance(std::chrono::seconds(10));
        if (c.reset) {
            // Every connection ends before the client tells its own state.
            EXPECT_EQ(heard, (strings{"app closing", "close: " + c.expected, "app closed",
                                      "rebooting", "enabled"}));
            EXPECT_EQ(conn->get_close_reason(),
                      bt_ctrl::connection::close_reason::interface_unavailable);
            EXPECT_EQ(accepted, 2);
        } else {
            EXPECT_EQ(heard, (strings{"app closing", "close: " + c.expected}));
            EXPECT_EQ(accepted, 1);
        }
    }
}

TEST_F(ConnTest, CloseOfAClosedConnectionSucceedsAndACloseInClosingSendsAgain) {
    start_scripted();
    auto const idle = client->create_connection();
    idle->close(on_done("idle close"));
    EXPECT_EQ(heard.back(), "enabled");
    loop->run();
    EXPECT_EQ(heard.back(), "idle close: ok");
    EXPECT_EQ(sent(), strings{});

    auto const conn = open(5);
    conn->close(on_done("first"));
    conn->close(on_done("second"));
    loop->run();
    EXPECT_EQ(sent(), (strings{R"(connClose {"connHandle":5})", R"(connClose {"connHandle":5})"}));
}

TEST_F(ConnTest, AStateHandlerMayCloseOrDropTheObject) {
    start_scripted();
    // Closes as soon as it opens.
    auto conn = client->create_connection();
    watch(conn, "app");
    conn->notify_on_state_change([&conn, this](conn_state now) {
        if (now == conn_state::opened) {
            conn->close(on_done("close"));
        }
    });
    conn->connect(peer(), bt_ctrl::phy::unknown, nullptr, on_open("connect"));
    loop->run();
    answer_open(5, "opening", 1);
    heard.clear();
    mark = got.size();
    event("connOpened", {{"connHandle", 5}, {"connPhy", "1m"}, {"connMtu", 23}});
    EXPECT_EQ(heard, (strings{"app opened", "app closing"}));
    EXPECT_EQ(sent(), strings{R"(connClose {"connHandle":5})"});

    // Drops the last reference on the reply that names it: the handle is
    // known by then, so the destructor closes it.
    auto dropped = client->create_connection();
    dropped->notify_on_state_change([&dropped](conn_state now) {
        if (now == conn_state::opening) {
            dropped.reset();
        }
    });
    dropped->connect(peer(), bt_ctrl::phy::unknown, nullptr, on_open("dropped"));
    loop->run();
    mark = got.size();
    heard.clear();
    answer_open(6, "opening", 1);
    EXPECT_FALSE(dropped);
    EXPECT_EQ(heard, strings{"dropped: 1s ok"});
    EXPECT_EQ(sent(), strings{R"(connClose {"connHandle":6})"});
    EXPECT_TRUE(queued(*this, 6));

    // Drops it when the controller goes away.
    auto last = open(7, "last");
    last->notify_on_state_change([&last](conn_state now) {
        if (now == conn_state::closed) {
            last.reset();
        }
    });
    heard.clear();
    client->disable();
    EXPECT_FALSE(last);
    ASSERT_EQ(heard.size(), 3u);
    EXPECT_THAT(strings(heard.begin(), heard.end() - 1),
                ::testing::UnorderedElementsAre("app closed", "last closed"));
    EXPECT_EQ(heard.back(), "disabled");
}

TEST_F(ConnTest, AThrowingStateHandlerIsContainedWithItsWords) {
    start_scripted();
    auto const conn = client->create_connection();
    conn->notify_on_state_change([](conn_state) { throw std::runtime_error("app"); });
    conn->connect(peer(), bt_ctrl::phy::unknown, nullptr,
                  [](std::chrono::seconds const&, std::error_code const&) {
                      throw std::runtime_error("app");
                  });
    loop->run();
    answer_open(5, "opening", 1);
    EXPECT_EQ(failures, (strings{"Failed notification handler on Connection state change",
                                 "Failed notification handler on Connection state change",
                                 "Failed response handler on Connection establishment"}));
    EXPECT_EQ(conn->get_state(), conn_state::opening);
}

}  // namespace
}  // namespace zelvo::tavrin::testing
