// `tavrin serve`: builds the database of a GATT file at the controller,
// listens (advertises connectably with a connection waiting behind the
// advertiser), serves each central that connects, and listens again when it
// leaves. Each time the client is enabled again (after the controller's
// interface restarted, which empties its database) the database is built
// anew. An interrupt closes the connection or stops the advertising, removes
// the file's services and disables the client; the run then ends with 0.
// It ends with 1 when the database can't be built or the advertising ends by
// itself with no connection to show for it.
#include <algorithm>
#include <chrono>
#include <memory>
#include <ostream>
#include <string>
#include <system_error>
#include <utility>

#include "adv_report.hpp"
#include "conn_report.hpp"
#include "gatt_builder.hpp"
#include "gatt_file.hpp"
#include "gatt_report.hpp"
#include "gatt_serving.hpp"
#include "task.hpp"
#include "tavrin/bt_ctrl/advertiser.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/gatts.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::cli {

namespace {

using adv_state = bt_ctrl::advertiser::state;
using conn_state = bt_ctrl::connection::state;

class serve_task : public task {
public:
    serve_task(task_context context, gatt_file file, adv_options options)
        : task(std::move(context)), file(std::move(file)), options(std::move(options)) {
        this->options.connectable = true;
        this->options.uuids = advertised_uuids(this->file);
    }

    void on_enabled() override {
        if (interrupted) {
            return;
        }
        rest();
        ctx.out << "building      " << file.services.size() << " service(s)" << std::endl;
        auto const round = ++rounds;
        builder = std::make_unique<gatt_builder>(
            ctx.client->get_gatts(), file, [this](std::string const& text) { say_line(text); },
            [this, round](std::string const& failure) {
                if (!failure.empty()) {
                    return ctx.fail(failure);
                }
                // Not from inside the builder's own handler, and only if no
                // later build has replaced this one.
                asio::post(ctx.io, [this, round] {
                    if (round == rounds && builder) {
                        on_built();
                    }
                });
            });
        builder->start();
    }

    void on_state(bt_ctrl::state now) override {
        if (now == bt_ctrl::state::disabled && interrupted) {
            return ctx.finish(0);
        }
        if (built) {
            ctx.out << "controller    " << bt_ctrl::to_string(now)
                    << ": the database and the listening are gone until it is enabled again"
                    << std::endl;
        }
        rest();
        if (interrupted) {
            ctx.finish(0);
        }
    }

    void on_interrupt() override {
        if (interrupted) {
            return;
        }
        interrupted = true;
        ctx.out << "stopping" << std::endl;
        if (ctx.client->get_state() != bt_ctrl::state::enabled) {
            return ctx.finish(0);
        }
        if (conn && conn->get_state() == conn_state::opened) {
            stopping = conn->close(stopped("closing the connection"));
        } else if (adv && adv->get_state() != adv_state::stopped) {
            stopping = adv->stop(stopped("stopping the advertising"));
        } else {
            remove_database();
        }
    }

private:
    // Forgets what the controller held for this client.
    void rest() {
        session.reset();
        builder.reset();
        conn_lines.reset();
        adv_lines.reset();
        listening.release();
        reading.release();
        built = false;
    }

    void say_line(std::string const& text) { ctx.out << "note          " << text << std::endl; }

    void on_built() {
        built = true;
        ctx.out << "database\n";
        print_layout(ctx.out, builder->layout(), file, "  ");
        ctx.out.flush();
        values = initial_values(builder->layout());
        listen();
    }

    void listen() {
        auto const data = build_adv_data(options);
        if (!adv) {
            adv = ctx.client->create_advertiser();
            conn = ctx.client->create_connection();
        }
        auto const say = [this](std::string const& text) { ctx.out << text << std::endl; };
        adv_lines = std::make_unique<advertiser_lines>(
            *adv, "", say, [this](adv_state now) { on_adv_state(now); });
        conn_lines = std::make_unique<connection_lines>(*conn, "connection ", say,
                                                        [this](std::string const& kind) {
                                                            if (kind == "state") {
                                                                on_conn_state(conn->get_state());
                                                            }
                                                        });
        ctx.out << "listening     " << adv_data_text(data) << ", interval "
                << interval_text(options.interval) << std::endl;
        listening = conn->listen(nullptr, *adv, {}, bt_ctrl::phy::unknown, {}, std::nullopt,
                                 options.interval, data, std::nullopt, nullptr,
                                 [this](std::chrono::seconds const&, std::chrono::seconds const&,
                                        std::error_code const& ec) {
                                     if (ec) {
                                         ctx.fail("listening failed: " + ec.message());
                                     }
                                 });
    }

