// The bus's two endpoints through their public faces: first the byte stream a
// quorl or quorl_server reads and writes, fed by hand; then exchanges between
// the two over the test loop's in-memory connection.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "quorl/quorl.hpp"
#include "quorl/server.hpp"
#include "tavrin/adapters/test_loop.hpp"

namespace zelvo {
namespace {

using namespace std::chrono_literals;
using bytes = std::vector<unsigned char>;
using strings = std::vector<std::string>;
using quorl_utils::app_error;
using quorl_utils::exchange_error;
using quorl_utils::local_error;
using quorl_utils::remote_error;
using stravik_part_payload::format;
using tavrin::adapters::test_loop;

constexpr unsigned roomy = 524288;  // the client library's limits

// "space code", or "-" for no error.
std::string said(quorl_utils::error const& e) {
    if (!e) {
        return "-";
    }
    auto const& t = e.type();
    std::string const space = t == typeid(exchange_error) ? "exchange "
                              : t == typeid(app_error)    ? "app "
                              : t == typeid(local_error)  ? "local "
                              : t == typeid(remote_error) ? "remote "
                                                          : "? ";
    return space + std::to_string(e.code());
}

// The format, then the bytes: as text for JSON, in hex otherwise.
std::string show(format f, bytes const& b) {
    std::string text = f == format::none ? "none" : f == format::raw ? "raw" : "json";
    text += b.empty() ? "" : " ";
    if (f == format::json) {
        return text + std::string(b.begin(), b.end());
    }
    for (unsigned char c : b) {
        text += "0123456789abcdef"[c >> 4];
        text += "0123456789abcdef"[c & 15];
    }
    return text;
}

// "first_error second_error payload" on one line, so that whole sequences of
// outcomes compare at once.
std::string outcome(quorl::resp_ctx const& r) {
    return said(r.first_error) + " " + said(r.second_error) + " " + show(r.format, r.payload);
}

bytes join(std::initializer_list<bytes> parts) {
    bytes all;
    for (auto const& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

// One frame in the wire layout, written out here apart from the bus's own
// encoder, so that a fault shared by its encoder and decoder can't cancel out.
enum : unsigned char { request = 1, response = 2, event = 3, error_frame = 4 };
enum : unsigned char { app_status = 1, exchange_status = 2 };

bytes make(unsigned char kind, std::uint32_t id, std::string const& name, bytes const& payload = {},
           format f = format::none, unsigned char space = 0, std::int32_t code = 0) {
    bytes out{0x51, 4, kind, static_cast<unsigned char>(f)};
    // id; status space, reserved byte and name length; status code; payload length
    for (std::uint32_t field : {id, std::uint32_t(space) << 24 | std::uint32_t(name.size()),
                                std::uint32_t(code), std::uint32_t(payload.size())}) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            out.push_back(static_cast<unsigned char>(field >> shift));
        }
    }
    out.insert(out.end(), name.begin(), name.end());
    return join({out, payload});
}

bytes patched(bytes frame, std::size_t at, unsigned char value) {
    frame.at(at) = value;
    return frame;
}

bytes tick(unsigned char n) {
    return make(event, 0, "tick", {n}, format::raw);
}

// Feeds a stream in chunks of at most `chunk` bytes.
template <typename End>
void feed(End& end, bytes const& s, std::size_t chunk = SIZE_MAX, bool end_of_stream = false) {
    std::size_t at = 0;
    do {
        std::size_t const n = std::min(chunk, s.size() - at);
        end.receive(bytes(s.begin() + at, s.begin() + at + n), end_of_stream && at + n == s.size(),
                    roomy, roomy);
        at += n;
    } while (at < s.size());
}

// A quorl fed by hand: what it writes is kept, what it reports is traced.
struct fed {
    std::shared_ptr<test_loop> loop = test_loop::create();
    bytes wrote;
    strings trace, errors;
    quorl client{loop, [this](bytes const& b) { wrote.insert(wrote.end(), b.begin(), b.end()); }};

