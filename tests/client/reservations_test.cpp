// Reservations against a scripted controller: the checks of the three
// operations and their order, the exact payloads, how each reply changes the
// set, a cancelled add, two removals in flight, replies that can't be read,
// the free counts and their notification, and handlers that call back or
// drop the client.
#include <gtest/gtest.h>

#include <array>
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
using reservation_ptr = std::shared_ptr<bt_ctrl::reservation const>;

client_id const some_id = std::array<unsigned char, 16>{9};

bt_ctrl::address const peer(bt_ctrl::addr_type::public_address,
                            utils::mac_address("02:00:00:00:00:09"));
bt_ctrl::address const nowhere;

class ReservationTest : public ScriptedTest {
protected:
    void SetUp() override {
        interface_caps = caps({{"adv", false}, {"conn", false}});
        answers["freeResvsGet"] = with({{"connection", 2}, {"advertiser", 1}});
        answers["resvsGet"] = with(json::object());
        answers["resvCreate"] = answers["resvRecreate"] = [this](json const&, responder const& r) {
            r.reply(quorl_utils::payload(json{{"resvId", next_id++}}));
        };
        answers["resvDestroy"] = with(json::object());
        start_scripted(some_id);
        ASSERT_EQ(heard.back(), "enabled");
        heard.clear();
    }

    // A handler of add or replace that notes "<what> #<id>: ok", or
    // "<what> null: <error>", and keeps the reservation in `*kept`.
    auto on_resv(std::string const& what, reservation_ptr* kept = nullptr) {
        return [this, what, kept](reservation_ptr const& got_one, std::error_code const& ec) {
            if (kept) {
                *kept = got_one;
            }
            std::string id = "null";
            if (got_one) {
                auto const known = id_of(got_one);
                id = known ? "#" + std::to_string(*known) : "unknown";
            }
            note(heard, what + " " + id + ": " + (ec ? ec.message() : "ok"));
        };
    }

    std::optional<unsigned short> id_of(reservation_ptr const& target) {
        return static_cast<impl::bt_ctrl&>(*client).get_reserv_id(target);
    }

    // A reservation the controller holds, made by add_reservation.
    reservation_ptr added(kind type = kind::connection) {
        reservation_ptr made;
        client->add_reservation(type, nowhere, "", on_resv("add", &made));
        loop->run();
        heard.clear();
        return made;
    }

    // The bodies of the requests of that name, in order.
    std::vector<json> bodies(std::string const& name) const {
        std::vector<json> found;
        for (auto const& one : got) {
            if (one.name == name) {
                found.push_back(one.body);
            }
        }
        return found;
    }

    unsigned next_id = 20;
};

// Refusals are posted, never delivered inside the call, and nothing is sent.
// The state is checked before the reservation, so an old reservation is
// refused for the state while the client is down and as unknown once it is
// up again.
TEST_F(ReservationTest, TheChecksRefuseOnALaterTurnInTheirOrder) {
    auto const old = added();
    auto const old_id = *id_of(old);
    auto const stranger = std::make_shared<bt_ctrl::reservation>();
    auto const attempt = [&](std::string const& what, reservation_ptr const& target) {
        client->replace_reservation(target, kind::advertiser, nowhere, "", on_resv(what));
        client->remove_reservation(target, on(what));
    };
    auto const sent_before = got.size();
    attempt("null", nullptr);
    attempt("stranger", stranger);
    EXPECT_TRUE(heard.empty());
    loop->run();
    std::string const unknown = "unknown resource reservation";
    EXPECT_EQ(heard, (strings{"null null: " + unknown, "null: " + unknown,
                              "stranger null: " + unknown, "stranger: " + unknown}));

    raw_end->close();
    loop->run();
    heard.clear();
    client->add_reservation(kind::connection, nowhere, "", on_resv("add"));
    attempt("old", old);
    EXPECT_TRUE(heard.empty());
    loop->run();
    std::string const down = "inappropriate state";
    EXPECT_EQ(heard, (strings{"add null: " + down, "old null: " + down, "old: " + down}));
    EXPECT_EQ(got.size(), sent_before);

    // The resync brings new objects, even for the same id.
    answers["resvsGet"] = with({{std::to_string(old_id), {{"type", "connection"}}}});
    loop->advance(3s);
    ASSERT_EQ(heard.back(), "enabled");
    EXPECT_FALSE(id_of(old));
    ASSERT_EQ(client->get_reservations().size(), 1u);
    heard.clear();
    attempt("old", old);
    loop->run();
    EXPECT_EQ(heard, (strings{"old null: " + unknown, "old: " + unknown}));
}

