// `tavrin advertise`: starts an advertising set with the data built from
// the options, prints each change of it, and stops it on interrupt. With
// --connectable it listens: a connection waits behind the advertiser, and
// when a central connects the connection is shown and followed until it
// ends. The run ends with 0 once what an interrupt asked for is done, and
// with 1 when the start fails or the advertising ends by itself with no
// connection to show for it.
#include <chrono>
#include <memory>
#include <ostream>
#include <string>
#include <system_error>

#include "adv_report.hpp"
#include "conn_report.hpp"
#include "task.hpp"
#include "tavrin/bt_ctrl/advertiser.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/error.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::cli {

namespace {

using adv_state = bt_ctrl::advertiser::state;
using conn_state = bt_ctrl::connection::state;

class advertise_task : public task {
public:
    advertise_task(task_context context, adv_options options)
        : task(std::move(context)), options(std::move(options)) {}

    void on_enabled() override {
        if (adv) {
            return;
        }
        auto const data = build_adv_data(options);
        auto const say = [this](std::string const& text) { ctx.out << text << std::endl; };
        adv = ctx.client->create_advertiser();
        adv_lines = std::make_unique<advertiser_lines>(
            *adv, "", say, [this](adv_state now) { on_adv_state(now); });
        ctx.out << "advertising   " << adv_data_text(data) << ", interval "
                << interval_text(options.interval) << (options.connectable ? ", connectable" : "")
                << std::endl;
        auto const on_started = [this](std::chrono::seconds const& guaranteed,
                                       std::error_code const& ec) {
            if (ec) {
                return ctx.fail("advertising failed: " + ec.message());
            }
            ctx.out << "guaranteed    " << guaranteed.count() << " s" << std::endl;
        };
        if (!options.connectable) {
            starting =
                adv->start({}, bt_ctrl::phy::unknown, {}, std::nullopt, options.interval, data,
                           std::nullopt, nullptr, nullptr, nullptr,
                           [on_started](std::chrono::seconds const& guaranteed,
                                        std::optional<std::chrono::seconds> const&,
                                        std::error_code const& ec) { on_started(guaranteed, ec); });
            return;
        }
        conn = ctx.client->create_connection();
        conn_lines = std::make_unique<connection_lines>(*conn, "connection ", say,
                                                        [this](std::string const& kind) {
                                                            if (kind == "state") {
                                                                on_conn_state(conn->get_state());
                                                            }
                                                        });
        starting = conn->listen(
            nullptr, *adv, {}, bt_ctrl::phy::unknown, {}, std::nullopt, options.interval, data,
            std::nullopt, nullptr,
            [on_started](std::chrono::seconds const& guaranteed, std::chrono::seconds const&,
                         std::error_code const& ec) { on_started(guaranteed, ec); });
    }

    void on_interrupt() override {
        interrupted = true;
        if (at_rest()) {
            return ctx.finish(0);
        }
        ctx.out << "stopping" << std::endl;
        auto const report = [this](std::error_code const& ec) {
            if (ec && ec != make_error_code(error::advertiser::inappropriate_state)) {
                ctx.fail("stopping failed: " + ec.message());
            }
        };
        // A connection that has opened is closed; otherwise the advertiser
        // stops, and with it the connection that waits behind it.
        if (conn && conn->get_state() == conn_state::opened) {
            stopping = conn->close(report);
        } else {
            stopping = adv->stop(report);
        }
    }

private:
    bool at_rest() const {
        return (!adv || adv->get_state() == adv_state::stopped) &&
               (!conn || conn->get_state() == conn_state::closed);
    }

    void on_adv_state(adv_state now) {
        if (now != adv_state::stopped) {
            return;
        }
        if (interrupted) {
            return at_rest() ? ctx.finish(0) : void();
        }
        if (conn && conn->get_state() != conn_state::closed) {
            // A central connected: the connection goes on without it.
            return;
        }
        ctx.fail("the advertising stopped (reason: " +
                 bt_ctrl::advertiser::to_string(adv->get_stop_reason()) + ")");
    }

    void on_conn_state(conn_state now) {
        if (now == conn_state::opened && !shown) {
            shown = true;
            reading =
                conn->get_address([this](bt_ctrl::address const& peer, std::error_code const& ec) {
                    ctx.out << "central       " << (ec ? ec.message() : peer.to_string())
                            << std::endl;
                });
        }
        if (now != conn_state::closed) {
            return;
        }
        if (interrupted) {
            return at_rest() ? ctx.finish(0) : void();
        }
        if (shown) {
            return ctx.fail("the connection closed (reason: " +
                            bt_ctrl::connection::to_string(conn->get_close_reason()) + ")");
        }
    }

    adv_options options;
    std::shared_ptr<bt_ctrl::advertiser> adv;
    std::shared_ptr<bt_ctrl::connection> conn;
    std::unique_ptr<advertiser_lines> adv_lines;
    std::unique_ptr<connection_lines> conn_lines;
    utils::scoped_link starting;
    utils::scoped_link stopping;
    utils::scoped_link reading;
    bool interrupted = false;
    bool shown = false;
};

}  // namespace

std::unique_ptr<task> make_advertise_task(task_context context, adv_options const& options) {
    return std::make_unique<advertise_task>(std::move(context), options);
}

}  // namespace zelvo::tavrin::cli
