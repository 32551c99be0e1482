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

TEST_F(ClientTest, GarbageFromTheControllerIsLoggedAndTheLinkRebuilt) {
    raw_controller raw(loop, host, port, [](quorl_server&, utils::connection& end) {
        end.send(std::vector<unsigned char>(24, 'x'));
    });
    make_client();
    outcome enabled;
    enable(enabled);
    loop->run();
    EXPECT_EQ(texts("QUORLv4"), strings{"tavrin: QUORLv4 error: 0 malformed frame"});
    for (auto const& entry : lines) {
        EXPECT_EQ(entry.level,
                  entry.text.find("QUORLv4") == std::string::npos ? level::debug : level::warning);
    }
    EXPECT_EQ(texts("change state to closed").size(), 1u);
    loop->advance(3s);
    EXPECT_EQ(connect_times(), (std::vector<long>{0, 3000}));
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
