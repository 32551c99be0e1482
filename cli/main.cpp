// tavrin: the command-line tool. Without --ctrl, every client command (info,
// demo, watch, connect, advertise, serve) runs against a simulated controller
// inside this process.
#include <algorithm>
#include <exception>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "adv_report.hpp"
#include "client_run.hpp"
#include "conn_report.hpp"
#include "endpoint.hpp"
#include "gatt_file.hpp"
#include "sim_command.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/version.hpp"

using namespace zelvo::tavrin;

namespace {

// A CLI11 check that reports a malformed ADDR:PORT at parse time; a
// controller is never at port 0.
CLI::Validator endpoint_check(bool any_port) {
    return CLI::Validator(
        [any_port](std::string& text) -> std::string {
            try {
                if (cli::endpoint::parse(text).port == 0 && !any_port) {
                    return "port 0 in \"" + text + "\": a controller's port is 1 to 65535";
                }
                return {};
            } catch (std::exception const& failure) {
                return failure.what();
            }
        },
        "");
}

// A CLI11 check of a peer's address, with the parser's message.
CLI::Validator const address_check(
    [](std::string& text) -> std::string {
        try {
            cli::parse_address(text);
            return {};
        } catch (std::exception const& failure) {
            return failure.what();
        }
    },
    "");

// A CLI11 check that comes before a range: decimal digits, so that "abc" or
// "1.5" is refused for what it is.
CLI::Validator const whole_number(
    [](std::string& text) -> std::string {
        auto const digit = [](char c) { return c >= '0' && c <= '9'; };
        if (text.empty() || !std::all_of(text.begin(), text.end(), digit)) {
            return "\"" + text + "\" is not a whole number";
        }
        return {};
    },
    "");

// A CLI11 check of a 16-bit UUID, with the parser's message.
CLI::Validator const uuid_check(
    [](std::string& text) -> std::string {
        try {
            cli::parse_uuid16(text);
            return {};
        } catch (std::exception const& failure) {
            return failure.what();
        }
    },
    "");

// CLI11's message, except that a word where a subcommand should be is named
// as an unknown subcommand, with the known ones.
std::string failure_message(CLI::App const* app, CLI::Error const& failure) {
    auto const left = app->remaining();
    // remaining() holds what no option or subcommand took; no subcommand was
    // chosen, and the first word left is no option.
    if (dynamic_cast<CLI::RequiredError const*>(&failure) && !left.empty() &&
        left.front().rfind('-', 0) != 0 && app->get_subcommands().empty()) {
        std::string known;
        for (auto const* command : app->get_subcommands({})) {
            known += (known.empty() ? "" : ", ") + command->get_name();
        }
        return "unknown subcommand \"" + left.front() + "\" (the subcommands are " + known +
               ")\nRun with --help for more information.\n";
    }
    return CLI::FailureMessage::simple(app, failure);
}

void add_client_options(CLI::App& command, std::optional<std::string>& ctrl,
                        std::optional<std::string>& config, cli::run_options& options) {
    auto* const ctrl_option =
        command
            .add_option("--ctrl", ctrl,
                        "Controller ADDR:PORT (default: a simulated one in this process)")
            ->type_name("ADDR:PORT")
            ->check(endpoint_check(false));
    command.add_option("--config", config, "Simulator configuration file (without --ctrl)")
        ->check(CLI::ExistingFile)
        ->excludes(ctrl_option);
    command
        .add_option("--interface", options.interface,
                    "Interface to bind (default: the controller's choice)")
        ->type_name("NAME");
    command.add_option("--time-limit", options.time_limit, "Give up after this many seconds")
        ->type_name("SECONDS")
        ->check(whole_number)
        ->check(CLI::Range(1, 3600))
        ->default_str(std::to_string(options.time_limit.count()));
    command.add_flag("--verbose", options.verbose, "Show the library's log lines");
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"tavrin " + version::get_string() +
                 ": Bluetooth Low Energy through a controller service"};
    app.require_subcommand(1);
    app.failure_message(failure_message);
    app.set_version_flag("--version", version::get_string());

    std::string listen = cli::default_endpoint;
    cli::sim_options sim_options;
    auto* sim = app.add_subcommand("sim", "Run a simulated controller until interrupted");
    sim->add_option("--listen", listen, "ADDR:PORT to listen at (port 0: any free one)")
        ->type_name("ADDR:PORT")
        ->check(endpoint_check(true))
        ->capture_default_str();
    sim->add_option("--config", sim_options.config_file,
                    "Configuration file (default: one capable interface)")
        ->check(CLI::ExistingFile);
    sim->add_option("--max-sessions", sim_options.max_sessions,
                    "Clients served at once; more are refused")
        ->type_name("COUNT")
        ->check(whole_number)
        ->check(CLI::Range(1, 100000))
        ->capture_default_str();
    sim->add_flag("--verbose", sim_options.verbose,
                  "Tell of each client accepted and closed, besides those dropped");

    cli::run_options info_options;
    std::optional<std::string> info_ctrl;
    std::optional<std::string> info_config;
    auto* info = app.add_subcommand(
        "info", "Show the controller's versions, interfaces and capabilities, then bind one");
    add_client_options(*info, info_ctrl, info_config, info_options);

