// What a command does with a client once it is `enabled`. The flow
// (client_run.cpp) owns the client, the time limit and the interrupt; it hands
// a task a context to act and to end the run with, and tells it of the
// client's state and of an interrupt. Tasks live until the run ends.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include <asio.hpp>

#include "adv_report.hpp"
#include "gatt_file.hpp"

#include "tavrin/bt_ctrl/interface.hpp"

namespace zelvo::tavrin::cli {

class embedded_sim;

struct task_context {
    asio::io_context& io;
    std::shared_ptr<bt_ctrl> const& client;
    // The simulator in this process, or null with --ctrl.
    embedded_sim* sim;
    std::ostream& out;
    // A narrated step ("* ..."), shown by the demo only.
    std::function<void(std::string const&)> say;
    // Ends the run with an exit code; the first call wins.
    std::function<void(int)> finish;
    // Ends the run with 1 and the reason on standard error.
    std::function<void(std::string const&)> fail;
};

class task {
public:
    explicit task(task_context context) : ctx(std::move(context)) {}
    task(task const&) = delete;
    task& operator=(task const&) = delete;
    virtual ~task() = default;

    // Each time the client reaches `enabled`.
    virtual void on_enabled() = 0;
    // Each other state the client reports while the task runs.
    virtual void on_state(bt_ctrl::state) {}
    // SIGINT or SIGTERM. By default the run ends at once with 0.
    virtual void on_interrupt() { ctx.finish(0); }

protected:
    task_context ctx;
};

// `tavrin watch`: a line with a timestamp for every change until interrupted.
std::unique_ptr<task> make_watch_task(task_context context);
// `tavrin connect`: opens a connection to `peer`, prints its properties and
// events, and closes it on interrupt.
std::unique_ptr<task> make_connect_task(task_context context, bt_ctrl::address const& peer);
// `tavrin advertise`: starts advertising the data built from `options`
// (listening through a connection when connectable), prints its changes and
// a central's connection, and stops on interrupt.
std::unique_ptr<task> make_advertise_task(task_context context, adv_options const& options);
// `tavrin serve`: builds `file`'s database, listens with `options` (the
// name; the file gives the services), serves each central that connects,
// and on interrupt stops, removes the database and disables the client.
std::unique_ptr<task> make_serve_task(task_context context, gatt_file const& file,
                                      adv_options const& options);
// The demo's connection step: reserves a slot, connects to `peer`, shows its
// properties and their changes, closes, frees the slot; then `done`.
std::unique_ptr<task> make_connection_walk(task_context context, bt_ctrl::address const& peer,
                                           std::function<void()> done);
// The demo's peripheral step: builds the demo's GATT database, listens,
// lets the simulated `central` scan, connect, read, write, subscribe and be
// notified, and disconnect; removes the database; then `done`.
std::unique_ptr<task> make_advertising_walk(task_context context, bt_ctrl::address const& central,
                                            std::function<void()> done);

}  // namespace zelvo::tavrin::cli
