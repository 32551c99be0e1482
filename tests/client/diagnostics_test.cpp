// The client's two outlets: its log lines, whose texts are fixed, and the
// exception handler, which hears of application handlers that threw.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "client_fixture.hpp"

namespace zelvo::tavrin::testing {
namespace {

using level = bt_ctrl::log_level;

TEST_F(ClientTest, TheConnectionAndItsLossAreLoggedWithTheHandlersName) {
    serve();
    make_client(std::nullopt, "app");
    outcome enabled;
    enable(enabled);
    loop->run();
    ctl->drop_clients();
    loop->run();
    client->disable();  // the reconnect, waiting with no handler of the application's
    loop->run();
    enable(enabled);
    loop->run();
    client->disable();
    loop->run();

    std::string const connection = "tavrin: app: Connection [mem:127.0.0.1:7300 client-1] ";
    auto const aborted = code(error::bt_ctrl::operation_aborted);
    struct expected {
        level at;
        std::string text;
    };
    std::vector<expected> const all = {
        {level::debug, connection + "change state to connecting"},
        {level::debug, connection + "change state to connected"},
        {level::debug, connection + "change state to closed"},
        {level::error, "tavrin: app: Failed to connect to ctrl [bt_ctrl:2]:" + aborted.message()},
        {level::debug, connection + "change state to connecting"},
        {level::debug, connection + "change state to connected"},
        {level::debug, connection + "change state to closing"},
        {level::debug, connection + "change state to closed"},
    };
    ASSERT_EQ(lines.size(), all.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(lines[i].text, all[i].text);
        EXPECT_EQ(lines[i].level, all[i].at) << all[i].text;
    }

    log_link.release();
    enable(enabled);
    loop->run();
    EXPECT_EQ(client->get_state(), state::enabled);
    EXPECT_EQ(lines.size(), all.size());
}

// A frame header as the bus writes it: kind, name length, status code,
// payload length.
std::vector<unsigned char> frame_header(unsigned char kind, unsigned char name_length, int status,
                                        unsigned length) {
    unsigned char const format = length ? 2 : 0;  // JSON, or none for no payload
    std::vector<unsigned char> bytes{0x51, 0x04, kind, format, 0, 0, 0, 0, 0, 0, 0, name_length};
    for (auto const value : {static_cast<unsigned>(status), length}) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes.push_back(static_cast<unsigned char>(value >> shift));
        }
    }
    return bytes;
}

// Faults that leave the bus unable to go on reading are logged and rebuild
// the link; the back-off starts again from 3 s.
TEST_F(ClientTest, BrokenStreamsAreLoggedAndTheLinkRebuilt) {
    struct row {
        std::vector<unsigned char> bytes;
        std::string logged;
    } const rows[] = {
        {std::vector<unsigned char>(24, 'x'), "tavrin: QUORLv4 error: 0 malformed frame"},
        {frame_header(3, 1, 0, 0x80001), "tavrin: QUORLv4 error: 1 "},  // over the message limit
        {frame_header(4, 0, 2, 0), "tavrin: QUORLv4 error: 2 "},        // the peer gave up on us
    };
    for (auto const& r : rows) {
        SCOPED_TRACE(r.logged);
        lines.clear();
        raw_controller raw(loop, host, port,
                           [&](quorl_server&, utils::connection& end) { end.send(r.bytes); });
        make_client();
        outcome enabled;
        enable(enabled);
        loop->run();
        auto const logged = texts("QUORLv4");
        ASSERT_EQ(logged.size(), 1u);
        EXPECT_EQ(logged[0].rfind(r.logged, 0), 0u) << logged[0];
        EXPECT_EQ(matching("QUORLv4")[0].level, level::warning);
        EXPECT_EQ(texts("change state to closed").size(), 1u);
        loop->advance(3s);
        EXPECT_EQ(connect_times(), (std::vector<long>{0, 3000}));
        client.reset();
        loop->run();
    }
}

// A handler may release its own link while it runs; the link is live until
// the handler has run.
TEST_F(ClientTest, HandlersSeeTheirLinksLiveAndMayReleaseThem) {
    serve();
    make_client();
    int lines_heard = 0;
    log_link = client->set_log_handler(
        [&](level, std::string const&) {
            ++lines_heard;
            log_link.release();
        },
        "");
    utils::link own;
    bool live_inside = false;
    own = client->enable(
        [&](context_ptr const&, std::error_code const&) { live_inside = own.active(); });
    loop->run();
    EXPECT_TRUE(live_inside);
    EXPECT_FALSE(own.active());
    EXPECT_EQ(lines_heard, 1);
    EXPECT_FALSE(log_link.active());
    EXPECT_TRUE(failures.empty());
    EXPECT_EQ(client->get_state(), state::enabled);
}

TEST_F(ClientTest, AThrowingHandlerReachesTheExceptionHandlerAndTheClientGoesOn) {
    auto const thrower = [](auto const&...) { throw std::runtime_error("from the application"); };
    auto const ignore = [](auto const&...) {};
    struct row {
        char const* text;
        std::function<void()> drive;
    };
    std::vector<row> const rows = {
        {"Failed response handler on enable", [&] { client->enable(thrower); }},
        {"Failed notification handler on state change",
         [&] {
             client->notify_on_state_change(thrower);
             client->enable(ignore);
         }},
        {"Failed response handler on handshake finish",
         [&] {
             client->enable([&](context_ptr const& context, std::error_code const&) {
                 context->finish("", thrower);
             });
         }},
        // reset's own handler goes through finish when the handshake works.
        {"Failed response handler on handshake finish", [&] { client->reset(thrower); }},
        {"Failed response handler on reset",
         [&] {
             ctl->fail_request("hdshkStart", sim::ctrl_error::internal_error,
                               sim::controller::repeat::once);
             client->reset(thrower);
         }},
        {"Failed log handler",
         [&] {
             client->set_log_handler(thrower, "");
             client->enable(ignore);
         }},
    };
    for (auto const& r : rows) {
        SCOPED_TRACE(r.text);
        fresh();
        r.drive();
        loop->advance(3s);
        EXPECT_FALSE(failures.empty());
        for (auto const& text : failures) {
            EXPECT_EQ(text, r.text);
        }
        EXPECT_EQ(client->get_state(), state::enabled);
    }
}

}  // namespace
}  // namespace zelvo::tavrin::testing
