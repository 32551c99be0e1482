// The bus's two endpoints through their public faces: first the byte stream a
// quorl or quorl_server reads and writes, fed by hand; then exchanges between
// the two over the test loop's in-memory connection.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
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
    auto const& t = e.type();
    return !e ? "-"
              : (t == typeid(exchange_error) ? "exchange "
                 : t == typeid(app_error)    ? "app "
                 : t == typeid(local_error)  ? "local "
                                             : "remote ") +
                    std::to_string(e.code());
}

// The format, then the bytes: as text for JSON, in hex otherwise.
std::string show(format f, bytes const& b) {
    if (f == format::json) {
        return "json " + std::string(b.begin(), b.end());
    }
    std::string text = f == format::none ? "none" : "raw ";
    for (unsigned char c : b) {
        text += "0123456789abcdef"[c >> 4];
        text += "0123456789abcdef"[c & 15];
    }
    return text;
}

// A response handler tracing "name first_error second_error payload".
quorl::response_handler traced(strings& trace, std::string const& name) {
    return [&trace, name](auto const& r) {
        trace.push_back(name + " " + said(r->first_error) + " " + said(r->second_error) + " " +
                        show(r->format, r->payload));
    };
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
    return join({out, bytes(name.begin(), name.end()), payload});
}

// A frame with a status and neither name nor payload.
bytes status(unsigned char kind, std::uint32_t id, unsigned char space, std::int32_t code) {
    return make(kind, id, "", {}, format::none, space, code);
}

bytes tick(unsigned char n) {
    return make(event, 0, "tick", {n}, format::raw);
}

// Feeds a stream in chunks of at most `chunk` bytes.
template <typename End>
void feed(End& end, bytes const& s, std::size_t chunk = SIZE_MAX, bool end_of_stream = false) {
    for (std::size_t at = 0; at == 0 || at < s.size(); at += chunk) {
        std::size_t const n = std::min(chunk, s.size() - at);
        end.receive(bytes(s.begin() + at, s.begin() + at + n), end_of_stream && at + n == s.size(),
                    roomy, roomy);
    }
}

// A quorl whose writes are kept (and refused unless `take`), forwarded to
// `wire` if set, and whose reports are traced.
struct fed {
    fed() {
        client->set_error_handler([this](auto const& c) { errors.push_back(said(c->error)); });
        client->set_event_handler("tick", [this](auto const& e) {
            trace.push_back(e->name + " " + show(e->format, e->payload));
        });
    }
    quorl_utils::link ask(std::string const& name, std::chrono::seconds timeout = 0s,
                          bool expect_reply = true) {
        return client->send({name, {}}, traced(trace, name), expect_reply, timeout);
    }

    std::shared_ptr<test_loop> loop = test_loop::create();
    bool take = true;
    bytes wrote;
    strings trace, errors;
    std::shared_ptr<tavrin::utils::tcp_connection> wire;
    std::unique_ptr<quorl> client = std::make_unique<quorl>(loop, [this](bytes const& b) {
        wrote.insert(wrote.end(), b.begin(), b.end());
        return take && (!wire || wire->send(b));
    });
};

struct BusStream : ::testing::Test, fed {};

TEST_F(BusStream, EverySplitOfTheStreamGivesTheSameCallsInTheSameOrder) {
    for (std::size_t chunk : {1, 2, 19, 20, 21, 4096}) {
        SCOPED_TRACE(chunk);
        fed f;
        for (char const* name : {"a", "b", "c"}) {
            f.ask(name);
        }
        // Each request frame is 21 bytes; its id (bytes 4 to 7) is the client's choice.
        auto const id = [&f](std::size_t n) {
            auto const* at = &f.wrote.at(21 * n + 7);
            return std::uint32_t(at[-3]) << 24 | std::uint32_t(at[-2]) << 16 | at[-1] << 8 | at[0];
        };
        ASSERT_EQ(f.wrote, join({make(request, id(0), "a"), make(request, id(1), "b"),
                                 make(request, id(2), "c")}));
        // Replies out of order, in each status space, and an event nobody wants.
        feed(
            *f.client,
            join({tick(1), make(response, id(1), "", {9, 8}, format::raw),
                  status(response, id(0), app_status, 7), make(event, 0, "other", {2}, format::raw),
                  make(event, 0, "tick", {'[', ']'}, format::json),
                  status(response, id(2), exchange_status, 4)}),
            chunk);
        EXPECT_EQ(f.trace, (strings{"tick raw 01", "b - - raw 0908", "a - app 7 none",
                                    "tick json []", "c exchange 4 - none"}));

        strings served;
        bytes answers;
        quorl_server server(
            f.loop, [&](bytes const& b) { answers.insert(answers.end(), b.begin(), b.end()); });
        auto const echo = [&](auto const& q, auto const& r) {
            bool const sent = r.reply(quorl_utils::payload(bytes(q->payload), q->format));
            served.push_back(q->name + " " + show(q->format, q->payload) + (sent ? "" : " unsent"));
        };
        server.set_request_handler("get", echo);
        server.set_request_handler("note", echo);
        feed(server,
             join({make(request, 5, "get", {2, 3}, format::raw),
                   make(request, 0, "note", {'{', '}'}, format::json), make(request, 6, "nope")}),
             chunk);
        EXPECT_EQ(served, (strings{"get raw 0203", "note json {} unsent"}));
        EXPECT_EQ(answers, join({make(response, 5, "", {2, 3}, format::raw),
                                 status(response, 6, exchange_status, 4)}));
    }
}

