// A connection's GATT server against the simulator: a central that connected
// through `listen` reads, writes and subscribes, and what the application's
// handlers answer, and the values it pushes, are what the central sees.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "../client/client_fixture.hpp"
#include "connection/connection.hpp"
#include "tavrin/bt_ctrl/advertiser.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/connection_gatts.hpp"
#include "tavrin/bt_ctrl/gatts.hpp"
#include "tavrin/misc/hex.hpp"
#include "tavrin/sim/central.hpp"
#include "tavrin/sim/peer_gatt.hpp"

namespace zelvo::tavrin::testing {
namespace {

using namespace std::chrono_literals;
using property = gatt::characteristic::property;
using permission = gatt::attribute_permission;
using bytes = std::vector<unsigned char>;
using status = error::gatt_proto;

class ServeTest : public ClientTest {
public:
    // Enabled, with a battery service of one notifying characteristic and
    // its configuration descriptor, and a connection that a central opened
    // through `listen`.
    void SetUp() override {
        fresh();
        start();
        loop->run();
        ASSERT_EQ(client->get_state(), state::enabled);
        auto& server = client->get_gatts();
        auto const service = added([&](auto const& made) {
            server.add_service(gatt::uuid("180F"), true, std::nullopt, made);
        });
        level = added([&](auto const& made) {
            server.add_characteristic(gatt::uuid("2A19"),
                                      {property::read, property::write, property::notify},
                                      {permission::read, permission::write}, service, made);
        });
        cccd = added([&](auto const& made) {
            server.add_descriptor(gatt::uuid("2902"), {permission::read, permission::write}, level,
                                  made);
        });

        adv = client->create_advertiser();
        conn = client->create_connection();
        conn->listen(nullptr, *adv, {}, bt_ctrl::phy::unknown, {}, std::nullopt, 160, {{1, {6}}},
                     std::nullopt, nullptr,
                     [](auto const&, auto const&, std::error_code const&) {});
        loop->run();
        auto& radio = *ctl->simulation();
        ASSERT_EQ(radio.advertising_sets().size(), 1u);
        sim::central central;
        central.address = {bt_ctrl::addr_type::public_address,
                           utils::mac_address("02:54:56:00:02:01")};
        ASSERT_EQ(radio.central_connect("hci0", radio.advertising_sets().front().second, central),
                  sim::central_result::connected);
        loop->advance(1s);
        ASSERT_EQ(conn->get_state(), bt_ctrl::connection::state::opened);
        // The controller's handle of the connection, which the central's
        // operations name.
        handle = *dynamic_cast<impl::bt_ctrl::connection&>(*conn).get_id();
    }

    // Runs an edit that makes an attribute, and gives its handle.
    template <typename Edit>
    unsigned added(Edit const& edit) {
        unsigned made_handle = 0;
        edit([&made_handle](unsigned h, std::error_code const& ec) {
            EXPECT_FALSE(ec) << ec.message();
            made_handle = h;
        });
        loop->run();
        return made_handle;
    }

    // What the central sees of an operation, as "<status> <data>".
    sim::att_handler seen(std::string const& what) {
        return [this, what](sim::att_outcome const& outcome) {
            outcomes.push_back(
                what + ": " + outcome.status +
                (outcome.data.empty() ? "" : " " + misc::to_hex_string(outcome.data, "", true)));
        };
    }

    bt_ctrl::connection::gatts& server() { return conn->get_gatts(); }

