// What a peer does on its own, through the simulated radio, and the faults
// injected into the connection requests and their events.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "sim_client.hpp"
#include "tavrin/utils/mac_address.hpp"

namespace zelvo::tavrin::sim::testing {
namespace {

using repeat = controller::repeat;

bt_ctrl::address const accepting_peer{bt_ctrl::addr_type::public_address,
                                      utils::mac_address("02:54:56:00:01:01")};
bt_ctrl::address const absent_peer{bt_ctrl::addr_type::public_address,
                                   utils::mac_address("02:54:56:00:09:09")};
json const accepting = {{"type", "public"}, {"mac", "02:54:56:00:01:01"}};
json const absent = {{"type", "public"}, {"mac", "02:54:56:00:09:09"}};

class SimPeers : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        c = connect();
        c->bind("hci0");
    }
    // Opens a connection to the accepting peer and lets it open.
    void open() {
        c->ask("connOpen", {{"addr", accepting}});
        loop->advance(1s);
        c->take_heard();
    }
    simulated_radio& radio() { return *ctl->simulation(); }

    std::unique_ptr<client> c;
};

TEST_F(SimPeers, APeerChangesItsConnectionsAndEveryChangeIsAnEvent) {
    open();
    struct row {
        char const* what;
        std::function<bool()> act;
        strings heard;
    };
    for (
        auto const& r : std::vector<row>{
            {"mtu",
             [&] { return radio().peer_set_mtu(accepting_peer, 185); },
             {R"(connMtu {"connHandle":1,"connMtu":185})"}},
            {"mtu beyond the interface's",
             [&] { return radio().peer_set_mtu(accepting_peer, 600); },
             {R"(connMtu {"connHandle":1,"connMtu":517})"}},
            {"phy",
             [&] { return radio().peer_set_phy(accepting_peer, bt_ctrl::phy::coded); },
             {R"(connPhy {"connHandle":1,"connPhy":"coded"})"}},
            {"params",
             [&] {
                 return radio().peer_set_params(accepting_peer, {80, 100, 4, 600});
             },
             {R"(connParams {"connHandle":1,"connParams":{"intervalMax":100,"intervalMin":80,"latency":4,"timeout":600}})"}},
            {"signal",
             [&] {
                 return radio().peer_set_signal(accepting_peer, {12, -90});
             },
             {}},
            {"unknown peer", [&] { return !radio().peer_set_mtu(absent_peer, 100); }, {}},
        }) {
        SCOPED_TRACE(r.what);
        EXPECT_TRUE(r.act());
        loop->run();
        EXPECT_EQ(c->take_heard(), r.heard);
    }
    EXPECT_EQ((strings{c->ask("connMtuGet", {{"connHandle", 1}}),
                       c->ask("connPhyGet", {{"connHandle", 1}}),
                       c->ask("connSignalGet", {{"connHandle", 1}})}),
              (strings{R"({"connMtu":517})", R"({"connPhy":"coded"})",
                       R"({"signal":{"quality":12,"strength":-90}})"}));

    EXPECT_TRUE(radio().peer_disconnect(accepting_peer));
    loop->run();
    EXPECT_EQ(c->take_heard(), (strings{R"(connClosed {"connHandle":1,"reason":"unknown"})",
                                        R"(connsChanged {"connections":{},"maxConnections":2})",
                                        R"(freeResvsChanged {"advertiser":1,"connection":2})"}));
    EXPECT_FALSE(radio().peer_disconnect(absent_peer));
}

