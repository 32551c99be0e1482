#include "gatt_walk.hpp"

#include <utility>

#include "gatt_report.hpp"
#include "tavrin/sim/simulated_radio.hpp"

namespace zelvo::tavrin::cli {

namespace {

gatt::uuid const battery_level("2a19");
gatt::uuid const greeting("7a0e1001-5c2b-4f6e-9d3a-1b2c3d4e5f60");

}  // namespace

gatt_file demo_gatt_file() {
    return parse_gatt_file(R"({"services": [
        {"uuid": "180F", "characteristics": [
            {"uuid": "2A19", "properties": ["read", "notify"], "hex": "64",
             "descriptors": [{"uuid": "2902"}]}]},
        {"uuid": "7a0e1000-5c2b-4f6e-9d3a-1b2c3d4e5f60", "characteristics": [
            {"uuid": "7a0e1001-5c2b-4f6e-9d3a-1b2c3d4e5f60", "properties": ["read", "write"],
             "text": "hello"}]}]})");
}

gatt_walk::gatt_walk(task_context context, sim::controller& controller, std::string interface,
                     unsigned short link, bt_ctrl::address central, bt_ctrl::connection const& conn,
                     gatt_layout const& layout, std::function<void()> done)
    : ctx(std::move(context)),
      controller(controller),
      interface(std::move(interface)),
      link(link),
      central(central),
      conn(conn),
      layout(layout),
      done(std::move(done)),
      values(initial_values(layout)) {}

void gatt_walk::start() {
    ctx.say(
        "get_gatts() of the connection: set_characteristic_value_read_handler() and the other "
        "handlers answer the peer from the values (respond_on_...())");
    session = std::make_unique<gatt_session>(
        conn, layout, values, "  ", [this](std::string const& text) { ctx.out << text << '\n'; });
    read();
}

sim::att_handler gatt_walk::seen(std::function<void()> next) {
    return [this, next = std::move(next)](sim::att_outcome const& outcome) {
        ctx.out << "  central sees " << outcome.status
                << (outcome.data.empty() ? "" : " " + value_text(outcome.data)) << '\n';
        if (outcome.status != "success") {
            return ctx.fail("the central's operation ended with " + outcome.status);
        }
        asio::post(ctx.io, next);
    };
}

void gatt_walk::read() {
    auto const found = controller.find_attributes(interface, battery_level);
    ctx.say("the central reads the battery level, " + uuid_text(battery_level) + " (simulated)");
    if (found.empty() ||
        !controller.peer_read(interface, link, found.front(), 0, seen([this] { write(); }))) {
        ctx.fail("the central could not read the battery level");
    }
}

void gatt_walk::write() {
    auto const found = controller.find_attributes(interface, greeting);
    std::vector<unsigned char> const data{'t', 'a', 'v', 'r', 'i', 'n'};
    ctx.say("the central writes " + value_text(data) + " to " + uuid_text(greeting) +
            " (simulated)");
    if (found.empty() || !controller.peer_write(interface, link, found.front(), data, 0, true,
                                                seen([this] { subscribe(); }))) {
        ctx.fail("the central could not write");
    }
}

void gatt_walk::subscribe() {
    auto const found = controller.find_attributes(interface, battery_level);
    ctx.say(
        "the central subscribes to the battery level: it writes 0100 to its 2902 descriptor "
        "(simulated)");
    if (found.empty() || !controller.peer_subscribe(interface, link, found.front(), false,
                                                    seen([this] { change(); }))) {
        ctx.fail("the central could not subscribe");
    }
}

void gatt_walk::change() {
    auto const level = layout.find_characteristic(battery_level);
    ctx.say("the battery level drops to 99%: send_notify_on_characteristic_value_change()");
    session->change_value(level, {99}, [this](std::error_code const& ec) {
        if (ec) {
            return ctx.fail("the notification failed: " + ec.message());
        }
        auto const pushed = controller.peer_values(interface, link);
        if (pushed.empty()) {
            return ctx.fail("the central received no notification");
        }
        auto const& last = pushed.back();
        ctx.out << "  central sees " << (last.indication ? "an indication" : "a notification")
                << " of [" << last.handle << "]: " << value_text(last.data) << '\n';
        asio::post(ctx.io, [this] { disconnect(); });
    });
}

void gatt_walk::disconnect() {
    ctx.say("the central disconnects (simulated)");
    disconnecting = true;
    auto* const radio = controller.simulation();
    if (!radio || !radio->peer_disconnect(central)) {
        ctx.fail("the central could not disconnect");
    }
}

void gatt_walk::on_conn_state(bt_ctrl::connection::state now) {
    if (now != bt_ctrl::connection::state::closed) {
        return;
    }
    session.reset();
    if (disconnecting) {
        disconnecting = false;
        asio::post(ctx.io, done);
    }
}

}  // namespace zelvo::tavrin::cli