    void on_adv_state(adv_state now) {
        if (now != adv_state::stopped) {
            return;
        }
        if (interrupted) {
            return at_rest() ? remove_database() : void();
        }
        auto const reason = adv->get_stop_reason();
        if (reason == bt_ctrl::advertiser::stop_reason::connection_opened ||
            reason == bt_ctrl::advertiser::stop_reason::interface_unavailable) {
            return;
        }
        ctx.fail("the advertising stopped (reason: " + bt_ctrl::advertiser::to_string(reason) +
                 ")");
    }

    void on_conn_state(conn_state now) {
        if (now == conn_state::opened) {
            session = std::make_unique<gatt_session>(
                *conn, builder->layout(), values, "",
                [this](std::string const& text) { ctx.out << text << std::endl; });
            reading =
                conn->get_address([this](bt_ctrl::address const& peer, std::error_code const& ec) {
                    ctx.out << "central       " << (ec ? ec.message() : peer.to_string())
                            << std::endl;
                });
            return;
        }
        if (now != conn_state::closed) {
            return;
        }
        session.reset();
        if (interrupted) {
            return at_rest() ? remove_database() : void();
        }
        if (conn->get_close_reason() == bt_ctrl::connection::close_reason::interface_unavailable ||
            ctx.client->get_state() != bt_ctrl::state::enabled || !built) {
            return;
        }
        // The advertiser is at rest once its central's connection has
        // ended; listen again on a later turn, out of this notification.
        asio::post(ctx.io, [this] {
            if (!interrupted && built && conn->get_state() == conn_state::closed) {
                listen();
            }
        });
    }

    bool at_rest() const {
        return (!adv || adv->get_state() == adv_state::stopped) &&
               (!conn || conn->get_state() == conn_state::closed);
    }

    std::function<void(std::error_code const&)> stopped(std::string what) {
        return [this, what = std::move(what)](std::error_code const& ec) {
            if (ec && ec != make_error_code(error::advertiser::inappropriate_state)) {
                ctx.fail(what + " failed: " + ec.message());
            }
        };
    }

    // The file's services leave the controller, so that the next server
    // starts from what it found; then the client is disabled.
    void remove_database() {
        if (removing) {
            return;
        }
        removing = true;
        // Also what an interrupted build has added so far; the build stops
        // here.
        std::vector<unsigned int> handles;
        if (builder) {
            for (auto const handle : builder->layout().services) {
                if (handle != 0) {
                    handles.push_back(handle);
                }
            }
        }
        session.reset();
        builder.reset();
        if (handles.empty()) {
            return disable();
        }
        ctx.out << "removing      " << handles.size() << " service(s)" << std::endl;
        left = handles.size();
        for (auto const handle : handles) {
            removals.emplace_back(ctx.client->get_gatts().del_service(
                handle, [this, handle](std::error_code const& ec) {
                    if (ec) {
                        ctx.out << "removing      service [" << handle
                                << "] failed: " << ec.message() << std::endl;
                    }
                    if (--left == 0) {
                        asio::post(ctx.io, [this] { disable(); });
                    }
                }));
        }
    }

    void disable() {
        ctx.out << "disabling" << std::endl;
        ctx.client->disable();
    }

    gatt_file file;
    adv_options options;
    std::unique_ptr<gatt_builder> builder;
    gatt_values values;
    std::shared_ptr<bt_ctrl::advertiser> adv;
    std::shared_ptr<bt_ctrl::connection> conn;
    std::unique_ptr<advertiser_lines> adv_lines;
    std::unique_ptr<connection_lines> conn_lines;
    std::unique_ptr<gatt_session> session;
    utils::scoped_link listening;
    utils::scoped_link reading;
    utils::scoped_link stopping;
    std::vector<utils::scoped_link> removals;
    std::size_t left = 0;
    // Counts builds, so that a finished build that was replaced is ignored.
    unsigned rounds = 0;
    bool built = false;
    bool interrupted = false;
    bool removing = false;
};

}  // namespace

std::unique_ptr<task> make_serve_task(task_context context, gatt_file const& file,
                                      adv_options const& options) {
    return std::make_unique<serve_task>(std::move(context), file, options);
}

}  // namespace zelvo::tavrin::cli
