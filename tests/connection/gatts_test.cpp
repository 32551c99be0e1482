// A connection's GATT server side against the scripted controller: which
// handler a peer's read or write reaches, what the registrations' links do,
// how the events are read, and what the answers and notifications send.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "conn_fixture.hpp"
#include "tavrin/bt_ctrl/connection_gatts.hpp"
#include "tavrin/misc/hex.hpp"

namespace zelvo::tavrin::testing {
namespace {

using gatts = bt_ctrl::connection::gatts;
using bytes = std::vector<unsigned char>;

// One of the four kinds of peer operation: its event, with the keys a full
// event has besides "connHandle" and "handle", and the three registrations,
// each with a handler that notes "<name> <arguments>".
struct kind {
    std::string event;
    json keys;
    std::function<utils::link(gatts&, unsigned int, std::function<void(std::string const&)>)>
        by_handle;
    std::function<utils::link(gatts&, gatts::predicate, std::function<void(std::string const&)>)>
        by_predicate;
    std::function<utils::link(gatts&, std::function<void(std::string const&)>)> by_default;
};

using note_fn = std::function<void(std::string const&)>;

std::string hex(bytes const& data) {
    return data.empty() ? "-" : misc::to_hex_string(data, "", true);
}

// The handler of a kind that notes its arguments as text.
template <typename Handler>
Handler noting(note_fn const& n);

template <>
gatts::read_handler noting(note_fn const& n) {
    return [n](unsigned int handle, unsigned int offset) {
        n(std::to_string(handle) + " @" + std::to_string(offset));
    };
}
template <>
gatts::characteristic_write_handler noting(note_fn const& n) {
    return [n](unsigned int handle, bytes const& data, unsigned int offset, bool response) {
        n(std::to_string(handle) + " " + hex(data) + " @" + std::to_string(offset) +
          (response ? " respond" : " quiet"));
    };
}
template <>
gatts::descriptor_write_handler noting(note_fn const& n) {
    return [n](unsigned int handle, bytes const& data, unsigned int offset) {
        n(std::to_string(handle) + " " + hex(data) + " @" + std::to_string(offset));
    };
}

// A kind from its event and its three registrations.
template <typename H>
kind make_kind(std::string const& event, json const& keys,
               utils::link (gatts::*exact)(unsigned int, H const&),
               utils::link (gatts::*selected)(gatts::predicate const&, H const&),
               utils::link (gatts::*fallback)(H const&)) {
    return {event, keys,
            [exact](gatts& g, unsigned int h, note_fn n) { return (g.*exact)(h, noting<H>(n)); },
            [selected](gatts& g, gatts::predicate p, note_fn n) {
                return (g.*selected)(p, noting<H>(n));
            },
            [fallback](gatts& g, note_fn n) { return (g.*fallback)(noting<H>(n)); }};
}

std::vector<kind> const& kinds() {
    using read = gatts::read_handler;
    using char_write = gatts::characteristic_write_handler;
    using desc_write = gatts::descriptor_write_handler;
    static std::vector<kind> const all = {
        make_kind<read>("gattsCharValueRead", {{"offset", 2}},
                        &gatts::set_characteristic_value_read_handler,
                        &gatts::set_characteristic_value_read_handler,
                        &gatts::set_characteristic_value_read_handler),
        make_kind<read>(
            "gattsDescValueRead", {{"offset", 2}}, &gatts::set_descriptor_value_read_handler,
            &gatts::set_descriptor_value_read_handler, &gatts::set_descriptor_value_read_handler),
        make_kind<char_write>("gattsCharValueWrite",
                              {{"offset", 2}, {"responseNeeded", false}, {"data", "0aff"}},
                              &gatts::set_characteristic_value_write_handler,
                              &gatts::set_characteristic_value_write_handler,
                              &gatts::set_characteristic_value_write_handler),
        make_kind<desc_write>("gattsDescValueWrite", {{"offset", 2}, {"data", "0aff"}},
                              &gatts::set_descriptor_value_write_handler,
                              &gatts::set_descriptor_value_write_handler,
                              &gatts::set_descriptor_value_write_handler),
    };
    return all;
}

class GattsTest : public ConnTest {
public:
    // An open connection under handle 7.
    void SetUp() override {
        start_scripted();
        conn = open(7);
        heard.clear();
    }

    note_fn noter(std::string const& name) {
        return [this, name](std::string const& what) { note(heard, name + " " + what); };
    }

    // A peer's operation of `k` on attribute `handle` of connection 7.
    void peer(kind const& k, unsigned int handle, std::string const& conn_handle = "7") {
        auto body = k.keys;
        body["connHandle"] = std::stoi(conn_handle);
        body["handle"] = handle;
        event(k.event, body);
    }

