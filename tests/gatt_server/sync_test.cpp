// The mirror: walks in any reply order, attributes gone mid-walk, failed
// walks, callers sharing walks, aborts and the update event.
#include "gatts_fixture.hpp"

namespace zelvo::tavrin::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SyncTest : public GattsTest {
protected:
    // Two primaries; 10 includes 30 directly, 20 through 40, so 30 has two
    // parents and is met a second time through 40.
    void SetUp() override {
        primaries = {10, 20};
        db[10] = {{"uuid", "180f"},
                  {"enabled", true},
                  {"includedServices", {30}},
                  {"includedChars", {11}}};
        db[11] = {{"uuid", "2a19"},
                  {"permissions", {"read"}},
                  {"properties", {"read", "notify"}},
                  {"includedDescriptors", {12}}};
        db[12] = {{"uuid", "2902"}, {"permissions", {"write", "read"}}};
        db[20] = {{"uuid", "1800"}, {"enabled", false}, {"includedServices", {40}}};
        db[40] = {{"uuid", "1801"}, {"enabled", true}, {"includedServices", {30}}};
        db[30] = {{"uuid", "ffe0"}, {"enabled", true}, {"includedChars", {31}}};
        db[31] = {{"uuid", "ffe1"}, {"permissions", {"write"}}, {"properties", {"write"}}};
        start_scripted();
        heard.clear();
    }

    static constexpr char const* full_tree =
        "S10(180f){S30(ffe0){C31(ffe1;write;write)}C11(2a19;read,notify;read){D12(2902;read,"
        "write)}}S20(1800,off){S40(1801){S30(ffe0){C31(ffe1;write;write)}}}";
};

TEST_F(SyncTest, WalkBuildsOneSharedSubtreeWhateverTheReplyOrder) {
    for (bool const reversed : {false, true}) {
        SCOPED_TRACE(reversed ? "newest first" : "oldest first");
        holding = true;
        mark = got.size();
        sync("sync");
        loop->run();
        release_held(reversed);
        EXPECT_THAT(heard, ElementsAre("sync: ok"));
        EXPECT_EQ(tree(), full_tree);
        auto const* shared = gatts().get_profile().find_service(30);
        ASSERT_TRUE(shared);
        EXPECT_EQ(shared->get_parents().size(), 2u);
        EXPECT_EQ(count("gattsCharGet", 31), 1);
        EXPECT_EQ(count("gattsPrimaryServicesGet", 0), 1);
        heard.clear();
    }
    // Answered as they come, 30 has arrived when 40 names it: no second read.
    holding = false;
    mark = got.size();
    sync("again");
    loop->run();
    EXPECT_THAT(heard, ElementsAre("again: ok"));
    EXPECT_EQ(tree(), full_tree);
    EXPECT_EQ(count("gattsServiceGet", 30), 1);
}

TEST_F(SyncTest, AttributeGoneMidWalkIsLeftOutButTheListOfPrimariesMayNotFail) {
    sync("first");
    loop->run();
    struct {
        std::string name;
        std::function<void(SyncTest&)> stage;
        std::string outcome;
        std::string tree;
    } const cases[] = {
        {"characteristic gone", [](SyncTest& t) { t.db.erase(31); }, "ok",
         "S10(180f){S30(ffe0)C11(2a19;read,notify;read){D12(2902;read,write)}}S20(1800,off){S40("
         "1801){S30(ffe0)}}"},
        {"service gone", [](SyncTest& t) { t.db.erase(20); }, "ok",
         "S10(180f){S30(ffe0){C31(ffe1;write;write)}C11(2a19;read,notify;read){D12(2902;read,"
         "write)}}"},
        {"primaries unknown",
         [](SyncTest& t) { t.answers["gattsPrimaryServicesGet"] = refused(31); },
         "gatt unknown handle", full_tree},
        {"other error", [](SyncTest& t) { t.answers["gattsDescGet"] = refused(38); },
         "gatt circular reference", full_tree},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        auto const saved_db = db;
        auto const saved_answers = answers;
        c.stage(*this);
        heard.clear();
        sync("sync");
        loop->run();
        ASSERT_EQ(heard.size(), 1u);
        EXPECT_THAT(heard[0], ::testing::HasSubstr(c.outcome));
        EXPECT_EQ(tree(), c.tree);
        db = saved_db;
        answers = saved_answers;
        sync("restore");
        loop->run();
    }
}

TEST_F(SyncTest, PropertyTextWithoutAnEnumeratorStopsThatCharacteristicOnly) {
    // Sorted, "writeNoResponse" comes last: "write" is kept, the descriptor
    // is never asked for, and the walk itself succeeds.
    db[31] = {{"uuid", "ffe1"},
              {"permissions", {"write"}},
              {"properties", {"writeNoResponse", "write"}},
              {"includedDescriptors", {32}}};
    db[32] = {{"uuid", "2902"}, {"permissions", {"read"}}};
    mark = got.size();
    sync("sync");
    EXPECT_THROW(loop->run(), std::logic_error);
    loop->run();
    EXPECT_THAT(heard, ElementsAre("sync: ok"));
    EXPECT_EQ(tree(), full_tree);
    EXPECT_EQ(count("gattsDescGet", 32), 0);
}