// A connection to an absent address starts when such a peer comes in reach;
// an open one closes when its peer goes.
TEST_F(SimPeers, APeerComingIntoReachIsConnectedAndOneGoingAwayEndsItsConnection) {
    c->ask("connOpen", {{"addr", absent}});
    loop->advance(60s);
    c->take_heard();
    peer arriving;
    arriving.address = absent_peer;
    arriving.accept_delay = 0s;
    arriving.mtu = 100;
    EXPECT_TRUE(radio().add_peer(arriving));
    loop->run();
    EXPECT_EQ(
        c->take_heard(),
        (strings{
            R"(connOpening {"connDirection":"outgoing","connHandle":1})",
            R"(connOpened {"connDirection":"outgoing","connHandle":1,"connMtu":100,"connPhy":"1m"})",
            R"(connParams {"connHandle":1,"connParams":{"intervalMax":40,"intervalMin":24,"latency":0,"timeout":500}})"}));
    EXPECT_TRUE(radio().remove_peer(absent_peer));
    EXPECT_FALSE(radio().remove_peer(absent_peer));
    loop->run();
    EXPECT_EQ(c->take_heard().front(), R"(connClosed {"connHandle":1,"reason":"unknown"})");

    // Gone before it answered, it is waited for; back, it answers.
    c->ask("connOpen", {{"addr", absent}});
    arriving.accept_delay = 1s;
    EXPECT_TRUE(radio().add_peer(arriving));
    loop->run();
    EXPECT_TRUE(radio().remove_peer(absent_peer));
    loop->advance(10s);
    EXPECT_EQ(c->ask("connStatusGet", {{"connHandle", 2}}), R"({"status":"opening"})");
    c->take_heard();
    EXPECT_TRUE(radio().add_peer(arriving));
    loop->advance(1s);
    EXPECT_EQ(c->take_heard().front().substr(0, 11), "connOpened ");
}

TEST_F(SimPeers, InjectedFaultsChangeTheRepliesAndEventsOfConnections) {
    struct row {
        char const* what;
        std::function<void()> inject;
        std::string reply;
        strings heard;  // the first events after the reply, up to three
    };
    std::string const pending = R"(connPending {"connDirection":"outgoing","connHandle":1})";
    std::string const queue = R"(connsChanged {"connections":{"1":{"piq":0}},"maxConnections":2})";
    std::string const counts = R"(freeResvsChanged {"advertiser":1,"connection":1})";
    std::string const opened = R"({"connHandle":1,"guaranteedTime":30,"status":"pending"})";
    for (auto const& r : std::vector<row>{
             {"fail",
              [&] {
                  ctl->fail_request("connOpen", ctrl_error::insufficient_resources, repeat::once);
              },
              "app 13",
              {}},
             {"malformed reply",
              [&] { ctl->malform_reply("connOpen", repeat::once); },
              "not json",
              {pending, queue, counts}},
             {"dropped event",
              [&] { ctl->drop_event("connPending", repeat::once); },
              opened,
              {queue, counts}},
             {"malformed event",
              [&] { ctl->malform_event("connsChanged", repeat::always); },
              opened,
              {pending, "connsChanged not json", counts}},
         }) {
        SCOPED_TRACE(r.what);
        restart();
        c = connect();
        c->bind("hci0");
        r.inject();
        EXPECT_EQ(c->ask("connOpen", {{"addr", absent}}), r.reply);
        auto const heard = c->take_heard();
        EXPECT_EQ(strings(heard.begin(), heard.begin() + std::min<std::size_t>(3, heard.size())),
                  r.heard);
    }
}

// A delayed reply holds back the events that follow it, as on one stream;
// a delayed event holds back what follows it.
TEST_F(SimPeers, DelayedRepliesAndEventsKeepTheirOrder) {
    ctl->delay_reply("connOpen", 5s, repeat::once);
    c->replies.clear();
    c->send("connOpen", {{"addr", accepting}});
    loop->advance(4s);
    EXPECT_TRUE(c->replies.empty());
    EXPECT_TRUE(c->heard.empty());
    loop->advance(1s);
    EXPECT_EQ(c->replies, strings{R"({"connHandle":1,"guaranteedTime":30,"status":"pending"})"});
    ASSERT_EQ(c->heard.size(), 6u);  // all held back, the opening one too
    EXPECT_EQ(c->heard[4].substr(0, 10), "connOpened");
    c->take_heard();

    ctl->delay_event("connMtu", 3s, repeat::once);
    radio().peer_set_mtu(accepting_peer, 100);
    loop->run();
    radio().peer_set_phy(accepting_peer, bt_ctrl::phy::coded);
    loop->advance(2s);
    EXPECT_EQ(c->take_heard(), strings{});
    loop->advance(1s);
    EXPECT_EQ(c->take_heard(), (strings{R"(connMtu {"connHandle":1,"connMtu":100})",
                                        R"(connPhy {"connHandle":1,"connPhy":"coded"})"}));
}