// "type" always; "addr" only for a known address; "context" only for a
// non-empty text. A replacement names the old id first.
TEST_F(ReservationTest, PayloadsCarryOnlyWhatIsGiven) {
    struct row {
        kind type;
        bt_ctrl::address target;
        std::string text;
        json fields;
    };
    json const peer_json = {{"type", "public"}, {"mac", "02:00:00:00:00:09"}};
    for (auto const& r :
         {row{kind::connection, nowhere, "", {{"type", "connection"}}},
          row{kind::advertiser, peer, "", {{"type", "advertiser"}, {"addr", peer_json}}},
          row{kind::connection,
              nowhere,
              "mine",
              {{"type", "connection"}, {"context", {{"customData", "mine"}}}}},
          row{kind::advertiser,
              peer,
              "x",
              {{"type", "advertiser"}, {"addr", peer_json}, {"context", {{"customData", "x"}}}}}}) {
        SCOPED_TRACE(r.fields.dump());
        got.clear();
        reservation_ptr made, replaced;
        client->add_reservation(r.type, r.target, r.text, on_resv("add", &made));
        loop->run();
        ASSERT_TRUE(made);
        EXPECT_EQ(std::tie(made->resource_type, made->address, made->custom_data),
                  std::tie(r.type, r.target, r.text));
        auto const old_id = *id_of(made);
        client->replace_reservation(made, r.type, r.target, r.text, on_resv("replace", &replaced));
        loop->run();
        ASSERT_TRUE(replaced);
        auto const new_id = *id_of(replaced);
        client->remove_reservation(replaced, on("remove"));
        loop->run();
        auto with_id = r.fields;
        with_id["resvId"] = old_id;
        EXPECT_EQ(bodies("resvCreate"), std::vector<json>{r.fields});
        EXPECT_EQ(bodies("resvRecreate"), std::vector<json>{with_id});
        json const destroy = {{"resvId", new_id}};
        EXPECT_EQ(bodies("resvDestroy"), std::vector<json>{destroy});
    }
}

// A refusal changes nothing: an add enters nothing, a replaced reservation
// stays, a removed one stays.
TEST_F(ReservationTest, RepliesChangeTheSetOnlyOnSuccess) {
    auto const first = added();
    auto const first_id = *id_of(first);
    answers["resvRecreate"] = refused(15);
    answers["resvDestroy"] = refused(17);
    answers["resvCreate"] = refused(13);
    client->add_reservation(kind::advertiser, peer, "", on_resv("add"));
    client->replace_reservation(first, kind::advertiser, peer, "", on_resv("replace"));
    client->remove_reservation(first, on("remove"));
    loop->run();
    EXPECT_EQ(heard, (strings{"add null: insufficient resources",
                              "replace null: unexpected resource type", "remove: busy resource"}));
    EXPECT_EQ(client->get_reservations(), bt_ctrl::reservation_set{first});
    EXPECT_EQ(id_of(first), first_id);

    heard.clear();
    answers["resvRecreate"] = with({{"resvId", 77}});
    reservation_ptr second;
    client->replace_reservation(first, kind::advertiser, peer, "new", on_resv("replace", &second));
    loop->run();
    EXPECT_EQ(heard, strings{"replace #77: ok"});
    EXPECT_EQ(client->get_reservations(), bt_ctrl::reservation_set{second});
    // The old object is unknown now but unchanged.
    EXPECT_FALSE(id_of(first));
    EXPECT_EQ(first->resource_type, kind::connection);
    EXPECT_EQ(second->custom_data, "new");

    answers["resvDestroy"] = with(json::object());
    client->remove_reservation(second, on("remove"));
    loop->run();
    EXPECT_EQ(heard.back(), "remove: ok");
    EXPECT_TRUE(client->get_reservations().empty());
}

// The reply is applied though nobody hears of it.
TEST_F(ReservationTest, ACancelledAddStillEntersTheSet) {
    client->add_reservation(kind::connection, peer, "", on_resv("add")).release();
    loop->run();
    EXPECT_TRUE(heard.empty());
    ASSERT_EQ(client->get_reservations().size(), 1u);
    EXPECT_EQ(id_of(*client->get_reservations().begin()), 20);
}

// Both go out; the second's error is told, and the set changes once.
TEST_F(ReservationTest, ASecondRemovalInFlightSendsAgainAndHearsTheControllersAnswer) {
    auto const target = added();
    answers.erase("resvDestroy");
    client->remove_reservation(target, on("first"));
    client->remove_reservation(target, on("second"));
    loop->run();
    auto const destroys = bodies("resvDestroy");
    ASSERT_EQ(destroys.size(), 2u);
    EXPECT_EQ(destroys[0], destroys[1]);
    got[got.size() - 2].reply->reply(quorl_utils::payload(json::object()));
    got[got.size() - 1].reply->fail(14);
    loop->run();
    EXPECT_EQ(heard, (strings{"first: ok", "second: unknown resource reservation"}));
    EXPECT_TRUE(client->get_reservations().empty());
}