    fed() {
        client.set_error_handler([this](auto const& c) { errors.push_back(said(c->error)); });
        client.set_event_handler("tick", [this](auto const& e) {
            trace.push_back(e->name + " " + show(e->format, e->payload));
        });
    }
};

TEST(BusStream, EverySplitOfTheStreamGivesTheSameCallsInTheSameOrder) {
    strings const client_saw{"tick raw 01", "b - - raw 0908", "a - app 7 none", "tick json []",
                             "c exchange 4 - none"};
    strings const server_saw{"get raw 0203", "note json {} unanswerable"};
    for (std::size_t chunk : {1, 2, 19, 20, 21, 4096}) {
        SCOPED_TRACE(chunk);
        fed f;
        for (std::string name : {"a", "b", "c"}) {
            auto const traced = [&f, name](auto const& r) {
                f.trace.push_back(name + " " + outcome(*r));
            };
            f.client.send({name, {}}, traced, true, 0s);
        }
        // Each request frame is 21 bytes; its id is the client's choice.
        std::map<std::string, std::uint32_t> ids;
        for (std::size_t at = 0; at + 21 <= f.wrote.size(); at += 21) {
            ids[std::string(1, char(f.wrote[at + 20]))] =
                std::uint32_t(f.wrote[at + 4]) << 24 | std::uint32_t(f.wrote[at + 5]) << 16 |
                std::uint32_t(f.wrote[at + 6]) << 8 | f.wrote[at + 7];
        }
        ASSERT_EQ(f.wrote, join({make(request, ids["a"], "a"), make(request, ids["b"], "b"),
                                 make(request, ids["c"], "c")}));
        // Replies out of order, in each status space, and an event nobody wants.
        feed(f.client,
             join({tick(1), make(response, ids["b"], "", {9, 8}, format::raw),
                   make(response, ids["a"], "", {}, format::none, app_status, 7),
                   make(event, 0, "other", {2}, format::raw),
                   make(event, 0, "tick", {'[', ']'}, format::json),
                   make(response, ids["c"], "", {}, format::none, exchange_status, 4)}),
             chunk);
        EXPECT_EQ(f.trace, client_saw);

        strings served;
        bytes answers;
        quorl_server server(
            f.loop, [&](bytes const& b) { answers.insert(answers.end(), b.begin(), b.end()); });
        auto const echo = [&](auto const& q, auto const& r) {
            bool const sent = r.reply(quorl_utils::payload(bytes(q->payload), q->format));
            served.push_back(q->name + " " + show(q->format, q->payload) +
                             (sent ? "" : " unanswerable"));
        };
        server.set_request_handler("get", echo);
        server.set_request_handler("note", echo);
        feed(server,
             join({make(request, 5, "get", {2, 3}, format::raw),
                   make(request, 0, "note", {'{', '}'}, format::json), make(request, 6, "nope")}),
             chunk);
        EXPECT_EQ(served, server_saw);
        EXPECT_EQ(answers, join({make(response, 5, "", {2, 3}, format::raw),
                                 make(response, 6, "", {}, format::none, exchange_status, 4)}));
    }
}

TEST(BusStream, BrokenLimitsAndMalformedFramesStopReadingAndAreToldToThePeer) {
    struct row {
        char const* what;
        bytes offending;
        std::size_t cut;  // how much of it comes in the first chunk
        unsigned max_message, max_buffer;
        std::optional<local_error> fault;
    };
    bytes const bulk = make(event, 0, "bulk", bytes(100, 7), format::raw);  // 124 bytes
    bytes const bad = make(event, 0, "bulk", {1}, format::raw);
    auto const malformed = [](char const* what, bytes frame) {
        return row{what, std::move(frame), SIZE_MAX, roomy, roomy, local_error::malformed_frame};
    };
    std::vector<row> const rows{
        {"over max_message, seen from the header", bulk, 20, 123, roomy,
         local_error::message_too_large},
        {"exactly max_message", bulk, SIZE_MAX, 124, roomy, std::nullopt},
        {"partial frame over max_buffer", bulk, 60, roomy, 59, local_error::buffer_overflow},
        {"partial frame of exactly max_buffer", bulk, 60, roomy, 60, std::nullopt},
        malformed("bad magic", patched(bad, 0, 0x52)),
        malformed("other version", patched(bad, 1, 3)),
        malformed("kind 0", patched(bad, 2, 0)),
        malformed("kind 5", patched(bad, 2, 5)),
        malformed("unknown format", patched(bad, 3, 3)),
        malformed("bytes tagged none", patched(bad, 3, 0)),
        malformed("reserved byte set", patched(bad, 9, 1)),
        malformed("request without a name", make(request, 1, "")),
        malformed("response with a name", make(response, 1, "x")),
        malformed("response to id 0", make(response, 0, "")),
        malformed("unknown status space", make(response, 1, "", {}, format::none, 3, 1)),
        malformed("refusal with a payload", make(response, 1, "", {1}, format::raw, app_status, 7)),
        // Only the answering end's own exchange codes may arrive: a peer
        // can't claim that the exchange was aborted or timed out.
        malformed("peer claims aborted",
                  make(response, 1, "", {}, format::none, exchange_status, 1)),
        malformed("peer claims a timeout",
                  make(response, 1, "", {}, format::none, exchange_status, 2)),
        malformed("error frame with an unknown code",
                  make(error_frame, 0, "", {}, format::none, 0, 77)),
    };
    for (auto const& r : rows) {
        SCOPED_TRACE(r.what);
        fed f;
        bytes const& whole = r.offending;
        auto const cut = whole.begin() + std::min(r.cut, whole.size());
        f.client.receive(join({tick(1), bytes(whole.begin(), cut)}), false, r.max_message,
                         r.max_buffer);
        EXPECT_TRUE(f.errors.empty());  // reported on a later turn only
        f.loop->run();
        strings const fault = r.fault ? strings{said(*r.fault)} : strings{};
        EXPECT_EQ(f.errors, fault);
        // After a fault nothing more is read.
        f.client.receive(join({bytes(cut, whole.end()), tick(2)}), false, r.max_message,
                         r.max_buffer);
        f.loop->run();
        EXPECT_EQ(f.errors, fault);
        EXPECT_EQ(f.trace,
                  (r.fault ? strings{"tick raw 01"} : strings{"tick raw 01", "tick raw 02"}));

        int const code = r.fault ? static_cast<int>(*r.fault) : 0;
        EXPECT_EQ(f.wrote, r.fault ? make(error_frame, 0, "", {}, format::none, 0, code) : bytes());
        fed peer;
        feed(peer.client, f.wrote);
        peer.loop->run();
        EXPECT_EQ(peer.errors,
                  r.fault ? strings{said(static_cast<remote_error>(code))} : strings{});
    }
}

TEST(BusStream, AStreamEndingInsideAFrameIsReportedAsTruncated) {
    bytes const whole = tick(1);
    struct row {
        bytes before, last;  // `last` comes with the end of the stream
        std::size_t ticks;
        bool truncated;
    };
    for (auto const& r :
         {row{bytes(whole.begin(), whole.begin() + 10), {}, 0, true},
          row{{}, bytes(whole.begin(), whole.end() - 1), 0, true},
          row{whole, bytes(whole.begin(), whole.begin() + 1), 1, true}, row{whole, {}, 1, false}}) {
        fed f;
        feed(f.client, r.before);
        feed(f.client, r.last, SIZE_MAX, true);
        EXPECT_TRUE(f.errors.empty());
        f.loop->run();
        EXPECT_EQ(f.trace.size(), r.ticks);
        EXPECT_EQ(f.errors, r.truncated ? strings{"local 4"} : strings{});
    }
}

TEST(BusStream, ARefusedWriteIsReportedAndItsRequestEndsNotSent) {
    auto const loop = test_loop::create();
    strings trace, errors;
    quorl client(loop, [](bytes const&) { return false; });
    client.set_error_handler([&](auto const& c) { errors.push_back(said(c->error)); });
    for (bool const expect_reply : {true, false}) {
        std::string const name = expect_reply ? "a" : "b";
        client.send(
            {name, {}}, [&, name](auto const& r) { trace.push_back(name + " " + outcome(*r)); },
            expect_reply, 0s);
    }
    EXPECT_TRUE(trace.empty() && errors.empty());
    loop->run();
    EXPECT_EQ(trace, (strings{"a exchange 3 - none", "b exchange 3 - none"}));
    EXPECT_EQ(errors, (strings{"local 3", "local 3"}));

    quorl_server server(loop, [](bytes const&) { return false; });
    server.set_error_handler([&](auto const& c) { errors.push_back(said(c->error)); });
    bool replied = true;
    server.set_request_handler("get", [&](auto const&, auto const& r) { replied = r.reply({}); });
    EXPECT_FALSE(server.send_event("tick", {}));
    feed(server, make(request, 1, "get"));
    loop->run();
    EXPECT_FALSE(replied);
    // One for the event, one for the reply; the spent responder adds none.
    EXPECT_EQ(errors, strings(4, "local 3"));
}

TEST(BusStream, AReplyCheckSetAfterASendStillSeesItsOutcome) {
    auto const loop = test_loop::create();
    strings trace;
    quorl client(loop, [](bytes const&) { return false; });
    client.send(
        {"a", {}}, [&](auto const& r) { trace.push_back("a " + outcome(*r)); }, true, 0s);
    client.set_reply_check_handler([&](auto const& r) {
        trace.push_back("check " + r->request_name + " " + said(r->error));
        return true;
    });
    loop->run();
    EXPECT_EQ(trace, (strings{"check a exchange 3", "a exchange 3 - none"}));
}

TEST(BusStream, AThrowingReplyCheckStillLetsTheHandlerRunOnALaterTurn) {
    auto const loop = test_loop::create();
    strings trace;
    quorl client(loop, [](bytes const&) { return false; });
    client.set_reply_check_handler([](auto const&) -> bool { throw std::runtime_error("check"); });
    client.send(
        {"a", {}}, [&](auto const& r) { trace.push_back("a " + outcome(*r)); }, true, 0s);
    EXPECT_THROW(loop->run(), std::runtime_error);
    loop->run();
    EXPECT_EQ(trace, (strings{"a exchange 3 - none"}));
}

TEST(BusStream, ASubscriptionHoldingItsOwnLinkIsFreedWhenReleased) {
    auto const loop = test_loop::create();
    std::weak_ptr<int> watched;
    {
        quorl client(loop, [](bytes const&) {});
        auto const token = std::make_shared<int>(0);
        watched = token;
        auto own = std::make_shared<quorl_utils::link>();
        *own = client.set_event_handler("tick", [own, token](auto const&) { own->release(); });
        feed(client, tick(1));
        own.reset();
    }
    loop->run();
    EXPECT_TRUE(watched.expired());  // the handler, and what it captured, are gone
}

TEST(BusStream, AThrowingHandlerLeavesReceiveAndTheMessagesBehindItFollowOnce) {
    fed f;
    f.client.set_event_handler("boom", [&](auto const&) {
        f.trace.push_back("boom");
        throw std::runtime_error("handler failed");
    });
    EXPECT_THROW(feed(f.client, join({tick(1), make(event, 0, "boom"), tick(2), tick(3)})),
                 std::runtime_error);
    EXPECT_EQ(f.trace, (strings{"tick raw 01", "boom"}));
    // Bytes received before the continuation runs queue behind the rest.
    feed(f.client, tick(4));
    strings const all{"tick raw 01", "boom", "tick raw 02", "tick raw 03", "tick raw 04"};
    EXPECT_EQ(f.trace, all);
    f.loop->run();
    EXPECT_EQ(f.trace, all);
    // Here the continuation alone carries on.
    EXPECT_THROW(feed(f.client, join({make(event, 0, "boom"), tick(5)})), std::runtime_error);
    f.loop->run();
    EXPECT_EQ(f.trace.size(), 7u);
    EXPECT_EQ(f.trace.back(), "tick raw 05");
}

// Feeds what a connection receives to an end, while the end lives.
template <typename End>
std::function<void(bytes const&)> into(std::unique_ptr<End> const& end) {
    return [&end](bytes const& b) {
        if (end) {
            end->receive(b, false, roomy, roomy);
        }
    };
}

// A quorl and a quorl_server joined by the test loop's in-memory connection,
// as the client library and its controller are.
class BusExchange : public ::testing::Test {
protected:
    BusExchange() {
        listening = loop->listen(host, 7001, [this](auto const& accepted) {
            server_end = accepted;
            accepted->set_receive_handler(into(server));
        });
        client_end->set_receive_handler(into(client));
        client_end->connect(host, 7001);
        loop->run();
    }