    gatts& server() { return conn->get_gatts(); }

    conn_ptr conn;
};

TEST_F(GattsTest, EachEventReachesExactlyOneHandlerOfItsKind) {
    for (auto const& k : kinds()) {
        SCOPED_TRACE(k.event);
        heard.clear();
        std::vector<utils::scoped_link> held;
        held.emplace_back(k.by_handle(server(), 5, noter("exact")));
        held.emplace_back(k.by_predicate(
            server(), [](unsigned int h) { return h >= 10; }, noter("first")));
        held.emplace_back(k.by_predicate(
            server(), [](unsigned int h) { return h >= 5; }, noter("second")));
        held.emplace_back(k.by_default(server(), noter("default")));
        // Handlers of the other kinds must not hear this kind's events.
        for (auto const& other : kinds()) {
            if (other.event != k.event) {
                held.emplace_back(other.by_default(server(), noter("wrong kind")));
            }
        }

        peer(k, 5);   // the exact handle beats every predicate
        peer(k, 12);  // both predicates accept: the earlier one runs
        peer(k, 6);   // only the second accepts
        peer(k, 1);   // nothing but the default
        held[1].release();
        peer(k, 12);  // the first released: the second takes it
        held[3].release();
        peer(k, 1);  // no default: nobody
        auto const args = k.event == "gattsCharValueWrite"   ? std::string(" 0AFF @2 quiet")
                          : k.event == "gattsDescValueWrite" ? std::string(" 0AFF @2")
                                                             : std::string(" @2");
        EXPECT_EQ(heard, (strings{"exact 5" + args, "first 12" + args, "second 6" + args,
                                  "default 1" + args, "second 12" + args}));
    }
}

TEST_F(GattsTest, ALinkFollowsItsHandlersLife) {
    auto const& read = kinds()[0];
    // A second registration for one handle replaces the first: the old link
    // is inactive, and its release leaves the new handler in place.
    auto first = read.by_handle(server(), 5, noter("first"));
    auto second = read.by_handle(server(), 5, noter("second"));
    EXPECT_FALSE(first.active());
    EXPECT_TRUE(second.active());
    first.release();
    peer(read, 5);
    // The same for the default slot.
    auto old_default = read.by_default(server(), noter("old default"));
    auto new_default = read.by_default(server(), noter("new default"));
    EXPECT_FALSE(old_default.active());
    old_default.release();
    peer(read, 9);
    // Dropping a link leaves its handler; releasing it removes the handler.
    read.by_predicate(
        server(), [](unsigned int h) { return h == 9; }, noter("kept"));
    peer(read, 9);
    second.release();
    new_default.release();
    EXPECT_FALSE(second.active());
    peer(read, 5);
    EXPECT_EQ(heard, (strings{"second 5 @2", "new default 9 @2", "kept 9 @2"}));

    // The object dies with its connection: the links go inactive, and a
    // release touches nothing.
    auto orphan = read.by_handle(server(), 3, noter("orphan"));
    conn.reset();
    loop->run();
    EXPECT_FALSE(orphan.active());
    orphan.release();
}

TEST_F(GattsTest, HandlersMayChangeTheRegistrationsWhileTheyRun) {
    auto const& write = kinds()[2];
    utils::link self;
    // A handler that releases its own link finishes normally; the next event
    // finds no handler.
    self = server().set_characteristic_value_write_handler(
        4, [&](unsigned int h, bytes const& data, unsigned int, bool) {
            self.release();
            note(heard, "once " + std::to_string(h) + " " + hex(data));
        });
    peer(write, 4);
    peer(write, 4);
    // A predicate that releases the handler behind it: the event goes on to
    // the default, and the list stays whole.
    utils::link behind;
    behind = server().set_characteristic_value_write_handler(
        [&](unsigned int) {
            behind.release();
            return true;
        },
        noting<gatts::characteristic_write_handler>(noter("released")));
    server().set_characteristic_value_write_handler(
        noting<gatts::characteristic_write_handler>(noter("default")));
    peer(write, 8);
    EXPECT_EQ(heard, (strings{"once 4 0AFF", "default 8 0AFF @2 quiet"}));
}

TEST_F(GattsTest, EventsAreReadWithTheirDefaults) {
    server().set_characteristic_value_read_handler(noting<gatts::read_handler>(noter("read")));
    server().set_characteristic_value_write_handler(
        noting<gatts::characteristic_write_handler>(noter("char write")));
    server().set_descriptor_value_write_handler(
        noting<gatts::descriptor_write_handler>(noter("desc write")));
    event("gattsCharValueRead", {{"connHandle", 7}, {"handle", 3}});
    event("gattsCharValueWrite", {{"connHandle", 7}, {"handle", 3}, {"data", ""}});
    event("gattsDescValueWrite", {{"connHandle", 7}, {"handle", 4}, {"data", "a0B1"}});
    // Unknown connections: dropped before any other key is read.
    event("gattsCharValueWrite", {{"connHandle", 8}});
    event("gattsDescValueRead", {{"connHandle", 8}, {"handle", "not a number"}});
    EXPECT_EQ(heard, (strings{"read 3 @0", "char write 3 - @0 respond", "desc write 4 A0B1 @0"}));

    // A known connection's event without its handle, or with data that
    // doesn't decode, leaves through the loop and calls no handler.
    ScriptedTest::event("gattsCharValueRead", {{"connHandle", 7}});
    EXPECT_ANY_THROW(loop->run());
    ScriptedTest::event("gattsCharValueWrite", {{"connHandle", 7}, {"handle", 3}, {"data", "0"}});
    EXPECT_ANY_THROW(loop->run());
    EXPECT_EQ(heard.size(), 3u);
}

TEST_F(GattsTest, ThrowingHandlersAreContainedWithTheirLevelsText) {
    server().set_characteristic_value_read_handler(
        1, [](unsigned int, unsigned int) { throw std::runtime_error("exact"); });
    server().set_characteristic_value_read_handler(
        [](unsigned int h) { return h == 2; },
        [](unsigned int, unsigned int) { throw std::runtime_error("selected"); });
    server().set_characteristic_value_read_handler(
        [](unsigned int, unsigned int) { throw std::runtime_error("default"); });
    for (unsigned int handle : {1, 2, 3}) {
        event("gattsCharValueRead", {{"connHandle", 7}, {"handle", handle}});
    }
    EXPECT_EQ(failures, (strings{"Failed to process GATTS (conn) primary handler",
                                 "Failed to process GATTS (conn) secondary handler",
                                 "Failed to process GATTS (conn) default handler"}));
    // A predicate is application code that isn't contained.
    server().set_descriptor_value_read_handler(
        [](unsigned int) -> bool { throw std::runtime_error("predicate"); },
        noting<gatts::read_handler>(noter("never")));
    ScriptedTest::event("gattsDescValueRead", {{"connHandle", 7}, {"handle", 1}});
    EXPECT_THROW(loop->run(), std::runtime_error);
    EXPECT_EQ(heard, strings{});
}

// The five sending operations: request, body and completion.
struct sending_case {
    std::string name;
    std::function<utils::link(gatts&, std::function<void(std::error_code const&)>)> call;
    std::string request;
    json body;
};

std::vector<sending_case> const& sending() {
    using error::gatt_proto;
    static bytes const data{0x0a, 0xff};
    static std::vector<sending_case> const all = {
        {"notify",
         [](gatts& g, auto h) {
             return g.send_notify_on_characteristic_value_change(9, true, data, h);
         },
         "gattsCharValueSetNotify",
         {{"connHandle", 7}, {"handle", 9}, {"data", "0AFF"}, {"responseNeeded", true}}},
        {"char read",
         [](gatts& g, auto h) {
             return g.respond_on_characteristic_value_read(9, data, gatt_proto::success, h);
         },
         "gattsCharValueReadResponse",
         {{"connHandle", 7}, {"handle", 9}, {"data", "0AFF"}, {"status", "success"}}},
        {"desc read",
         [](gatts& g, auto h) {
             return g.respond_on_descriptor_value_read(9, {}, gatt_proto::invalid_offset, h);
         },
         "gattsDescValueReadResponse",
         {{"connHandle", 7}, {"handle", 9}, {"data", ""}, {"status", "invalidOffset"}}},
        {"char write",
         [](gatts& g, auto h) {
             return g.respond_on_characteristic_value_write(9, gatt_proto::write_not_permitted, h);
         },
         "gattsCharValueWriteResponse",
         {{"connHandle", 7}, {"handle", 9}, {"status", "writeNotPermitted"}}},
        {"desc write",
         [](gatts& g, auto h) {
             return g.respond_on_descriptor_value_write(9, gatt_proto::unknown, h);
         },
         "gattsDescValueWriteResponse",
         {{"connHandle", 7}, {"handle", 9}, {"status", "unknown"}}},
    };
    return all;
}

TEST_F(GattsTest, AnswersAndNotificationsSendTheirBodies) {
    for (auto const& c : sending()) {
        SCOPED_TRACE(c.name);
        heard.clear();
        mark = got.size();
        c.call(server(), on_done(c.name));
        loop->run();
        ASSERT_EQ(sent(), strings{c.request + " " + c.body.dump()});
        EXPECT_EQ(heard, strings{});
        reply(c.request, json::object());
        loop->run();
        // A refusal maps to the error of its code; a released link keeps
        // the handler from running.
        c.call(server(), on_done(c.name));
        loop->run();
        fail(c.request, 19);
        auto released = c.call(server(), on_done(c.name));
        released.release();
        loop->run();
        reply(c.request, json::object());
        loop->run();
        EXPECT_EQ(heard, (strings{c.name + ": ok", c.name + ": gatt bad value size"}));
    }
}

TEST_F(GattsTest, StatusWordsCoverEveryValue) {
    strings words;
    for (int value = 0; value <= 24; ++value) {
        server().respond_on_characteristic_value_write(1, static_cast<error::gatt_proto>(value),
                                                       nullptr);
        loop->run();
        words.push_back(last("gattsCharValueWriteResponse").body.at("status"));
    }
    EXPECT_EQ(words, (strings{"success",
                              "invalidHandle",
                              "readNotPermitted",
                              "writeNotPermitted",
                              "invalidPdu",
                              "insufficientAuthentication",
                              "requestNotSupported",
                              "invalidOffset",
                              "insufficientAuthorization",
                              "prepareQueueFull",
                              "attributeNotFound",
                              "attributeNotLong",
                              "insufficientEncryptionKeySize",
                              "invalidAttributeValueLength",
                              "unlikelyError",
                              "insufficientEncryption",
                              "unsupportedGroupType",
                              "insufficientResources",
                              "databaseOutOfSync",
                              "valueNotAllowed",
                              "writeRequestRejected",
                              "cccdImproperlyConfigured",
                              "procedureAlreadyInProgress",
                              "outOfRange",
                              "unknown"}));
    // Above the table: thrown to the caller, nothing sent.
    mark = got.size();
    auto const unknown = ::testing::ThrowsMessage<std::logic_error>("Unknown GATT proto error");
    EXPECT_THAT(
        [&] { server().respond_on_descriptor_value_read(1, {}, error::gatt_proto(25), nullptr); },
        unknown);
    EXPECT_THAT(
        [&] { server().respond_on_characteristic_value_write(1, error::gatt_proto(99), nullptr); },
        unknown);
    EXPECT_EQ(sent(), strings{});
}

TEST_F(GattsTest, SendingIsRefusedOnTheLoopUnlessOpenWithAGattServer) {
    auto const sends_all = [this](gatts& target, std::string const& tag) {
        for (auto const& c : sending()) {
            c.call(target, on_done(tag + " " + c.name));
        }
        EXPECT_EQ(heard, strings{}) << "refused inside the call";
        loop->run();
    };
    // A connection that isn't open: the connection's state error, even for
    // a status the table lacks, which is not looked at then.
    auto const closed = client->create_connection();
    sends_all(closed->get_gatts(), "closed");
    closed->get_gatts().respond_on_characteristic_value_write(1, error::gatt_proto(30),
                                                              on_done("closed"));
    loop->run();
    EXPECT_EQ(heard.size(), 6u);
    EXPECT_THAT(heard, ::testing::Each(::testing::EndsWith("connection inappropriate state")));
    heard.clear();

    // An interface without a GATT server: sending is refused, while
    // registering and routing work.
    reset_script();
    interface_caps = caps({{"gattSrv", false}});
    start_scripted();
    conn = open(7);
    heard.clear();
    server().set_characteristic_value_read_handler(noting<gatts::read_handler>(noter("read")));
    event("gattsCharValueRead", {{"connHandle", 7}, {"handle", 3}});
    EXPECT_EQ(heard, strings{"read 3 @0"});
    heard.clear();
    mark = got.size();
    sends_all(server(), "no server");
    EXPECT_THAT(heard, ::testing::Each(::testing::EndsWith("bt_ctrl unsupported functionality")));
    EXPECT_EQ(heard.size(), 5u);
    EXPECT_EQ(sent(), strings{});
}

TEST_F(GattsTest, AThrowingCompletionIsContainedWithItsText) {
    throw_at = "ok";
    server().respond_on_characteristic_value_read(1, {}, error::gatt_proto::success, on_done("a"));
    server().respond_on_descriptor_value_write(1, error::gatt_proto::success, on_done("b"));
    server().send_notify_on_characteristic_value_change(1, false, {}, on_done("c"));
    loop->run();
    for (auto const* name :
         {"gattsCharValueReadResponse", "gattsDescValueWriteResponse", "gattsCharValueSetNotify"}) {
        reply(name, json::object());
    }
    loop->run();
    EXPECT_EQ(failures,
              (strings{"Failed response handler on responding on GATTS (conn) ATT value read",
                       "Failed response handler on responding on GATTS (conn) ATT value write",
                       "Failed response handler on sending GATTS (conn) chara value change"}));
}

}  // namespace
}  // namespace zelvo::tavrin::testing
