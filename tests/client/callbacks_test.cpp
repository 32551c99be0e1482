// What the client tells the application, and what the application may do in
// return: log lines, whose texts are fixed; links released from inside their
// handlers; handlers that throw, which the exception handler hears of; and
// handlers that drop the last reference to the client from inside the state
// changes that run them (run under the sanitizers, a client that touches
// itself after it has gone fails there).
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "client_fixture.hpp"

namespace zelvo::tavrin::testing {
namespace {

// Lines carry the name given with the handler. A handler's link is live
// until the handler has run; the handler may release it.
TEST_F(ClientTest, TheConnectionAndItsLossAreLoggedWithTheHandlersName) {
    serve();
    make_client(std::nullopt, "app");
    utils::link own;
    bool live_inside = false;
    own = client->enable(
        [&](context_ptr const&, std::error_code const&) { live_inside = own.active(); });
    loop->run();
    EXPECT_TRUE(live_inside);
    EXPECT_FALSE(own.active());
    ctl->drop_clients();
    loop->run();
    client->disable();  // the reconnect, waiting with no handler of the application's
    loop->run();
    EXPECT_EQ(lines.size(), 4u);  // its abort logged at once
    client->enable([](auto const&...) {});
    loop->run();
    client->disable();
    loop->run();
    std::string const change =
        "debug: tavrin: app: Connection [mem:127.0.0.1:7300 client-1] "
        "change state to ";
    EXPECT_EQ(lines, (strings{change + "connecting", change + "connected", change + "closed",
                              "error: tavrin: app: Failed to connect to ctrl [bt_ctrl:2]:"
                              "operation aborted",
                              change + "connecting", change + "connected", change + "closing",
                              change + "closed"}));

    lines.clear();
    log_link = client->set_log_handler(
        [this](bt_ctrl::log_level, std::string const& text) {
            lines.push_back(text);
            log_link.release();
        },
        "");
    client->enable([](auto const&...) {});
    loop->run();
    EXPECT_EQ(lines.size(), 1u);
    EXPECT_TRUE(failures.empty());
}

// Faults that leave the bus unable to go on reading are logged and rebuild
// the link; the back-off starts again from 3 s.
TEST_F(ClientTest, BrokenStreamsAreLoggedAndTheLinkRebuilt) {
    struct row {
        std::vector<unsigned char> bytes;
        std::string logged;
    } const rows[] = {
        {std::vector<unsigned char>(24, 'x'), "warning: tavrin: QUORLv4 error: 0 malformed frame"},
        // Frame headers: magic, kind, format, 7 zeros, name length, then the
        // status and the payload length, each 4 bytes big-endian. A message
        // over the limit, and the peer's own report of a fault.
        {{0x51, 4, 3, 2, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 8, 0, 1},
         "warning: tavrin: QUORLv4 error: 1 "},
        {{0x51, 4, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0},
         "warning: tavrin: QUORLv4 error: 2 "},
    };
    for (auto const& r : rows) {
        SCOPED_TRACE(r.logged);
        serve_raw([&](quorl_server&, utils::connection& end) { end.send(r.bytes); });
        make_client();
        client->enable([](auto const&...) {});
        loop->run();
        EXPECT_THAT(lines, Contains(HasSubstr("QUORLv4")).Times(1));
        EXPECT_THAT(lines, Contains(::testing::StartsWith(r.logged)));
        loop->advance(3s);
        EXPECT_EQ(connects, (times{0, 3000}));
        client.reset();
        loop->run();
    }
}

// Each handler that throws is named to the exception handler, and the
// client goes on.
TEST_F(ClientTest, AThrowingHandlerReachesTheExceptionHandlerAndTheClientGoesOn) {
    struct row {
        char const* at;
        std::string named;
        bool reset, refuse_start;
    };
    for (auto const& r : std::vector<row>{
             {"enable: ok", "response handler on enable", false, false},
             {"enabled", "notification handler on state change", false, false},
             {"finish(hci0): ok", "response handler on handshake finish", false, false},
             // reset's own handler goes through finish when the handshake works.
             {"reset: ok", "response handler on handshake finish", true, false},
             {"reset: internal failure", "response handler on reset", true, true},
             {"debug: ", "log handler", false, false},
         }) {
        SCOPED_TRACE(r.at);
        fresh();
        if (r.refuse_start) {
            ctl->fail_request("hdshkStart", sim::ctrl_error::internal_error,
                              sim::controller::repeat::once);
        }
        throw_at = r.at;
        r.reset ? void(client->reset(on("reset"))) : start();
        loop->advance(3s);
        EXPECT_FALSE(failures.empty());
        EXPECT_EQ(failures, strings(failures.size(), "Failed " + r.named));
        EXPECT_EQ(client->get_state(), state::enabled);
    }
}

// The client is dropped at the first record that contains `at`, on its way
// up or, after it, when the link is lost.
TEST_F(ClientTest, AHandlerMayDropTheLastReferenceToTheClient) {
    struct row {
        char const* at;
        bool after_start;
        std::function<void()> prepare;
    };
    for (auto const& [at, after_start, prepare] : std::vector<row>{
             {"enable: ok", false, {}},
             {"finish(hci0): ok", false, {}},
             {"enabled", false, {}},
             {"rebooting", true, {}},
             {"change state to closed", true, {}},
             {"bad QUORL reply", false, [&] { ctl->stop_answering(true); }},
             {"QUORLv4", false,
              [&] {
                  serve_raw([](quorl_server&, utils::connection& end) {
                      end.send(std::vector<unsigned char>(24, 'x'));
                  });
              }},
         }) {
        SCOPED_TRACE(at);
        fresh();
        if (prepare) {
            prepare();
        }
        drop_at = after_start ? "" : at;
        start();
        loop->run();
        if (after_start) {
            drop_at = at;
            ctl->drop_clients();
        }
        loop->advance(60s);
        EXPECT_FALSE(client);
    }
}

}  // namespace
}  // namespace zelvo::tavrin::testing