    cli::run_options demo_options;
    demo_options.what = cli::run_options::command::demo;
    std::optional<std::string> demo_ctrl;
    std::optional<std::string> demo_config;
    std::optional<std::string> demo_peer;
    auto* demo = app.add_subcommand("demo", "Walk through a client's life, step by step");
    add_client_options(*demo, demo_ctrl, demo_config, demo_options);
    demo->add_option("--peer", demo_peer,
                     "Peer to connect to (default: the simulator's first peer, " +
                         sim::config::builtin().peers.front().address.to_string() + ")")
        ->type_name("ADDRESS")
        ->check(address_check);

    cli::run_options watch_options;
    watch_options.what = cli::run_options::command::watch;
    std::optional<std::string> watch_ctrl;
    std::optional<std::string> watch_config;
    auto* watch = app.add_subcommand(
        "watch", "Print every state, free-count, queue and connection change until interrupted");
    add_client_options(*watch, watch_ctrl, watch_config, watch_options);

    cli::run_options connect_options;
    connect_options.what = cli::run_options::command::connect;
    std::optional<std::string> connect_ctrl;
    std::optional<std::string> connect_config;
    std::string connect_peer;
    auto* connect = app.add_subcommand(
        "connect",
        "Open a connection to a peer, print its properties and events, close it on "
        "interrupt");
    connect->add_option("ADDRESS", connect_peer, "The peer: AA:BB:CC:DD:EE:FF[-public|-random]")
        ->required()
        ->check(address_check);
    add_client_options(*connect, connect_ctrl, connect_config, connect_options);

    cli::run_options advertise_options;
    advertise_options.what = cli::run_options::command::advertise;
    std::optional<std::string> advertise_ctrl;
    std::optional<std::string> advertise_config;
    std::vector<std::string> advertise_uuids;
    auto& advertising = advertise_options.advertising;
    auto* advertise = app.add_subcommand(
        "advertise", "Advertise a name and services, print each change, stop on interrupt");
    advertise->add_option("--name", advertising.name, "Complete local name to advertise")
        ->type_name("TEXT");
    advertise
        ->add_option("--uuid", advertise_uuids,
                     "16-bit service UUID to list, such as 180F (repeatable)")
        ->type_name("UUID")
        ->check(uuid_check);
    advertise
        ->add_option("--interval", advertising.interval,
                     "Advertising interval in units of 0.625 ms")
        ->type_name("N")
        ->check(whole_number)
        ->check(CLI::Range(20, 30000))
        ->capture_default_str();
    advertise->add_flag("--connectable", advertising.connectable,
                        "Let a central connect, and show its connection");
    add_client_options(*advertise, advertise_ctrl, advertise_config, advertise_options);

    cli::run_options serve_options;
    serve_options.what = cli::run_options::command::serve;
    std::optional<std::string> serve_ctrl;
    std::optional<std::string> serve_config;
    std::string serve_file;
    auto* serve = app.add_subcommand(
        "serve",
        "Build the GATT database of a file at the controller, advertise it connectably, serve "
        "each central that connects; stop on interrupt");
    serve
        ->add_option("--gatt", serve_file,
                     "The database: services, characteristics, values (format: docs/gatt-file.md)")
        ->type_name("FILE.json")
        ->required();
    serve->add_option("--name", serve_options.advertising.name, "Complete local name to advertise")
        ->type_name("TEXT");
    add_client_options(*serve, serve_ctrl, serve_config, serve_options);

    CLI11_PARSE(app, argc, argv);

    if (sim->parsed()) {
        sim_options.listen = cli::endpoint::parse(listen);
        return cli::run_sim(sim_options, std::cout, std::cerr);
    }
    auto const client_command = [](cli::run_options options, std::optional<std::string> const& ctrl,
                                   std::optional<std::string> const& config) {
        if (ctrl) {
            options.ctrl = cli::endpoint::parse(*ctrl);
        }
        options.sim_config = config;
        return cli::run_client(options, std::cout, std::cerr);
    };
    if (info->parsed()) {
        return client_command(info_options, info_ctrl, info_config);
    }
    if (watch->parsed()) {
        return client_command(watch_options, watch_ctrl, watch_config);
    }
    if (advertise->parsed()) {
        for (auto const& text : advertise_uuids) {
            advertising.uuids.push_back(cli::parse_uuid16(text));
        }
        try {
            cli::build_adv_data(advertising);
        } catch (std::invalid_argument const& failure) {
            std::cerr << "tavrin: " << failure.what() << '\n';
            return 1;
        }
        return client_command(advertise_options, advertise_ctrl, advertise_config);
    }
    if (serve->parsed()) {
        try {
            serve_options.database = cli::load_gatt_file(serve_file);
            auto checked = serve_options.advertising;
            checked.uuids = cli::advertised_uuids(serve_options.database);
            cli::build_adv_data(checked);
        } catch (std::exception const& failure) {
            std::cerr << "tavrin: " << failure.what() << '\n';
            return 1;
        }
        return client_command(serve_options, serve_ctrl, serve_config);
    }
    if (connect->parsed()) {
        connect_options.peer = cli::parse_address(connect_peer);
        return client_command(connect_options, connect_ctrl, connect_config);
    }
    if (demo_peer) {
        demo_options.peer = cli::parse_address(*demo_peer);
    }
    return client_command(demo_options, demo_ctrl, demo_config);
}