TEST_F(BusStream, BrokenLimitsAndMalformedFramesStopReadingAndAreToldToThePeer) {
    struct row {
        char const* what;
        bytes offending;
        std::size_t cut;  // how much of it comes in the first chunk
        unsigned max_message, max_buffer;
        std::optional<local_error> fault;
    };
    bytes const bulk = make(event, 0, "bulk", bytes(100, 7), format::raw);  // 124 bytes
    auto const bad_at = [](std::size_t at, unsigned char value) {
        bytes frame = make(event, 0, "bulk", {1}, format::raw);
        frame.at(at) = value;
        return frame;
    };
    auto const malformed = [](char const* what, bytes frame) {
        return row{what, std::move(frame), SIZE_MAX, roomy, roomy, local_error::malformed_frame};
    };
    for (auto const& r : std::vector<row>{
             {"over max_message, seen from the header", bulk, 20, 123, roomy,
              local_error::message_too_large},
             {"exactly max_message", bulk, SIZE_MAX, 124, roomy, std::nullopt},
             {"partial frame over max_buffer", bulk, 60, roomy, 59, local_error::buffer_overflow},
             {"partial frame of exactly max_buffer", bulk, 60, roomy, 60, std::nullopt},
             malformed("bad magic", bad_at(0, 0x52)),
             malformed("other version", bad_at(1, 3)),
             malformed("kind 0", bad_at(2, 0)),
             malformed("kind 5", bad_at(2, 5)),
             malformed("unknown format", bad_at(3, 3)),
             malformed("bytes tagged none", bad_at(3, 0)),
             malformed("reserved byte set", bad_at(9, 1)),
             malformed("request without a name", make(request, 1, "")),
             malformed("response with a name", make(response, 1, "x")),
             malformed("response to id 0", make(response, 0, "")),
             malformed("unknown status space", status(response, 1, 3, 1)),
             malformed("refusal with a payload",
                       make(response, 1, "", {1}, format::raw, app_status, 7)),
             // A peer can't claim that the exchange was aborted or timed out.
             malformed("peer claims aborted", status(response, 1, exchange_status, 1)),
             malformed("peer claims a timeout", status(response, 1, exchange_status, 2)),
             malformed("error frame with an unknown code", status(error_frame, 0, 0, 77))}) {
        SCOPED_TRACE(r.what);
        fed f;
        auto const cut = r.offending.begin() + std::min(r.cut, r.offending.size());
        f.client->receive(join({tick(1), bytes(r.offending.begin(), cut)}), false, r.max_message,
                          r.max_buffer);
        EXPECT_TRUE(f.errors.empty());  // reported on a later turn only
        f.loop->run();
        strings const fault = r.fault ? strings{said(*r.fault)} : strings{};
        EXPECT_EQ(f.errors, fault);
        // After a fault nothing more is read.
        f.client->receive(join({bytes(cut, r.offending.end()), tick(2)}), false, r.max_message,
                          r.max_buffer);
        f.loop->run();
        EXPECT_EQ(f.errors, fault);
        EXPECT_EQ(f.trace,
                  (r.fault ? strings{"tick raw 01"} : strings{"tick raw 01", "tick raw 02"}));
        // The peer learns the fault from an error frame.
        int const code = r.fault ? static_cast<int>(*r.fault) : 0;
        EXPECT_EQ(f.wrote, r.fault ? status(error_frame, 0, 0, code) : bytes());
        fed peer;
        feed(*peer.client, f.wrote);
        peer.loop->run();
        EXPECT_EQ(peer.errors,
                  r.fault ? strings{said(static_cast<remote_error>(code))} : strings{});
    }
}