    unsigned level = 0, cccd = 0;
    unsigned short handle = 0;
    std::shared_ptr<bt_ctrl::advertiser> adv;
    std::shared_ptr<bt_ctrl::connection> conn;
    strings outcomes;
};

TEST_F(ServeTest, ACentralsReadsAndWritesGetTheApplicationsAnswers) {
    bytes value{0x64};
    std::vector<utils::link> links;
    links.push_back(server().set_characteristic_value_read_handler(
        level, [&](unsigned int h, unsigned int offset) {
            auto const from = std::min<std::size_t>(offset, value.size());
            server().respond_on_characteristic_value_read(
                h, bytes(value.begin() + static_cast<long>(from), value.end()),
                offset > value.size() ? status::invalid_offset : status::success, nullptr);
        }));
    links.push_back(server().set_characteristic_value_write_handler(
        level, [&](unsigned int h, bytes const& data, unsigned int, bool response) {
            value = data;
            if (response) {
                server().respond_on_characteristic_value_write(h, status::success, nullptr);
            }
        }));
    // Everything else is refused, by the default handlers.
    links.push_back(server().set_descriptor_value_read_handler([&](unsigned int h, unsigned int) {
        server().respond_on_descriptor_value_read(h, {}, status::read_not_permitted, nullptr);
    }));

    ASSERT_TRUE(ctl->peer_read("hci0", handle, level, 0, seen("read")));
    loop->run();
    ASSERT_TRUE(ctl->peer_write("hci0", handle, level, {0x2a, 0x01}, 0, true, seen("write")));
    loop->run();
    ASSERT_TRUE(ctl->peer_read("hci0", handle, level, 1, seen("read at 1")));
    loop->run();
    ASSERT_TRUE(ctl->peer_read("hci0", handle, level, 5, seen("read at 5")));
    loop->run();
    ASSERT_TRUE(ctl->peer_write("hci0", handle, level, {0x07}, 0, false, seen("command")));
    loop->run();
    ASSERT_TRUE(ctl->peer_read("hci0", handle, cccd, 0, seen("descriptor")));
    loop->run();
    EXPECT_EQ(outcomes, (strings{"read: success 64", "write: success", "read at 1: success 01",
                                 "read at 5: invalidOffset", "command: success",
                                 "descriptor: readNotPermitted"}));
    EXPECT_EQ(value, bytes{0x07});
}

TEST_F(ServeTest, ASubscribedCentralIsNotifiedAndAnUnansweredReadTimesOut) {
    std::optional<bool> indications;
    auto const subscriptions = server().set_descriptor_value_write_handler(
        cccd, [&](unsigned int h, bytes const& data, unsigned int) {
            indications = data.at(0) == 2;
            server().respond_on_descriptor_value_write(h, status::success, nullptr);
        });
    ASSERT_TRUE(ctl->peer_subscribe("hci0", handle, level, false, seen("subscribe")));
    loop->run();
    ASSERT_EQ(indications, false);

    std::error_code sent{error::bt_ctrl::operation_aborted};
    server().send_notify_on_characteristic_value_change(
        level, false, {0x50}, [&sent](std::error_code const& ec) { sent = ec; });
    loop->run();
    EXPECT_FALSE(sent) << sent.message();
    auto const values = ctl->peer_values("hci0", handle);
    ASSERT_EQ(values.size(), 1u);
    EXPECT_EQ(values[0].handle, level);
    EXPECT_EQ(values[0].data, bytes{0x50});
    EXPECT_FALSE(values[0].indication);

    // No handler takes a read: the library answers nothing, and the central
    // gives up after the transaction time.
    ASSERT_TRUE(ctl->peer_read("hci0", handle, level, 0, seen("unanswered")));
    loop->advance(29s);
    EXPECT_EQ(outcomes, strings{"subscribe: success"});
    loop->advance(1s);
    EXPECT_EQ(outcomes, (strings{"subscribe: success", "unanswered: timeout"}));

    // The connection closed: the application's answers are refused by the
    // library before anything goes out.
    conn->close(nullptr);
    loop->advance(1s);
    std::error_code late;
    server().respond_on_characteristic_value_read(
        level, {}, status::success, [&late](std::error_code const& ec) { late = ec; });
    loop->run();
    EXPECT_EQ(late, error::connection::inappropriate_state);
}

}  // namespace
}  // namespace zelvo::tavrin::testing