// The exception leaves the reply's handler; the object enters nothing and
// the handler isn't called.
TEST_F(ReservationTest, ASuccessfulReplyWithoutAnIdThrowsAndEntersNothing) {
    auto const kept = added();
    answers["resvCreate"] = answers["resvRecreate"] = with(json::object());
    client->add_reservation(kind::connection, nowhere, "", on_resv("add"));
    EXPECT_THROW(loop->run(), std::exception);
    client->replace_reservation(kept, kind::connection, nowhere, "", on_resv("replace"));
    EXPECT_THROW(loop->run(), std::exception);
    loop->run();
    EXPECT_TRUE(heard.empty());
    EXPECT_EQ(client->get_reservations(), bt_ctrl::reservation_set{kept});
}

// Handlers may call back into the client, throw, or drop the client.
TEST_F(ReservationTest, HandlersMayCallBackThrowOrDropTheClient) {
    client->add_reservation(kind::connection, nowhere, "",
                            [this](reservation_ptr const& made, std::error_code const&) {
                                client->remove_reservation(made, on("removed from inside"));
                            });
    loop->run();
    EXPECT_EQ(heard, strings{"removed from inside: ok"});
    EXPECT_TRUE(client->get_reservations().empty());

    auto const target = added();
    throw_at = "throws";
    client->add_reservation(kind::connection, nowhere, "", on_resv("add throws"));
    client->replace_reservation(target, kind::connection, nowhere, "", on_resv("replace throws"));
    loop->run();
    client->remove_reservation(*client->get_reservations().begin(), on("remove throws"));
    loop->run();
    EXPECT_EQ(failures, (strings{"Failed response handler on adding reservation",
                                 "Failed response handler on replacing reservation",
                                 "Failed response handler on removing reservation"}));

    heard.clear();
    drop_at = "drops";
    client->add_reservation(kind::connection, nowhere, "", on_resv("drops"));
    client->add_reservation(kind::connection, nowhere, "", on_resv("after"));
    loop->run();
    EXPECT_FALSE(client);
    // The request still pending when the client went hears of it.
    EXPECT_EQ(heard, (strings{"drops #24: ok", "disabled", "after null: operation aborted"}));
}

// Stored in any state, told only when `enabled` and changed; a handler may
// disable the client, and later handlers still get the counts.
TEST_F(ReservationTest, FreeCountsAreStoredAlwaysAndToldWhenEnabledAndChanged) {
    EXPECT_EQ(client->get_free_reservation_cnt(),
              (counts{{kind::connection, 2}, {kind::advertiser, 1}}));
    std::vector<counts> told;
    client->notify_on_free_reservation_cnt_change([&](counts const& now) { told.push_back(now); });
    event("freeResvsChanged", {{"connection", 2}, {"advertiser", 1}});
    loop->run();
    EXPECT_TRUE(told.empty());
    event("freeResvsChanged", {{"connection", 2}, {"advertiser", 0}});
    loop->run();
    counts const changed{{kind::connection, 2}, {kind::advertiser, 0}};
    EXPECT_EQ(told, std::vector<counts>{changed});

    throw_at = "free";
    client->notify_on_free_reservation_cnt_change([this](counts const&) {
        client->disable();
        note(heard, "free");
    });
    client->notify_on_free_reservation_cnt_change([&](counts const& now) { told.push_back(now); });
    event("freeResvsChanged", {{"connection", 0}, {"advertiser", 0}});
    loop->run();
    counts const none{{kind::connection, 0}, {kind::advertiser, 0}};
    EXPECT_EQ(told, (std::vector<counts>{changed, none, none}));
    EXPECT_EQ(failures, strings{"Failed notification handler on free reservation count change"});
    EXPECT_TRUE(client->get_free_reservation_cnt().empty());
}

// During the sync the counts are stored and nobody is told.
TEST_F(ReservationTest, FreeCountsDuringTheSyncAreStoredSilently) {
    reset_script();
    answers.erase("freeResvsGet");
    start_scripted(some_id);
    std::vector<counts> told;
    client->notify_on_free_reservation_cnt_change([&](counts const& now) { told.push_back(now); });
    event("freeResvsChanged", {{"connection", 5}, {"advertiser", 4}});
    loop->run();
    EXPECT_EQ(client->get_state(), state::rebooting);
    EXPECT_EQ(client->get_free_reservation_cnt(),
              (counts{{kind::connection, 5}, {kind::advertiser, 4}}));
    reply("freeResvsGet", {{"connection", 1}, {"advertiser", 1}});
    loop->run();
    EXPECT_EQ(client->get_state(), state::enabled);
    EXPECT_EQ(client->get_free_reservation_cnt(),
              (counts{{kind::connection, 1}, {kind::advertiser, 1}}));
    EXPECT_TRUE(told.empty());
}

}  // namespace
}  // namespace zelvo::tavrin::testing