TEST_F(BusStream, AStreamEndingInsideAFrameIsReportedAsTruncated) {
    bytes const stream = join({tick(1), tick(2)});  // 25 bytes each
    // The first `cut` bytes, then the rest up to `end` with the end of the stream.
    for (auto [cut, end] :
         {std::pair<std::size_t, std::size_t>{10, 10}, {0, 24}, {25, 26}, {25, 25}}) {
        fed f;
        feed(*f.client, bytes(stream.begin(), stream.begin() + cut));
        feed(*f.client, bytes(stream.begin() + cut, stream.begin() + end), SIZE_MAX, true);
        EXPECT_TRUE(f.errors.empty());
        f.loop->run();
        EXPECT_EQ(f.trace.size(), end / 25);
        EXPECT_EQ(f.errors, end % 25 ? strings{"local 4"} : strings{});
    }
}

TEST_F(BusStream, ARefusedWriteIsReportedAndItsRequestEndsNotSent) {
    take = false;
    ask("a");
    ask("b", 0s, false);
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

TEST_F(BusStream, AReplyCheckSetAfterASendSeesItsOutcomeAndAThrowingOneLetsTheHandlerRunLater) {
    take = false;
    ask("a");
    client->set_reply_check_handler([this](auto const& r) -> bool {
        trace.push_back("check " + r->request_name + " " + said(r->error));
        throw std::runtime_error("check");
    });
    EXPECT_THROW(loop->run(), std::runtime_error);
    EXPECT_EQ(trace, strings{"check a exchange 3"});
    loop->run();
    EXPECT_EQ(trace, (strings{"check a exchange 3", "a exchange 3 - none"}));
}

TEST_F(BusStream, ARequestReleasedByTheReplyCheckIsNotHandled) {
    take = false;
    auto const request = ask("a");
    client->set_reply_check_handler([&](auto const&) {
        quorl_utils::link(request).release();
        return true;
    });
    loop->run();
    EXPECT_TRUE(trace.empty());
    EXPECT_FALSE(request.active());
}

TEST_F(BusStream, ASubscriptionHoldingItsOwnLinkIsFreedWhenReleased) {
    auto token = std::make_shared<int>();
    std::weak_ptr<int> const watched = token;
    auto own = std::make_shared<quorl_utils::link>();
    *own = client->set_event_handler(
        "tick", [own, token = std::move(token)](auto const&) { own->release(); });
    feed(*client, tick(1));
    own.reset();
    EXPECT_TRUE(watched.expired());  // the handler, and what it captured, are gone at once
}

TEST_F(BusStream, AThrowingHandlerLeavesReceiveAndTheMessagesBehindItFollowOnce) {
    client->set_event_handler("boom", [&](auto const&) {
        trace.push_back("boom");
        throw std::runtime_error("handler failed");
    });
    EXPECT_THROW(feed(*client, join({tick(1), make(event, 0, "boom"), tick(2), tick(3)})),
                 std::runtime_error);
    EXPECT_EQ(trace, (strings{"tick raw 01", "boom"}));
    // Bytes received before the continuation runs queue behind the rest.
    feed(*client, tick(4));
    strings const all{"tick raw 01", "boom", "tick raw 02", "tick raw 03", "tick raw 04"};
    EXPECT_EQ(trace, all);
    loop->run();
    EXPECT_EQ(trace, all);
    // Here the continuation alone carries on.
    EXPECT_THROW(feed(*client, join({make(event, 0, "boom"), tick(5)})), std::runtime_error);
    loop->run();
    EXPECT_EQ(trace.size(), 7u);
    EXPECT_EQ(trace.back(), "tick raw 05");
}

// The quorl of `fed` and a quorl_server joined by the test loop's in-memory
// connection, as the client library and its controller are.
class BusExchange : public ::testing::Test, public fed {
protected:
    BusExchange() {
        wire = loop->create_tcp_connection();
        listening = loop->listen(host, 7001, [this](auto const& accepted) {
            server_end = accepted;
            accepted->set_receive_handler(
                [this](bytes const& b) { server->receive(b, false, roomy, roomy); });
        });
        wire->set_receive_handler([this](bytes const& b) {
            if (client) {
                client->receive(b, false, roomy, roomy);
            }
        });
        wire->connect(host, 7001);
        loop->run();
    }
    // Requests with no handler of their own wait for the test to answer.
    void hold_all() {
        server->set_fallback_handler([this](auto const&, auto const& r) { held.push_back(r); });
    }

    tavrin::utils::ip_address const host{"127.0.0.1"};
    tavrin::utils::link listening;
    std::shared_ptr<tavrin::utils::connection> server_end;
    std::unique_ptr<quorl_server> server = std::make_unique<quorl_server>(
        loop, [this](bytes const& b) { return server_end->send(b); });
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
    client->send({"echo", quorl_utils::payload(nlohmann::json{{"k", 1}})}, traced(trace, "echo"),
                 true, 0s);
    for (char const* name : {"refuse", "drop", "later", "twice"}) {
        ask(name);
    }
    loop->run();
    EXPECT_EQ(trace, (strings{"echo - - json {\"k\":1}", "refuse - app -7 none",
                              "drop exchange 5 - none", "twice - - none", "later - - raw 05"}));
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

TEST_F(BusExchange, TheReplyCheckSeesEveryOutcomeFirstAndEndingAbortsAllButTheCancelled) {
    hold_all();
    server->set_request_handler("answered", [](auto const&, auto const& r) { r.reply({}); });
    server->set_request_handler("refused", [](auto const&, auto const& r) { r.fail(3); });
    client->set_reply_check_handler([this](auto const& r) {
        trace.push_back("check " + r->request_name + " " + said(r->error));
        return r->request_name.compare(0, 4, "held") != 0;
    });
    ask("answered");
    ask("refused");
    ask("late", 10s);
    ask("held late", 10s);
    ask("gone");
    auto cancelled = ask("cancelled");
    auto after_end = ask("released after the end");
    loop->advance(11s);
    ASSERT_EQ(held.size(), 5u);
    held[0].reply({});  // too late: dropped
    loop->run();
    EXPECT_EQ(trace, (strings{"check answered -", "answered - - none", "check refused -",
                              "refused - app 3 none", "check late exchange 2",
                              "late exchange 2 - none", "check held late exchange 2"}));
    trace.clear();
    cancelled.release();
    {
        quorl_utils::scoped_link const scoped = ask("scoped");
        client.reset();
        after_end.release();
    }
    EXPECT_TRUE(trace.empty());  // aborts come on a later turn
    loop->run();
    EXPECT_EQ(trace, (strings{"check gone exchange 1", "gone exchange 1 - none"}));
}

TEST_F(BusExchange, AnEventReachesItsCurrentSubscriberOnly) {
    auto const to = [this](std::string who) {
        return [this, who](auto const& e) {
            trace.push_back(who + " " + e->name + " " + show(e->format, e->payload));
        };
    };
    auto first = client->set_event_handler("tick", to("first"));
    auto const second = client->set_event_handler("tick", to("second"));
    EXPECT_FALSE(first.active());
    first.release();  // releasing the replaced link leaves its successor alone
    EXPECT_TRUE(server->send_event("tick", quorl_utils::payload(nlohmann::json("t"))));
    loop->run();
    EXPECT_EQ(trace, strings{"second tick json \"t\""});
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
    auto const trace_a = traced(trace, "a");
    auto const last_words = [&](auto const& r) {
        trace_a(r);
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

TEST_F(BusExchange, HandlersMaySendCancelUnsubscribeAndAReplyCheckMayReplaceItself) {
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
    // The first check replaces itself; what it captured lives while it runs.
    auto token = std::make_shared<int>();
    std::weak_ptr<int> const watched = token;
    client->set_reply_check_handler([this, &watched, token = std::move(token)](auto const& r) {
        auto const& alive = watched;
        trace.push_back("old check " + r->request_name);
        client->set_reply_check_handler([this](auto const& next) {
            trace.push_back("new check " + next->request_name);  // a cancelled reply never comes
            return true;
        });
        EXPECT_FALSE(alive.expired());
        return true;
    });
    server->send_event("tick", {});
    server->send_event("tick", {});
    loop->run();
    EXPECT_EQ(trace,
              (strings{"tick", "old check first", "first", "new check third", "third - - none"}));
    EXPECT_TRUE(watched.expired());
}

}  // namespace
}  // namespace zelvo
