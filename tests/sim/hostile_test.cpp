// The simulator against clients that misbehave: what it keeps for them is
// bounded, it drops them with a line that says why, and the others go on.
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "sim_client.hpp"
#include "tavrin/utils/mac_address.hpp"

namespace zelvo::tavrin::sim::testing {
namespace {

using state = utils::connection::state;

std::vector<unsigned char> bytes_of(std::string const& text) {
    return {text.begin(), text.end()};
}

// A 20-byte request header announcing `payload` bytes after a 10-byte name.
std::vector<unsigned char> request_header(std::uint32_t payload) {
    std::vector<unsigned char> header = {0x51, 4, 1, 2, 0, 0, 0, 7, 0, 0, 0, 10, 0, 0, 0, 0};
    for (int shift = 24; shift >= 0; shift -= 8) {
        header.push_back(static_cast<unsigned char>(payload >> shift));
    }
    return header;
}

class HostileTest : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        ctl->set_log_handler([this](std::string const& line) { lines.push_back(line); }, false);
    }

    strings lines;
};

TEST_F(HostileTest, ADeeplyNestedBodyIsAMalformedRequestAndTheControllerGoesOn) {
    auto c = connect();
    std::string const deep = std::string(100000, '[') + std::string(100000, ']');
    c->send_payload("hdshkStart",
                    quorl_utils::payload(bytes_of(deep), stravik_part_payload::format::json));
    loop->run();
    EXPECT_EQ(c->replies, strings{"app 5"});
    ASSERT_EQ(ctl->requests().size(), 1u);
    EXPECT_FALSE(ctl->requests().front().body);
    EXPECT_EQ(c->bind(), R"({"if":"hci0"})");
    EXPECT_TRUE(lines.empty());
}

TEST_F(HostileTest, TheRequestLogIsOffUntilAskedForAndForgetsTheOldestPastItsBound) {
    auto const padded = [](int n) { return json{{"pad", std::string(80, 'x')}, {"n", n}}; };
    auto c = connect();
    ctl->keep_request_log(0);
    c->ask("ifStatusGet", padded(0));
    EXPECT_TRUE(ctl->requests().empty());

    // Each request is "ifStatusGet" (11 bytes) and a 96-byte body.
    auto const size = 11 + quorl_utils::payload(padded(0)).get_bytes().size();
    ctl->keep_request_log(3 * size + size / 2);
    for (int n = 1; n <= 5; ++n) {
        c->send("ifStatusGet", padded(n));
    }
    loop->run();
    std::vector<int> kept;
    for (auto const& r : ctl->requests()) {
        EXPECT_EQ(r.size, size);
        kept.push_back(r.body->at("n"));
    }
    EXPECT_EQ(kept, (std::vector<int>{3, 4, 5}));
    ctl->keep_request_log(0);
    EXPECT_TRUE(ctl->requests().empty());
}

// Each way to misbehave ends the client's session with its own reason, and
// a well-behaved client beside it is not disturbed.
TEST_F(HostileTest, EachMisbehaviourDropsTheClientWithItsReason) {
    struct row {
        char const* what;
        std::function<void(client&)> misbehave;
        std::string reason;
    };
    std::vector<row> const rows = {
        {"garbage",
         [](client& c) { c.link->send(bytes_of("GET / HTTP/1.1\r\nHost: sim\r\n\r\n")); },
         "malformed frame"},
        {"a header announcing too much", [](client& c) { c.link->send(request_header(600000)); },
         "oversized message (over 524288 bytes)"},
        {"replies never read",
         [this](client& c) {
             loop->pause_reading(c.link, true);
             for (int i = 0; i < 200; ++i) {
                 c.send("hdshkStart");
             }
         },
         "slow reader (its unread replies reached the connection's high-water mark)"},
        {"no handshake", [this](client&) { loop->advance(10s); },
         "idle (no handshake within 10 s)"},
        {"half a frame",
         [this](client& c) {
             c.bind();
             auto const header = request_header(5);
             c.link->send({header.begin(), header.begin() + 12});
             loop->advance(6s);
             c.link->send({header.begin() + 12, header.end()});  // still incomplete
             loop->advance(3s);
             ASSERT_EQ(ctl->session_count(), 2u) << "dropped before its time";
             loop->advance(1s);
         },
         "idle (in the middle of a frame for 10 s)"},
        {"too many held requests",
         [this](client& c) {
             ctl->stop_answering(true);
             for (int i = 0; i < 5; ++i) {
                 c.send("hdshkStart");
             }
         },
         "too many waiting replies (4)"},
    };
    for (auto const& r : rows) {
        SCOPED_TRACE(r.what);
        lines.clear();
        ctl->stop_answering(false);
        loop->set_high_water_mark(8192);
        auto limits = ctl->get_limits();
        limits.max_waiting_replies = 4;
        ctl->set_limits(limits);

        auto good = connect();
        good->bind();
        auto bad = connect();
        r.misbehave(*bad);
        loop->run();
        // Two clients a row: the second is the one dropped.
        auto const n = std::to_string(2 * (&r - rows.data()) + 2);
        EXPECT_EQ(lines, strings{"dropped client " + n + " (mem:127.0.0.1:7100 server-" + n +
                                 "): " + r.reason});
        loop->pause_reading(bad->link, false);
        loop->run();
        EXPECT_TRUE(bad->closed);
        ctl->stop_answering(false);
        EXPECT_EQ(good->ask("ifStatusGet"), R"({"status":"enabled"})");
        EXPECT_EQ(ctl->session_count(), 1u);
    }
}

