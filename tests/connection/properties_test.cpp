// The nine property requests of a connection: what each sends, what it
// reads back, its checks, and the values it delivers with an error, on both
// the refused and the failed path.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "conn_fixture.hpp"
#include "tavrin/bt_ctrl/connection_gatts.hpp"

namespace zelvo::tavrin::testing {
namespace {

using note_fn = std::function<void(std::string const&)>;
using op_fn = std::function<utils::link(conn_ptr const&, note_fn const&)>;

// "<values> <result>".
std::string with_result(std::string const& values, std::error_code const& ec) {
    return values + (values.empty() ? "" : " ") + ConnTest::result(ec);
}

struct property_case {
    std::string name;
    op_fn call;
    std::string request;
    // The body beside "connHandle".
    json payload;
    json reply;
    std::string success;
    // The values delivered with an error.
    std::string failure;
};

auto result_only(note_fn const& note) {
    return [note](std::error_code const& ec) { note(with_result("", ec)); };
}

std::vector<property_case> const& cases() {
    static std::vector<property_case> const all = {
        {"set_reservation",
         [](conn_ptr const& c, note_fn const& n) {
             return c->set_reservation(nullptr, result_only(n));
         },
         "connResvSet", json::object(), json::object(), "", ""},
        {"get_address",
         [](conn_ptr const& c, note_fn const& n) {
             return c->get_address([n](bt_ctrl::address const& a, std::error_code const& ec) {
                 n(with_result(a.to_string(), ec));
             });
         },
         "connAddressGet",
         json::object(),
         {{"addr", {{"type", "random"}, {"mac", "c0:11:22:33:44:55"}}}},
         "C0:11:22:33:44:55-random",
         "00:00:00:00:00:00-unknown"},
        {"get_signal",
         [](conn_ptr const& c, note_fn const& n) {
             return c->get_signal([n](bt_ctrl::signal const& s, std::error_code const& ec) {
                 n(with_result(std::to_string(s.quality) + " " + std::to_string(s.strength), ec));
             });
         },
         "connSignalGet",
         json::object(),
         {{"signal", {{"quality", 200}, {"strength", -40}}}},
         "200 -40",
         "0 -128"},
        {"set_phy",
         [](conn_ptr const& c, note_fn const& n) {
             return c->set_phy(bt_ctrl::phy::m2, result_only(n));
         },
         "connPhySet",
         {{"connPhy", "2m"}},
         json::object(),
         "",
         ""},
        {"get_phy",
         [](conn_ptr const& c, note_fn const& n) {
             return c->get_phy([n](bt_ctrl::phy p, std::error_code const& ec) {
                 n(with_result(bt_ctrl::to_string(p), ec));
             });
         },
         "connPhyGet",
         json::object(),
         {{"connPhy", "coded"}},
         "coded",
         "unknown"},
        {"set_params",
         [](conn_ptr const& c, note_fn const& n) {
             return c->set_params(6, 12, 3, 400, result_only(n));
         },
         "connParamsSet",
         {{"connParams",
           {{"intervalMin", 6}, {"intervalMax", 12}, {"latency", 3}, {"timeout", 400}}}},
         json::object(),
         "",
         ""},
        {"get_params",
         [](conn_ptr const& c, note_fn const& n) {
             return c->get_params([n](unsigned short a, unsigned short b, unsigned short l,
                                      unsigned short t, std::error_code const& ec) {
                 n(with_result(std::to_string(a) + " " + std::to_string(b) + " " +
                                   std::to_string(l) + " " + std::to_string(t),
                               ec));
             });
         },
         "connParamsGet",
         json::object(),
         {{"connParams",
           {{"intervalMin", 7}, {"intervalMax", 9}, {"latency", 1}, {"timeout", 300}}}},
         "7 9 1 300",
         "100 100 40 2048"},
        {"set_latency",
         [](conn_ptr const& c, note_fn const& n) { return c->set_latency(true, result_only(n)); },
         "connLatencySet",
         {{"enableLatency", true}},
         json::object(),
         "",
         ""},
        {"get_latency",
         [](conn_ptr const& c, note_fn const& n) {
             return c->get_latency([n](bool on, std::error_code const& ec) {
                 n(with_result(on ? "true" : "false", ec));
             });
         },
         "connLatencyGet",
         json::object(),
         {{"enableLatency", true}},
         "true",
         "false"},
    };
    return all;
}

bool is_latency(property_case const& c) {
    return c.request.rfind("connLatency", 0) == 0;
}

class PropertyTest : public ConnTest {
protected:
    // An opened connection for the case: the application's own (outgoing)
    // under handle 5, or, for latency, one that the controller reports as
    // incoming under handle 8. An application can't open an incoming
    // connection yet (that goes through an advertiser), so the client's own
    // object stands in, with its constness cast away for the setter.
    conn_ptr opened_for(property_case const& c) {
        if (!is_latency(c)) {
            return app ? app : (app = open(5));
        }
        if (!incoming) {
            collect_new();
            event("connOpened", {{"connHandle", 8},
                                 {"connDirection", "incoming"},
                                 {"connPhy", "1m"},
                                 {"connMtu", 23}});
            incoming = std::const_pointer_cast<bt_ctrl::connection>(announced.at(0));
        }
        return incoming;
    }