TEST_F(SyncTest, CallersDuringAWalkShareOneFurtherWalk) {
    holding = true;
    mark = got.size();
    auto const first = sync("first");
    auto const second = sync("second");
    auto const third = sync("third");
    // Already in its walk: can't be cancelled. Waiting: still can.
    EXPECT_FALSE(first.active());
    EXPECT_TRUE(second.active());
    auto cancelled = third;
    cancelled.release();
    loop->run();
    EXPECT_THAT(names(mark), ElementsAre("gattsPrimaryServicesGet"));
    release_held(false);
    EXPECT_THAT(heard, ElementsAre("first: ok", "second: ok"));
    EXPECT_EQ(count("gattsPrimaryServicesGet", 0), 2);
    EXPECT_FALSE(second.active());
}

TEST_F(SyncTest, HandlerThatSyncsAgainGetsANewWalkAndThrowsAreContained) {
    int rounds = 0;
    std::function<void(std::error_code const&)> again = [&](std::error_code const& ec) {
        note(heard, "round " + std::to_string(++rounds) + ": " + result(ec));
        if (rounds < 2) {
            gatts().sync(again);
        }
        throw std::runtime_error("from the application");
    };
    mark = got.size();
    gatts().sync(again);
    loop->run();
    EXPECT_THAT(heard, ElementsAre("round 1: ok", "round 2: ok"));
    EXPECT_EQ(count("gattsPrimaryServicesGet", 0), 2);
    EXPECT_THAT(failures, ElementsAre("Failed response handler on GATTS sync",
                                      "Failed response handler on GATTS sync"));
}

TEST_F(SyncTest, ClientDroppedByACallerEndsTheWaitingOnes) {
    sync("first");
    sync("second");
    drop_at = "first";
    loop->run();
    EXPECT_FALSE(client);
    EXPECT_THAT(heard, ElementsAre("first: ok", "second: bt_ctrl inappropriate state", "disabled"));
}

TEST_F(SyncTest, LeavingEnabledEndsWalksAndWaitersAndEmptiesTheMirror) {
    sync("first");
    loop->run();
    auto const& kept = gatts().get_profile();
    EXPECT_EQ(kept.get_primary_services().size(), 2u);
    // Stopped halfway: the primaries are in, their services asked for.
    holding = true;
    mark = got.size();
    sync("walking");
    sync("waiting");
    loop->run();
    reply("gattsPrimaryServicesGet", primaries);
    loop->run();
    EXPECT_EQ(count("gattsServiceGet", 20), 1);
    client->disable();
    EXPECT_THAT(heard, ElementsAre("first: ok", "walking: bt_ctrl inappropriate state",
                                   "waiting: bt_ctrl inappropriate state", "disabled"));
    EXPECT_THAT(gatts().get_profile().get_primary_services(), IsEmpty());

    // Refusals come on a later turn, and nothing is sent.
    heard.clear();
    mark = got.size();
    sync("disabled");
    EXPECT_THAT(heard, IsEmpty());
    loop->run();
    EXPECT_THAT(heard, ElementsAre("disabled: bt_ctrl inappropriate state"));
    EXPECT_EQ(got.size(), mark);
}

TEST_F(SyncTest, WithoutTheServerCapabilityEverySyncIsRefused) {
    reset_script();
    interface_caps = caps({{"gattSrv", false}});
    start_scripted();
    heard.clear();
    sync("sync");
    loop->run();
    EXPECT_THAT(heard, ElementsAre("sync: bt_ctrl unsupported functionality"));
    EXPECT_EQ(got.size(), mark);
}

TEST_F(SyncTest, UpdateEventsReachSubscribersOnlyWhenEnabledAndLeaveTheMirror) {
    sync("first");
    loop->run();
    heard.clear();
    auto const subscribe = [this](std::string const& who) {
        return gatts().notify_on_updated([this, who](std::set<unsigned> const& handles) {
            std::string text = who;
            for (auto const h : handles) {
                text += " " + std::to_string(h);
            }
            note(heard, text);
        });
    };
    auto const a = subscribe("a");
    auto const b = subscribe("b");
    throw_at = "a ";
    auto const before = got.size();
    event("gattsDbUpdated", {{"handles", {31, 12}}});
    loop->run();
    EXPECT_THAT(heard, ElementsAre("a 12 31", "b 12 31"));
    EXPECT_THAT(failures, ElementsAre("Failed notification handler on GATTS updated"));
    EXPECT_EQ(tree(), full_tree);
    EXPECT_EQ(got.size(), before);

    // While the client resyncs after a restart of the interface, updates are
    // dropped.
    heard.clear();
    throw_at.clear();
    answers.erase("connsGet");
    event("ifStatusChanged", {{"status", "rebooting"}});
    loop->run();
    event("ifStatusChanged", {{"status", "enabled"}});
    loop->run();
    event("gattsDbUpdated", {{"handles", {1}}});
    loop->run();
    reply("connsGet", {{"maxConnections", 4}, {"connections", json::object()}});
    loop->run();
    event("gattsDbUpdated", {{"handles", {2}}});
    loop->run();
    EXPECT_THAT(heard, ElementsAre("rebooting", "enabled", "a 2", "b 2"));
}

}  // namespace
}  // namespace zelvo::tavrin::testing