    // Sends a request whose outcome is traced as "name outcome".
    quorl_utils::link ask(std::string const& name, std::chrono::seconds timeout = 0s,
                          quorl_utils::payload const& body = {}) {
        return client->send(
            {name, body},
            [this, name](auto const& r) { trace.push_back(name + " " + outcome(*r)); }, true,
            timeout);
    }
    // Requests with no handler of their own wait for the test to answer.
    void hold_all() {
        server->set_fallback_handler([this](auto const&, auto const& r) { held.push_back(r); });
    }

    std::shared_ptr<test_loop> loop = test_loop::create();
    tavrin::utils::ip_address const host{"127.0.0.1"};
    tavrin::utils::link listening;
    std::shared_ptr<tavrin::utils::connection> server_end;
    std::shared_ptr<tavrin::utils::tcp_connection> client_end = loop->create_tcp_connection();
    std::unique_ptr<quorl> client =
        std::make_unique<quorl>(loop, [this](bytes const& b) { return client_end->send(b); });
    std::unique_ptr<quorl_server> server = std::make_unique<quorl_server>(
        loop, [this](bytes const& b) { return server_end->send(b); });
    strings trace;
    std::vector<quorl_server::responder> held;
};

TEST_F(BusExchange, TheServersAnswerReachesTheRequester) {
    server->set_request_handler("echo", [](auto const& q, auto const& r) {
        EXPECT_TRUE(r.reply(quorl_utils::payload(bytes(q->payload), q->format)));
    });
    server->set_request_handler("refuse",
                                [](auto const&, auto const& r) { EXPECT_TRUE(r.fail(-7)); });
    server->set_request_handler("drop", [](auto const&, auto const&) {});
    server->set_request_handler("later", [this](auto const&, auto const& r) {
        loop->post([r] { r.reply(quorl_utils::payload(bytes{5}, format::raw)); });
    });
    server->set_request_handler("twice", [](auto const&, auto const& r) {
        EXPECT_TRUE(r.reply({}));
        EXPECT_FALSE(r.reply({}));
        EXPECT_FALSE(r.fail(1));
        EXPECT_TRUE(r.answered());
    });
    ask("echo", 0s, quorl_utils::payload(nlohmann::json{{"k", 1}}));
    for (char const* name : {"refuse", "missing", "drop", "later", "twice"}) {
        ask(name);
    }
    loop->run();
    EXPECT_EQ(trace, (strings{"echo - - json {\"k\":1}", "refuse - app -7 none",
                              "missing exchange 4 - none", "drop exchange 5 - none",
                              "twice - - none", "later - - raw 05"}));
}

TEST_F(BusExchange, ARequestTimesOutAfterItsTimeoutAndItsLateReplyIsDropped) {
    hold_all();
    struct row {
        std::chrono::seconds default_timeout, timeout, expiry;
    };
    // The built-in default comes first: later rows change it.
    for (auto const& r :
         {row{0s, 0s, 45s}, row{0s, 10s, 10s}, row{5s, 0s, 5s}, row{5s, 20s, 20s}}) {
        SCOPED_TRACE(r.expiry.count());
        if (r.default_timeout > 0s) {
            client->set_default_reply_timeout(r.default_timeout);
        }
        trace.clear();
        held.clear();
        ask("slow", r.timeout);
        loop->advance(r.expiry - 1ms);
        EXPECT_TRUE(trace.empty());
        loop->advance(1001ms);
        EXPECT_EQ(trace, strings{"slow exchange 2 - none"});
        ASSERT_EQ(held.size(), 1u);
        EXPECT_TRUE(held[0].reply({}));
        loop->run();
        EXPECT_EQ(trace.size(), 1u);
    }
}

TEST_F(BusExchange, EndingTheClientAbortsEachPendingRequestOnALaterTurnUnlessCancelled) {
    hold_all();
    strings checked;
    client->set_reply_check_handler([&](auto const& r) {
        checked.push_back(r->request_name + " " + said(r->error));
        return true;
    });
    ask("kept");
    auto cancelled = ask("cancelled");
    auto after_end = ask("released after the end");
    loop->run();
    cancelled.release();
    {
        quorl_utils::scoped_link const scoped = ask("scoped");
        client.reset();
        after_end.release();
    }
    EXPECT_TRUE(trace.empty() && checked.empty());
    loop->run();
    EXPECT_EQ(trace, strings{"kept exchange 1 - none"});
    EXPECT_EQ(checked, strings{"kept exchange 1"});
}

TEST_F(BusExchange, TheReplyCheckSeesEveryOutcomeBeforeItsHandlerAndMayHoldItBack) {
    hold_all();
    auto const answer = [](auto const&, auto const& r) { r.reply({}); };
    server->set_request_handler("answered", answer);
    server->set_request_handler("held answered", answer);
    server->set_request_handler("refused", [](auto const&, auto const& r) { r.fail(3); });
    client->set_reply_check_handler([this](auto const& r) {
        trace.push_back("check " + r->request_name + " " + said(r->error));
        return r->request_name.compare(0, 4, "held") != 0;
    });
    for (char const* name : {"answered", "held answered", "refused"}) {
        ask(name);
    }
    ask("late", 10s);
    ask("held late", 10s);
    ask("gone");
    loop->advance(11s);
    ASSERT_EQ(held.size(), 3u);  // late, held late, gone
    held[0].reply({});
    held[1].reply({});
    loop->run();
    client.reset();
    loop->run();
    EXPECT_EQ(trace, (strings{"check answered -", "answered - - none", "check held answered -",
                              "check refused -", "refused - app 3 none", "check late exchange 2",
                              "late exchange 2 - none", "check held late exchange 2",
                              "check gone exchange 1", "gone exchange 1 - none"}));
}

TEST_F(BusExchange, EventsReachTheirCurrentSubscriberOnly) {
    auto const to = [this](std::string who) {
        return [this, who](auto const& e) {
            trace.push_back(who + " " + e->name + " " + show(e->format, e->payload));
        };
    };
    auto first = client->set_event_handler("tick", to("first"));
    auto gone = client->set_event_handler("gone", to("gone"));
    auto const emit_all = [this] {
        for (char const* name : {"tick", "other", "gone"}) {
            EXPECT_TRUE(server->send_event(name, quorl_utils::payload(nlohmann::json(name))));
        }
        loop->run();
    };
    emit_all();
    EXPECT_EQ(trace, (strings{"first tick json \"tick\"", "gone gone json \"gone\""}));
    gone.release();
    auto const second = client->set_event_handler("tick", to("second"));
    EXPECT_FALSE(first.active());
    first.release();  // releasing the replaced link leaves its successor alone
    trace.clear();
    emit_all();
    EXPECT_EQ(trace, strings{"second tick json \"tick\""});
}

TEST_F(BusExchange, AThrowingHandlerLeavesTheLoopAndTheOtherOutcomesFollowOnce) {
    hold_all();
    auto const ask_three = [this] {
        for (std::string name : {"1", "2", "3"}) {
            auto const throwing = [this, name](auto const& r) {
                trace.push_back(name + " " + said(r->first_error));
                if (name == "1") {
                    throw std::runtime_error("handler failed");
                }
            };
            client->send({name, {}}, throwing, true, 10s);
        }
        loop->run();
    };
    auto const rest_follows = [this](std::string const& how) {
        EXPECT_EQ(trace, strings{"1 " + how});
        loop->run();
        EXPECT_EQ(trace, (strings{"1 " + how, "2 " + how, "3 " + how}));
        trace.clear();
    };
    ask_three();  // three replies in one chunk
    for (auto const& r : held) {
        r.reply({});
    }
    EXPECT_THROW(loop->run(), std::runtime_error);
    rest_follows("-");
    ask_three();  // three timeouts at one tick
    EXPECT_THROW(loop->advance(11s), std::runtime_error);
    rest_follows("exchange 2");
    ask_three();  // three aborts at the end
    client.reset();
    EXPECT_THROW(loop->run(), std::runtime_error);
    rest_follows("exchange 1");
}

TEST_F(BusExchange, DestroyingTheClientInsideAHandlerStopsAtOnceAndAbortsTheRest) {
    hold_all();
    client->set_event_handler("tick", [this](auto const&) { trace.push_back("tick"); });
    auto const last_words = [this](auto const& r) {
        trace.push_back("a " + outcome(*r));
        client.reset();
        EXPECT_EQ(trace.size(), 1u);  // no abort inside the destructor
    };
    client->send({"a", {}}, last_words, true, 0s);
    ask("b");
    ask("c");
    loop->run();
    for (auto const& r : held) {  // all three replies and an event in one chunk
        r.reply({});
    }
    server->send_event("tick", {});
    loop->run();
    EXPECT_EQ(trace, (strings{"a - - none", "b exchange 1 - none", "c exchange 1 - none"}));
}

TEST_F(BusExchange, HandlersMaySendCancelAndUnsubscribeThroughTheInstance) {
    server->set_fallback_handler([](auto const&, auto const& r) { r.reply({}); });
    quorl_utils::link second, own;
    auto const first = [&](auto const&) {
        trace.push_back("first");
        second.release();  // its reply is already behind this one in the chunk
        ask("third");
    };
    client->send({"first", {}}, first, true, 0s);
    second = ask("second");
    own = client->set_event_handler("tick", [&](auto const&) {
        trace.push_back("tick");
        own.release();
    });
    // A cancelled request's reply is dropped before the check sees it.
    client->set_reply_check_handler([this](auto const& r) {
        trace.push_back("check " + r->request_name);
        return true;
    });
    server->send_event("tick", {});
    server->send_event("tick", {});
    loop->run();
    EXPECT_EQ(trace, (strings{"tick", "check first", "first", "check third", "third - - none"}));
}

TEST_F(BusExchange, AReplyCheckMayReplaceItselfWhileItRuns) {
    server->set_fallback_handler([](auto const&, auto const& r) { r.reply({}); });
    client->set_reply_check_handler([this](auto const& r) {
        client->set_reply_check_handler([this](auto const& next) {
            trace.push_back("new check " + next->request_name);
            return true;
        });
        trace.push_back("old check " + r->request_name);  // still running once replaced
        return true;
    });
    ask("first");
    loop->run();
    ask("second");
    loop->run();
    EXPECT_EQ(trace, (strings{"old check first", "first - - none", "new check second",
                              "second - - none"}));
}

}  // namespace
}  // namespace zelvo