// A dropped reply still takes effect: the client never learns its handle,
// but the connection is there, and its events come.
TEST_F(SimPeers, ADroppedReplyLeavesTheConnectionInPlaceAndTheClientTimesOut) {
    ctl->drop_reply("connOpen", repeat::once);
    c->replies.clear();
    c->send("connOpen", {{"addr", accepting}}, 10s);
    loop->advance(9s);
    EXPECT_TRUE(c->replies.empty());
    loop->advance(2s);  // the client's timeout counts in whole ticks
    EXPECT_EQ(c->replies, strings{"exchange 2"});
    EXPECT_EQ(c->ask("connStatusGet", {{"connHandle", 1}}), R"({"status":"opened"})");
    EXPECT_EQ(c->heard.size(), 6u);
    EXPECT_EQ(c->ask("connOpen", {{"addr", accepting}}),
              R"({"connHandle":2,"guaranteedTime":30,"status":"pending"})");
}

TEST(SimPeerConfig, ABadPeerIsRefusedNamingItsKey) {
    auto const with = [](std::string const& peers) {
        return R"({"interfaces": [{"name": "hci0", "addr": {"type": "public", "mac": "02:00:00:00:00:01"}}], "peers": )" +
               peers + "}";
    };
    std::string const addr = R"("addr": {"type": "public", "mac": "02:00:00:00:00:10"})";
    struct row {
        std::string document, error;
    };
    for (auto const& r : std::vector<row>{
             {with("{}"), "peers: expected an array of peers"},
             {with("[5]"), "peers[0]: expected an object"},
             {with("[{}]"), "peers[0].addr: missing"},
             {with("[{" + addr + R"(, "range": 1}])"), "peers[0].range: unknown key"},
             {with("[{" + addr + R"(, "accepts": "yes"}])"),
              "peers[0].accepts: expected true or false"},
             {with("[{" + addr + R"(, "acceptAfter": 601}])"),
              "peers[0].acceptAfter: expected an integer from 0 to 600"},
             {with("[{" + addr + R"(, "phy": "3m"}])"),
              R"(peers[0].phy: expected one of "1m", "2m", "coded")"},
             {with("[{" + addr + R"(, "mtu": 22}])"),
              "peers[0].mtu: expected an integer from 23 to 517"},
             {with("[{" + addr + R"(, "signal": {"strength": -129}}])"),
              "peers[0].signal.strength: expected an integer from -128 to 127"},
             {with("[{" + addr + R"(, "signal": {"noise": 1}}])"),
              "peers[0].signal.noise: unknown key"},
             {with("[{" + addr + "}, {" + addr + "}]"),
              "peers[1].addr: a second peer at 02:00:00:00:00:10-public"},
         }) {
        std::string error = "no error";
        try {
            config::from_json(json::parse(r.document));
        } catch (std::runtime_error const& failure) {
            error = failure.what();
        }
        EXPECT_EQ(error, r.error) << r.document;
    }
    auto const loaded = config::from_json(json::parse(with(
        "[{" + addr +
        R"(, "accepts": false, "acceptAfter": 3, "phy": "coded", "mtu": 100, "signal": {"quality": 5}}])")));
    ASSERT_EQ(loaded.peers.size(), 1u);
    auto const& p = loaded.peers[0];
    EXPECT_EQ(std::make_tuple(p.accepts, p.accept_delay, p.phy, p.mtu, int(p.signal.quality),
                              int(p.signal.strength)),
              std::make_tuple(false, 3s, bt_ctrl::phy::coded, 100, 5, -60));
}

}  // namespace
}  // namespace zelvo::tavrin::sim::testing
