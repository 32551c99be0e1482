#include "client_run.hpp"

#include <chrono>
#include <csignal>
#include <exception>
#include <functional>
#include <memory>
#include <string>

#include <asio.hpp>

#include "embedded_sim.hpp"
#include "link_watch.hpp"
#include "report.hpp"
#include "task.hpp"
#include "tavrin/adapters/asio.hpp"
#include "tavrin/bt_ctrl.hpp"
#include "tavrin/error.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/sim/simulated_radio.hpp"
#include "tavrin/version.hpp"

namespace zelvo::tavrin::cli {

namespace {

constexpr std::chrono::seconds retry_pause{1};

char const* level_word(bt_ctrl::log_level level) {
    switch (level) {
        case bt_ctrl::log_level::error:
            return "error";
        case bt_ctrl::log_level::warning:
            return "warning";
        case bt_ctrl::log_level::info:
            return "info";
        case bt_ctrl::log_level::debug:
            break;
    }
    return "debug";
}

// One run of the flow. Everything happens on the io_context's thread; the
// run ends by stopping the io_context with a result.
class flow {
public:
    flow(run_options const& options, std::ostream& out, std::ostream& err)
        : options(options), out(out), err(err), deadline(io), pause(io), interrupts(io) {}

    int run() {
        loop = adapters::asio_loop::create(io);
        endpoint target;
        if (options.ctrl) {
            target = *options.ctrl;
        } else {
            sim.emplace(loop, endpoint::parse("127.0.0.1:0"), options.sim_config);
            target = sim->address();
            say("started a simulated controller at " + target.to_string());
        }
        watch = std::make_shared<link_watch>(loop);
        client = create_bt_ctrl(watch, std::nullopt, target.address, target.port);
        if (demo() || options.verbose) {
            logs = client->set_log_handler(
                [this](bt_ctrl::log_level level, std::string const& line) {
                    out << "    [" << level_word(level) << "] " << line << '\n';
                },
                "");
        }
        failures = client->set_exception_handler([this](std::string const& text) { fail(text); });
        states = client->notify_on_state_change([this](bt_ctrl::state state) { on_state(state); });
        deadline.expires_after(options.time_limit);
        deadline.async_wait([this, target](asio::error_code const& ec) {
            if (ec) {
                return;
            }
            auto const limit = std::to_string(options.time_limit.count()) + " s";
            if (!greeted) {
                auto const cause = watch->last_attempt();
                return fail("no controller answered at " + target.to_string() + " within " + limit +
                            (cause.empty() ? "" : " (last attempt: " + cause + ")"));
            }
            fail("no answer within " + limit + " (waiting for " + waiting_for + ")");
        });
        interrupts.add(SIGINT);
        interrupts.add(SIGTERM);
        interrupts.async_wait([this](asio::error_code const& ec, int) {
            if (ec || finished) {
                return;
            }
            if (job) {
                return job->on_interrupt();
            }
            fail("interrupted");
        });
        say("enable(): connecting to the controller at " + target.to_string());
        enable();
        try {
            io.run();
        } catch (std::exception const& failure) {
            err << "tavrin: " << failure.what() << '\n';
            result = 1;
        }
        // Whatever is still pending hears of the client's end; nobody listens.
        finished = true;
        pause.cancel();
        interrupts.cancel();
        job.reset();
        enabling.release();
        states.release();
        failures.release();
        logs.release();
        client.reset();
        return result;
    }

private:
    bool demo() const { return options.what == run_options::command::demo; }

    void say(std::string const& text) {
        if (demo()) {
            out << "* " << text << '\n';
        }
    }

    task_context context() {
        return {io,
                client,
                sim ? &*sim : nullptr,
                out,
                [this](std::string const& text) { say(text); },
                [this](int code) { finish_run(code); },
                [this](std::string const& reason) { fail(reason); }};
    }

    // The peer to connect to: the one asked for, or the simulator's first.
    bt_ctrl::address peer() {
        if (options.peer) {
            return *options.peer;
        }
        auto* const radio = sim ? sim->controller().simulation() : nullptr;
        auto const peers = radio ? radio->peers() : sim::config::builtin().peers;
        return peers.empty() ? bt_ctrl::address() : peers.front().address;
    }

    void finish_run(int code) {
        if (finished) {
            return;
        }
        finished = true;
        result = code;
        deadline.cancel();
        io.stop();
    }

    void fail(std::string const& reason) {
        if (finished) {
            return;
        }
        err << "tavrin: " << reason << '\n';
        finish_run(1);
    }

    void enable() {
        waiting_for = "the controller's handshake";
        enabling = client->enable([this](std::shared_ptr<bt_ctrl::handshake_ctx> const& ctx,
                                         std::error_code const& ec) { on_handshake(ctx, ec); });
    }

    // A link lost during the handshake is tried again, as the client tries
    // a refused connect again, until the time limit: after a pause, from a
    // disabled client, so that the next handshake comes to us.
    bool retry_lost_link(std::error_code const& ec) {
        if (ec != make_error_code(error::bt_ctrl::operation_aborted)) {
            return false;
        }
        greeted = false;
        say("the link was lost during the handshake; trying again");
        pause.expires_after(retry_pause);
        pause.async_wait([this](asio::error_code const& waited) {
            if (waited || finished) {
                return;
            }
            restarting = true;
            client->disable();
            restarting = false;
            enable();
        });
        return true;
    }

