// Callbacks that drop the last reference to the client from inside the state
// changes that run them. Run under the sanitizers, a client that touches
// itself after it has gone fails here.
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client_fixture.hpp"

namespace zelvo::tavrin::testing {
namespace {

TEST_F(ClientTest, ACallbackMayDropTheLastReferenceToTheClient) {
    auto const ignore = [](auto const&...) {};
    auto const drop = [this](auto const&...) { client.reset(); };
    // Drops the client on the first log line that contains `part`.
    auto const drop_on = [&](std::string const& part) {
        client->set_log_handler(
            [this, part](bt_ctrl::log_level, std::string const& text) {
                if (text.find(part) != std::string::npos) {
                    client.reset();
                }
            },
            "");
    };
    std::optional<raw_controller> garbage;  // replaces the simulator's listener
    struct row {
        char const* what;
        std::function<void()> drive;
    };
    std::vector<row> const rows = {
        {"enable's handler", [&] { client->enable(drop); }},
        {"finish's handler",
         [&] {
             client->enable([&](context_ptr const& context, std::error_code const&) {
                 context->finish("", drop);
             });
         }},
        {"the state handler, on enabled",
         [&] {
             client->notify_on_state_change([&](state now) {
                 if (now == state::enabled) {
                     client.reset();
                 }
             });
             client->enable(ignore);
         }},
        {"the state handler, on the link's loss",
         [&] {
             client->enable(ignore);
             loop->run();
             client->notify_on_state_change(drop);
             ctl->drop_clients();
         }},
        {"the log handler, on the link's loss",
         [&] {
             client->enable(ignore);
             loop->run();
             drop_on("closed");
             ctl->drop_clients();
         }},
        {"the log handler, on a bad reply",
         [&] {
             ctl->stop_answering(true);
             drop_on("bad QUORL reply");
             client->enable(ignore);
         }},
        {"the log handler, on a bus error",
         [&] {
             garbage.emplace(loop, host, port, [](quorl_server&, utils::connection& end) {
                 end.send(std::vector<unsigned char>(24, 'x'));
             });
             drop_on("QUORLv4");
             client->enable(ignore);
         }},
    };
    for (auto const& r : rows) {
        SCOPED_TRACE(r.what);
        fresh();
        r.drive();
        loop->advance(60s);
        EXPECT_FALSE(client);
    }
}

}  // namespace
}  // namespace zelvo::tavrin::testing
