// The sync against a scripted controller: which requests go out, in what
// order and all at once; what each reply fills; a refused or unreadable reply;
// the link lost while the sync runs; and what the application's state handler
// finds when the state leaves `enabled`.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "client/bt_ctrl.hpp"
#include "scripted_fixture.hpp"
#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/reservation.hpp"

namespace zelvo::tavrin::testing {
namespace {

using kind = bt_ctrl::reservation::type;
using counts = bt_ctrl::reservation_counts;

client_id const some_id = std::array<unsigned char, 16>{1, 2, 3};

// Replies to the sync's requests that a controller could give.
json good_reply(std::string const& name) {
    static std::map<std::string, json> const replies = {
        {"ifAddrGet", {{"addr", {{"type", "random"}, {"mac", "C2:54:56:00:00:02"}}}}},
        {"freeResvsGet", {{"connection", 2}, {"advertiser", 1}}},
        {"resvsGet",
         {{"7",
           {{"type", "Connection"},
            {"addr", {{"type", "public"}, {"mac", "02:00:00:00:00:07"}}},
            {"context", {{"customData", "mine"}}}}},
          {"65545", {{"type", "advertiser"}}},
          {"12", {{"type", "connection"}, {"context", json::object()}}}}},
        {"advsGet", {{"maxAdvertisers", 4}, {"advertisers", json::object()}}},
        {"connsGet", {{"maxConnections", 8}, {"connections", json::object()}}},
    };
    return replies.at(name);
}

strings const all_sync_requests = {"ifAddrGet", "freeResvsGet", "resvsGet", "advsGet", "connsGet"};

class SyncTest : public ScriptedTest {
protected:
    // A new scripted controller that answers every sync request well.
    void renew() {
        reset_script();
        answers.clear();
        interface_caps = caps();
        for (auto const& name : all_sync_requests) {
            answers[name] = with(good_reply(name));
        }
    }

    // The index of the first request after the handshake's.
    std::size_t after_handshake() const {
        for (std::size_t i = 0; i < got.size(); ++i) {
            if (got[i].name == "ifStatusGet") {
                return i + 1;
            }
        }
        return got.size();
    }

    long enabled_count() const { return std::count(heard.begin(), heard.end(), "enabled"); }