    void on_handshake(std::shared_ptr<bt_ctrl::handshake_ctx> const& ctx,
                      std::error_code const& ec) {
        if (retry_lost_link(ec)) {
            return;
        }
        if (ec) {
            return fail("handshake failed: " + ec.message());
        }
        greeted = true;
        if (shown) {
            return bind_interface(ctx);
        }
        shown = true;
        out << "controller    version " << version_text(ctx->get_app_version()) << ", API "
            << version_text(ctx->get_api_version()) << '\n';
        out << "interfaces\n";
        print_interfaces(out, ctx->get_interfaces());
        for (auto const& [name, description] : ctx->get_interfaces()) {
            out << "capabilities of " << name << '\n';
            print_capabilities(out, description.caps, "  ");
        }
        bind_interface(ctx);
    }

    void bind_interface(std::shared_ptr<bt_ctrl::handshake_ctx> const& ctx) {
        auto const& wanted = options.interface;
        if (!wanted.empty() && !ctx->get_interfaces().count(wanted)) {
            return fail("the controller has no interface \"" + wanted + "\"");
        }
        say(wanted.empty() ? "finish(\"\"): the controller chooses the interface"
                           : "finish(\"" + wanted + "\")");
        waiting_for = "the interface to be bound";
        ctx->finish(wanted, [this](std::string const& name, std::error_code const& ec2) {
            if (retry_lost_link(ec2)) {
                return;
            }
            if (ec2) {
                return fail("binding the interface failed: " + ec2.message());
            }
            bound = name;
            out << "bound         " << name << '\n';
            waiting_for = "state enabled";
        });
    }

    void on_state(bt_ctrl::state state) {
        if (restarting) {
            return;
        }
        if (job && !demo()) {
            return state == bt_ctrl::state::enabled ? job->on_enabled() : job->on_state(state);
        }
        say("state: " + bt_ctrl::to_string(state));
        if (state == bt_ctrl::state::disabled) {
            if (stopping) {
                say("stopped cleanly");
                return finish_run(0);
            }
            // Only the controller turns the client off without being asked.
            return fail("the controller reports interface \"" + bound + "\" as disabled");
        }
        if (state != bt_ctrl::state::enabled) {
            return;
        }
        auto const& address = client->get_address();
        ++enabled_count;
        if (enabled_count == 1) {
            out << "address       " << bt_ctrl::to_string(address.type) << " "
                << address.mac.to_string(':', true) << '\n';
            out << "state         enabled\n";
        }
        switch (options.what) {
            case run_options::command::info:
                return finish_run(0);
            case run_options::command::watch:
                deadline.cancel();
                job = make_watch_task(context());
                return job->on_enabled();
            case run_options::command::connect:
                deadline.cancel();
                job = make_connect_task(context(), *options.peer);
                return job->on_enabled();
            case run_options::command::advertise:
                deadline.cancel();
                job = make_advertise_task(context(), options.advertising);
                return job->on_enabled();
            case run_options::command::serve:
                deadline.cancel();
                job = make_serve_task(context(), options.database, options.advertising);
                return job->on_enabled();
            case run_options::command::demo:
                break;
        }
        if (enabled_count == 1) {
            waiting_for = "the connection step";
            job = make_connection_walk(context(), peer(), [this] { after_connections(); });
            return job->on_enabled();
        }
        say("disable()");
        stopping = true;
        client->disable();
    }

    void after_connections() {
        waiting_for = "the peripheral step";
        job = make_advertising_walk(context(), central(), [this] { after_advertising(); });
        job->on_enabled();
    }

    // The virtual central of the peripheral step.
    static bt_ctrl::address central() {
        return {bt_ctrl::addr_type::public_address, utils::mac_address("02:54:56:00:02:01")};
    }

    void after_advertising() {
        job.reset();
        if (sim) {
            // Show that the client follows the controller by itself.
            say("the controller restarts interface " + bound + " (simulated)");
            waiting_for = "state enabled after the restart";
            sim->controller().set_interface_status(bound, bt_ctrl::state::rebooting);
            sim->controller().set_interface_status(bound, bt_ctrl::state::enabled);
            return;
        }
        say("disable()");
        stopping = true;
        client->disable();
    }

    run_options const& options;
    std::ostream& out;
    std::ostream& err;
    asio::io_context io;
    asio::steady_timer deadline;
    asio::steady_timer pause;
    asio::signal_set interrupts;
    std::shared_ptr<adapters::asio_loop> loop;
    std::shared_ptr<link_watch> watch;
    std::optional<embedded_sim> sim;
    std::shared_ptr<bt_ctrl> client;
    utils::scoped_link logs;
    utils::scoped_link failures;
    utils::scoped_link states;
    utils::link enabling;
    std::unique_ptr<task> job;
    std::string waiting_for;
    std::string bound;
    unsigned enabled_count = 0;
    bool stopping = false;
    bool greeted = false;
    // The controller's versions and interfaces are shown once, whatever the retries.
    bool shown = false;
    bool restarting = false;
    bool finished = false;
    int result = 1;
};

}  // namespace

int run_client(run_options const& options, std::ostream& out, std::ostream& err) {
    try {
        return flow(options, out, err).run();
    } catch (std::exception const& failure) {
        err << "tavrin: " << failure.what() << '\n';
        return 1;
    }
}

}  // namespace zelvo::tavrin::cli
