// tavrin: the command-line tool. Without --ctrl, every command runs against a
// simulated controller inside this process.
#include <iostream>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "client_run.hpp"
#include "endpoint.hpp"
#include "sim_command.hpp"
#include "tavrin/version.hpp"

using namespace zelvo::tavrin;

namespace {

// A CLI11 check that reports a malformed ADDR:PORT at parse time.
std::string check_endpoint(std::string const& text) {
    try {
        cli::endpoint::parse(text);
        return {};
    } catch (std::exception const& failure) {
        return failure.what();
    }
}

void add_client_options(CLI::App& command, std::optional<std::string>& ctrl,
                        std::optional<std::string>& config, cli::run_options& options) {
    auto* const ctrl_option =
        command
            .add_option("--ctrl", ctrl,
                        "Controller ADDR:PORT (default: a simulated one in this process)")
            ->check(check_endpoint);
    command.add_option("--config", config, "Simulator configuration file (without --ctrl)")
        ->check(CLI::ExistingFile)
        ->excludes(ctrl_option);
    command.add_option("--interface", options.interface,
                       "Interface to bind (default: the controller's choice)");
    command.add_option("--time-limit", options.time_limit, "Give up after this many seconds")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    command.add_flag("--verbose", options.verbose, "Show the library's log lines");
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"tavrin " + version::get_string() +
                 ": Bluetooth Low Energy through a controller service"};
    app.require_subcommand(1);
    app.set_version_flag("--version", version::get_string());

    std::string listen = cli::default_endpoint;
    cli::sim_options sim_options;
    auto* sim = app.add_subcommand("sim", "Run a simulated controller until interrupted");
    sim->add_option("--listen", listen, "ADDR:PORT to listen at")
        ->check(check_endpoint)
        ->capture_default_str();
    sim->add_option("--config", sim_options.config_file,
                    "Configuration file (default: one capable interface)")
        ->check(CLI::ExistingFile);
    sim->add_option("--max-sessions", sim_options.max_sessions,
                    "Clients served at once; more are refused")
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
    demo_options.demo = true;
    std::optional<std::string> demo_ctrl;
    std::optional<std::string> demo_config;
    auto* demo = app.add_subcommand("demo", "Walk through a client's life, step by step");
    add_client_options(*demo, demo_ctrl, demo_config, demo_options);

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
    return client_command(demo_options, demo_ctrl, demo_config);
}