    note_fn noter() {
        return [this](std::string const& text) { heard.push_back(text); };
    }

    conn_ptr app;
    conn_ptr incoming;
};

TEST_F(PropertyTest, EachRequestSendsItsKeysAndDeliversWhatTheControllerSays) {
    start_scripted();
    int local_changes = 0;
    for (auto const& conn : {opened_for(cases()[0]), opened_for(cases()[8])}) {
        conn->notify_on_phy_change([&local_changes](bt_ctrl::phy) { ++local_changes; });
        conn->notify_on_params_change([&local_changes](unsigned short, unsigned short,
                                                       unsigned short,
                                                       unsigned short) { ++local_changes; });
    }
    for (auto const& c : cases()) {
        SCOPED_TRACE(c.name);
        auto const conn = opened_for(c);
        unsigned short const handle = is_latency(c) ? 8 : 5;
        mark = got.size();
        heard.clear();
        c.call(conn, noter());
        loop->run();
        auto payload = c.payload;
        payload["connHandle"] = handle;
        EXPECT_EQ(sent(), strings{c.request + " " + payload.dump()});
        reply(c.request, c.reply);
        loop->run();
        EXPECT_EQ(heard, strings{with_result(c.success, {})});

        // A failed request delivers the fixed values with the mapped error.
        heard.clear();
        c.call(conn, noter());
        loop->run();
        fail(c.request, 26);
        loop->run();
        EXPECT_EQ(heard, strings{with_result(c.failure, error::connection::invalid_parameter)});
    }
    // Neither a getter nor a setter changes the object: only events do.
    EXPECT_EQ(local_changes, 0);
}

TEST_F(PropertyTest, OnAClosedConnectionEachIsRefusedLaterWithItsFailureValues) {
    start_scripted();
    auto const closed = client->create_connection();
    for (auto const& c : cases()) {
        SCOPED_TRACE(c.name);
        heard.clear();
        auto const link = c.call(closed, noter());
        EXPECT_EQ(heard, strings{});
        EXPECT_TRUE(link.active());
        loop->run();
        EXPECT_EQ(heard, strings{with_result(c.failure, error::connection::inappropriate_state)});
    }
    // The client's own checks come first.
    auto const opened = open(5);
    client->disable();
    for (auto const& c : cases()) {
        SCOPED_TRACE(c.name);
        heard.clear();
        c.call(opened, noter());
        loop->run();
        EXPECT_EQ(heard, strings{with_result(c.failure, error::bt_ctrl::inappropriate_state)});
    }
    EXPECT_EQ(sent(), strings{});
}

TEST_F(PropertyTest, TheOperationsOwnChecks) {
    interface_caps = caps({{"connLatencyChange", false}});
    start_scripted();
    auto const outgoing = open(5);
    auto const& latency_set = cases()[7];
    auto const& latency_get = cases()[8];
    auto const incoming = opened_for(latency_get);
    struct {
        std::string name;
        std::function<void()> call;
        std::string expected;
    } const checks[] = {
        // No interface offers `unknown`.
        {"set_phy unknown", [&] { outgoing->set_phy(bt_ctrl::phy::unknown, result_only(noter())); },
         result(error::bt_ctrl::unsupported_phy)},
        {"set_phy not offered",
         [&] { outgoing->set_phy(bt_ctrl::phy::coded, result_only(noter())); },
         result(error::bt_ctrl::unsupported_phy)},
        {"set_latency outgoing", [&] { latency_set.call(outgoing, noter()); },
         result(error::bt_ctrl::unsupported_functionality)},
        {"get_latency outgoing", [&] { latency_get.call(outgoing, noter()); },
         "false " + result(error::bt_ctrl::unsupported_functionality)},
    };
    mark = got.size();
    for (auto const& c : checks) {
        SCOPED_TRACE(c.name);
        heard.clear();
        c.call();
        loop->run();
        EXPECT_EQ(heard, strings{c.expected});
    }
    EXPECT_EQ(sent(), strings{});
    (void)incoming;
}

TEST_F(PropertyTest, AControllerThatDeclaresLatencyChangeGetsNoLatencyRequests) {
    interface_caps = caps({{"connLatencyChange", true}});
    start_scripted();
    auto const& latency_set = cases()[7];
    auto const& latency_get = cases()[8];
    auto const incoming = opened_for(latency_get);
    mark = got.size();
    heard.clear();
    latency_set.call(incoming, noter());
    latency_get.call(incoming, noter());
    loop->run();
    EXPECT_EQ(heard, (strings{result(error::bt_ctrl::unsupported_functionality),
                              "false " + result(error::bt_ctrl::unsupported_functionality)}));
    EXPECT_EQ(sent(), strings{});
}

// A waiting connection may be handed a reservation once the controller has
// named it.
TEST_F(PropertyTest, SetReservationWorksOnAWaitingConnectionWithAHandle) {
    start_scripted();
    auto const conn = client->create_connection();
    conn->connect(peer(), bt_ctrl::phy::unknown, nullptr, on_open("connect"));
    loop->run();
    heard.clear();
    mark = got.size();
    conn->set_reservation(nullptr, on_done("unnamed"));
    loop->run();
    EXPECT_EQ(heard, strings{"unnamed: " + result(error::connection::inappropriate_state)});
    answer_open(3, "pending", 0);
    // A reservation the client doesn't hold goes out without an id.
    auto const unknown = std::make_shared<bt_ctrl::reservation>();
    for (auto const waiting : {conn_state::pending, conn_state::opening}) {
        SCOPED_TRACE(to_string(waiting));
        ASSERT_EQ(conn->get_state(), waiting);
        conn->set_reservation(unknown, on_done("named"));
        loop->run();
        EXPECT_EQ(sent().back(), R"(connResvSet {"connHandle":3})");
        reply("connResvSet", json::object());
        loop->run();
        EXPECT_EQ(heard.back(), "named: ok");
        event("connOpening", {{"connHandle", 3}});
    }
}

TEST_F(PropertyTest, AnAddressReplyWithoutAddressIsUnknownAndRepliesOutliveTheObject) {
    start_scripted();
    auto conn = open(5);
    conn->get_address([this](bt_ctrl::address const& a, std::error_code const& ec) {
        heard.push_back(with_result(a.to_string(), ec));
    });
    auto released = conn->get_phy(
        [this](bt_ctrl::phy, std::error_code const&) { heard.push_back("released phy"); });
    loop->run();
    conn.reset();
    loop->run();
    heard.clear();
    reply("connAddressGet", json::object());
    released.release();
    reply("connPhyGet", {{"connPhy", "1m"}});
    loop->run();
    EXPECT_EQ(heard, strings{"00:00:00:00:00:00-unknown ok"});
}

TEST_F(PropertyTest, AReplyWithoutItsKeyRaisesAndTheHandlerIsNotCalled) {
    start_scripted();
    auto const conn = open(5);
    heard.clear();
    conn->get_signal(
        [this](bt_ctrl::signal const&, std::error_code const&) { heard.push_back("signal"); });
    loop->run();
    reply("connSignalGet", json::object());
    EXPECT_ANY_THROW(loop->run());
    EXPECT_EQ(heard, strings{});
}

TEST_F(PropertyTest, TheGattClientSideIsNotAvailable) {
    start_scripted();
    auto const conn = client->create_connection();
    std::shared_ptr<bt_ctrl::connection const> const watched = conn;
    auto const refused = ::testing::ThrowsMessage<std::logic_error>("Not implemented");
    EXPECT_THAT([&] { conn->get_gattc(); }, refused);
    EXPECT_THAT([&] { watched->get_gattc(); }, refused);
    // The server side exists for the object's life, through a const object
    // too.
    EXPECT_EQ(&watched->get_gatts(), &conn->get_gatts());
}

}  // namespace
}  // namespace zelvo::tavrin::testing