TEST_F(HostileTest, SessionsBeyondTheLimitAreRefusedAndCountAgainOnceOthersClose) {
    auto limits = ctl->get_limits();
    limits.max_sessions = 2;
    ctl->set_limits(limits);
    auto first = connect();
    auto second = connect();
    auto third = connect();
    loop->run();
    EXPECT_TRUE(third->closed);
    EXPECT_EQ(lines, strings{"refused client mem:127.0.0.1:7100 server-3: too many sessions (2)"});
    first->link->close();
    loop->run();
    auto fourth = connect();
    EXPECT_EQ(fourth->bind(), R"({"if":"hci0"})");
}

TEST_F(HostileTest, DropLinesAreLimitedToTenASecondAndTheRestCounted) {
    std::vector<std::unique_ptr<client>> clients;
    for (int i = 0; i < 15; ++i) {
        clients.push_back(connect());
        clients.back()->link->send(bytes_of("junk junk junk junk junk"));
    }
    loop->run();
    EXPECT_EQ(lines.size(), 10u);
    loop->advance(1s);
    ASSERT_EQ(lines.size(), 11u);
    EXPECT_EQ(lines.back(), "dropped 5 more clients in the last second (not shown)");
    // A new second starts afresh.
    clients.push_back(connect());
    clients.back()->link->send(bytes_of("junk junk junk junk junk"));
    loop->run();
    EXPECT_EQ(lines.size(), 12u);
    loop->advance(1s);
    EXPECT_EQ(lines.size(), 12u);
}

TEST_F(HostileTest, VerboseLinesTellOfEachClientAcceptedAndClosed) {
    ctl->set_log_handler([this](std::string const& line) { lines.push_back(line); }, true);
    auto c = connect();
    c->bind();
    c->link->close();
    loop->run();
    EXPECT_EQ(lines, (strings{"accepted client 1 (mem:127.0.0.1:7100 server-1)",
                              "closed client 1 (mem:127.0.0.1:7100 server-1)"}));
}

TEST(SimConfigLimits, AConfigWhoseHandshakeNoClientCanTakeIsRefusedAtLoad) {
    auto const with_interfaces = [](int count) {
        auto document = json{{"interfaces", json::array()}};
        char const* const hex = "0123456789ABCDEF";
        for (int i = 0; i < count; ++i) {
            std::string mac = "02:00:00:00:0";
            mac += {hex[i / 256], ':', hex[(i % 256) / 16], hex[i % 16]};
            document["interfaces"].push_back({{"name", "hci" + std::to_string(i)},
                                              {"addr", {{"type", "public"}, {"mac", mac}}}});
        }
        return document;
    };
    try {
        config::from_json(with_interfaces(700));
        FAIL() << "700 interfaces must be refused";
    } catch (std::runtime_error const& failure) {
        std::string const text = failure.what();
        EXPECT_EQ(text.substr(0, text.find(" would")), "interfaces: the handshake reply");
        EXPECT_NE(text.find("more than the 524288 a client accepts in one message"),
                  std::string::npos);
    }
    EXPECT_EQ(config::from_json(with_interfaces(100)).interfaces.size(), 100u);
}

// Events to a client that does not read drop it as a slow reader in the
// middle of a broadcast; its session's reservation ends there, and its
// connection goes on for the others.
TEST_F(HostileTest, AClientDroppedInTheMiddleOfTheEventsItCausedLeavesTheOthersServed) {
    auto good = connect(), bad = connect();
    good->bind("hci0");
    bad->bind("hci0");
    bad->ask("resvCreate", {{"type", "connection"}});
    json const peer = {{"type", "public"}, {"mac", "02:54:56:00:01:01"}};
    bad->ask("connOpen", {{"addr", peer}, {"resvId", 1}});
    loop->advance(1s);
    good->take_heard();
    loop->set_high_water_mark(4096);
    loop->pause_reading(bad->link, true);
    bt_ctrl::address const address(bt_ctrl::addr_type::public_address,
                                   utils::mac_address("02:54:56:00:01:01"));
    for (unsigned short mtu = 100; mtu < 200 && lines.empty(); ++mtu) {
        ctl->simulation()->peer_set_mtu(address, mtu);
        loop->run();
    }
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("slow reader"), std::string::npos) << lines[0];
    EXPECT_EQ(good->take_heard().back().substr(0, 8), "connMtu ");
    EXPECT_EQ(good->ask("freeResvsGet"), R"({"advertiser":1,"connection":1})");
    EXPECT_EQ(good->ask("connStatusGet", {{"connHandle", 1}}), R"({"status":"opened"})");
    loop->pause_reading(bad->link, false);
    loop->run();
    EXPECT_TRUE(bad->closed);
}

}  // namespace
}  // namespace zelvo::tavrin::sim::testing
