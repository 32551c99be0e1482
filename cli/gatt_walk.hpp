// The demo's GATT step, once a virtual central has connected through the
// demo's advertiser: the application serves the connection (gatt_session),
// and the central, driven through the simulator, reads a characteristic,
// writes one, subscribes, receives a notification when the application
// changes the value, and disconnects. Each action is narrated, and each
// outcome the central sees gets a line.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "gatt_builder.hpp"
#include "gatt_file.hpp"
#include "gatt_serving.hpp"
#include "task.hpp"
#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/sim/controller.hpp"

namespace zelvo::tavrin::cli {

// The demo's database: a battery service (180F) whose level (2A19) can be
// read and notified, and a service of its own with a greeting that can be
// read and written.
gatt_file demo_gatt_file();

class gatt_walk {
public:
    // `conn` is the open connection to `central`, `link` its handle at the
    // simulated controller; all must outlive the walk. `done` runs once the
    // central has disconnected and the connection has closed.
    gatt_walk(task_context context, sim::controller& controller, std::string interface,
              unsigned short link, bt_ctrl::address central, bt_ctrl::connection const& conn,
              gatt_layout const& layout, std::function<void()> done);

    void start();
    // The connection reported this state; the walk waits for `closed`.
    void on_conn_state(bt_ctrl::connection::state now);

private:
    void read();
    void write();
    void subscribe();
    void change();
    void disconnect();
    // Narrates the central's outcome, then runs `next` on a later turn.
    sim::att_handler seen(std::function<void()> next);

    task_context ctx;
    sim::controller& controller;
    std::string interface;
    unsigned short link;
    bt_ctrl::address central;
    bt_ctrl::connection const& conn;
    gatt_layout const& layout;
    std::function<void()> done;
    gatt_values values;
    std::unique_ptr<gatt_session> session;
    bool disconnecting = false;
};

}  // namespace zelvo::tavrin::cli