    impl::bt_ctrl& inside() { return static_cast<impl::bt_ctrl&>(*client); }
};

// All requests leave before any reply, with empty bodies, in one order; the
// state becomes `enabled` with the last reply, whatever order they come in.
TEST_F(SyncTest, TheSyncAsksInOneBurstForWhatIsThereToRead) {
    struct row {
        bool with_id, adv, conn, announced;
        strings expected;
    };
    for (auto const& r :
         {row{false, false, false, true, {}}, row{true, true, true, false, all_sync_requests},
          row{true, false, false, true, {"freeResvsGet", "resvsGet"}},
          row{false, true, false, true, {"advsGet"}},
          row{false, false, true, false, {"ifAddrGet", "connsGet"}}}) {
        SCOPED_TRACE(::testing::PrintToString(r.expected));
        renew();
        answers.clear();
        interface_caps = caps({{"adv", r.adv}, {"conn", r.conn}});
        auto const announced = interface_address;
        if (!r.announced) {
            interface_address = json();
        }
        start_scripted(r.with_id ? some_id : std::nullopt);
        interface_address = announced;
        auto const from = after_handshake();
        EXPECT_EQ(names(from), r.expected);
        for (auto i = from; i < got.size(); ++i) {
            EXPECT_EQ(got[i].body, json::object());
        }
        for (auto i = got.size(); i-- > from;) {
            EXPECT_EQ(enabled_count(), 0);
            got[i].reply->reply(quorl_utils::payload(good_reply(got[i].name)));
            loop->run();
        }
        EXPECT_EQ(enabled_count(), 1);
        EXPECT_EQ(heard.back(), "enabled");
    }
}

TEST_F(SyncTest, TheRepliesFillTheMirrors) {
    renew();
    interface_address = json();
    start_scripted(some_id);
    ASSERT_EQ(heard.back(), "enabled");
    EXPECT_EQ(client->get_address(), bt_ctrl::address(bt_ctrl::addr_type::random_address,
                                                      utils::mac_address("C2:54:56:00:00:02")));
    EXPECT_EQ(client->get_free_reservation_cnt(),
              (counts{{kind::connection, 2}, {kind::advertiser, 1}}));
    EXPECT_EQ(client->get_connection_max_cnt(), 8u);
    EXPECT_EQ(client->get_advertiser_max_cnt(), 4u);

    // Keys are ids in decimal, cut to 16 bits; addresses and texts optional.
    std::map<unsigned short, std::tuple<kind, std::string, std::string>> found;
    for (auto const& one : client->get_reservations()) {
        auto const id = inside().get_reserv_id(one);
        ASSERT_TRUE(id);
        found[*id] = {one->resource_type, one->address.to_string(), one->custom_data};
    }
    EXPECT_EQ(found, (decltype(found){{7, {kind::connection, "02:00:00:00:00:07-public", "mine"}},
                                      {9, {kind::advertiser, "00:00:00:00:00:00-unknown", ""}},
                                      {12, {kind::connection, "00:00:00:00:00:00-unknown", ""}}}));
}

// The failed step aborts the sync on that link: whatever the other replies
// do, `enabled` is not reached there. The next link syncs anew.
TEST_F(SyncTest, ARefusedSyncRequestDropsTheLinkAndTheNextLinkSyncsAgain) {
    for (auto const& refused_name : all_sync_requests) {
        SCOPED_TRACE(refused_name);
        renew();
        interface_address = json();
        answers[refused_name] = [this, refused_name](json const&, responder const& r) {
            if (accepted == 1) {
                r.fail(13);
            } else {
                r.reply(quorl_utils::payload(good_reply(refused_name)));
            }
        };
        start_scripted(some_id);
        EXPECT_EQ(heard, (strings{"rebooting", "enable: ok", "finish(hci0): ok"}));
        EXPECT_THAT(lines, Contains(HasSubstr("change state to closed")).Times(1));
        EXPECT_EQ(names(after_handshake()), all_sync_requests);
        loop->advance(3s);
        EXPECT_EQ(accepted, 2);
        EXPECT_EQ(heard.back(), "enabled");
        EXPECT_EQ(enabled_count(), 1);
        EXPECT_EQ(client->get_connection_max_cnt(), 8u);
    }
}

// A reply that can't be read leaves its handler with an exception; it is no
// refusal, so the sync still ends `enabled`, with what was read before it.
TEST_F(SyncTest, AnUnreadableSyncReplyThrowsAndTheSyncStillEnds) {
    renew();
    answers["resvsGet"] = with({{"1", {{"type", "connection"}}}, {"2", {{"type", "bogus"}}}});
    try {
        start_scripted(some_id);
        ADD_FAILURE() << "no exception";
    } catch (std::logic_error const& failure) {
        EXPECT_STREQ(failure.what(), "unknown reservation type [bogus]");
    }
    loop->run();
    EXPECT_EQ(heard.back(), "enabled");
    ASSERT_EQ(client->get_reservations().size(), 1u);
    EXPECT_EQ(inside().get_reserv_id(*client->get_reservations().begin()), 1);
}

// Mid-sync the state is `rebooting` already, so the loss changes no state;
// the pending reply is aborted with the bus, and that sync never ends well.
TEST_F(SyncTest, ALinkLostMidSyncNeverEndsThatSync) {
    renew();
    interface_address = json();
    answers.erase("connsGet");
    start_scripted(some_id);
    EXPECT_EQ(names(after_handshake()), all_sync_requests);
    raw_end->close();
    loop->run();
    EXPECT_EQ(enabled_count(), 0);
    EXPECT_EQ(heard, (strings{"rebooting", "enable: ok", "finish(hci0): ok"}));
    answers["connsGet"] = with(good_reply("connsGet"));
    loop->advance(3s);
    EXPECT_EQ(accepted, 2);
    EXPECT_EQ(enabled_count(), 1);
    EXPECT_EQ(heard.back(), "enabled");
}

// The client's state is not `enabled` until a sync ends, so a second
// "enabled" report while one runs starts another: every request goes out
// again, and each sync ends in the final call.
TEST_F(SyncTest, ASecondEnabledReportDuringTheSyncStartsASecondSync) {
    renew();
    answers.clear();
    start_scripted(some_id);
    auto const from = after_handshake();
    strings const once = {"freeResvsGet", "resvsGet", "advsGet", "connsGet"};
    EXPECT_EQ(names(from), once);
    event("ifStatusChanged", {{"status", "enabled"}});
    loop->run();
    auto twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(names(from), twice);
    for (auto i = from; i < got.size(); ++i) {
        got[i].reply->reply(quorl_utils::payload(good_reply(got[i].name)));
    }
    loop->run();
    EXPECT_EQ(enabled_count(), 2);
    EXPECT_EQ(client->get_state(), state::enabled);
    EXPECT_EQ(client->get_reservations().size(), 3u);
}

// The limits follow "connsChanged" and "advsChanged" in any state, even
// with the queue unchanged. An event that can't be read throws: the maximum,
// read first, is kept; free counts missing a kind change nothing.
TEST_F(SyncTest, LimitEventsKeepTheMaxima) {
    renew();
    answers.erase("advsGet");
    start_scripted(some_id);
    event("advsChanged", {{"maxAdvertisers", 6}, {"advertisers", json::object()}});
    loop->run();
    EXPECT_EQ(client->get_advertiser_max_cnt(), 6u);
    last("advsGet").reply->reply(quorl_utils::payload(good_reply("advsGet")));
    loop->run();
    ASSERT_EQ(heard.back(), "enabled");
    EXPECT_EQ(client->get_advertiser_max_cnt(), 4u);

    event("connsChanged", {{"maxConnections", 9}, {"connections", {{"3", {{"piq", 0}}}}}});
    loop->run();
    EXPECT_EQ(client->get_connection_max_cnt(), 9u);
    event("connsChanged", {{"maxConnections", 10}});
    EXPECT_THROW(loop->run(), std::exception);
    event("freeResvsChanged", {{"connection", 7}});
    EXPECT_THROW(loop->run(), std::exception);
    EXPECT_EQ(client->get_connection_max_cnt(), 10u);
    EXPECT_EQ(client->get_free_reservation_cnt(),
              (counts{{kind::connection, 2}, {kind::advertiser, 1}}));
}

// Objects learn of the loss before the tables go, and the application's
// state handler finds the mirrors empty, whether the link was lost or the
// application disabled the client.
TEST_F(SyncTest, TheStateHandlerFindsTheMirrorsEmptyWhenTheStateLeavesEnabled) {
    for (bool lost : {true, false}) {
        SCOPED_TRACE(lost ? "lost" : "disabled");
        renew();
        interface_address = json();
        start_scripted(some_id);
        ASSERT_EQ(heard.back(), "enabled");
        ASSERT_FALSE(client->get_reservations().empty());
        std::vector<bool> empty_when_told;
        auto watching = client->notify_on_state_change([&](state) {
            empty_when_told = {!client->get_address(), client->get_reservations().empty(),
                               client->get_free_reservation_cnt().empty(),
                               client->get_connection_max_cnt() == 0,
                               client->get_advertiser_max_cnt() == 0};
        });
        if (lost) {
            raw_end->close();
            loop->run();
        } else {
            client->disable();
        }
        EXPECT_EQ(heard.back(), lost ? "rebooting" : "disabled");
        EXPECT_EQ(empty_when_told, std::vector<bool>(5, true));
        watching.release();
    }
}

}  // namespace
}  // namespace zelvo::tavrin::testing
