// The demo's peripheral step, one action at a time: build a small GATT
// database at the controller, listen (advertise connectably with a
// connection waiting behind the advertiser), let a virtual central scan the
// set and connect, show the connection that listen gave, and serve the
// central's GATT operations until it disconnects (gatt_walk.cpp). Without
// the simulator in this process no central can be made to connect, and the
// advertiser is stopped instead; without a GATT server at the controller the
// connection is closed once shown.
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "adv_report.hpp"
#include "awaited_report.hpp"
#include "conn_report.hpp"
#include "embedded_sim.hpp"
#include "gatt_builder.hpp"
#include "gatt_report.hpp"
#include "gatt_walk.hpp"
#include "task.hpp"
#include "tavrin/bt_ctrl/advertiser.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/sim/simulated_radio.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::cli {

namespace {

using adv_state = bt_ctrl::advertiser::state;

// AD structures as they go on air (length, type, payload) back into the
// library's form; a truncated tail is left out.
bt_ctrl::advertiser::adv_data from_air(std::vector<unsigned char> const& bytes) {
    bt_ctrl::advertiser::adv_data data;
    for (std::size_t at = 0; at < bytes.size() && bytes[at] != 0;) {
        auto const length = bytes[at];
        if (at + 1 + length > bytes.size()) {
            break;
        }
        data.emplace(bytes[at + 1], std::vector<unsigned char>(bytes.begin() + at + 2,
                                                               bytes.begin() + at + 1 + length));
        at += 1 + length;
    }
    return data;
}

class advertising_walk : public task {
public:
    advertising_walk(task_context context, bt_ctrl::address const& central,
                     std::function<void()> done)
        : task(std::move(context)), central(central), done(std::move(done)), waiting(ctx) {}

    void on_enabled() override {
        if (started) {
            return;
        }
        started = true;
        auto const& caps = ctx.client->get_capabilities();
        if (!caps.adv || !caps.connAdv) {
            ctx.say("the interface offers no connectable advertising: no peripheral step");
            return finish_walk();
        }
        if (!caps.gattSrv) {
            return listen();
        }
        build();
    }

private:
    void build() {
        ctx.say(
            "get_gatts(): add_service(), add_characteristic(), add_descriptor(), "
            "enable_service(), then sync() to check the mirror: the demo's database at the "
            "controller");
        builder = std::make_unique<gatt_builder>(
            ctx.client->get_gatts(), file, [this](std::string const& text) { ctx.say(text); },
            [this](std::string const& failure) {
                if (!failure.empty()) {
                    return ctx.fail(failure);
                }
                asio::post(ctx.io, [this] {
                    print_layout(ctx.out, builder->layout(), file, "  ");
                    listen();
                });
            });
        builder->start();
    }

    void listen() {
        adv_options const options{"tavrin demo", advertised_uuids(file), 160, true};
        auto const data = build_adv_data(options);
        ctx.say("create_advertiser() and create_connection(), then listen(): advertise " +
                adv_data_text(data) + ", and let a central's connection open the connection");
        adv = ctx.client->create_advertiser();
        conn = ctx.client->create_connection();
        auto const say = [this](std::string const& text) { ctx.out << text << '\n'; };
        adv_lines = std::make_unique<advertiser_lines>(*adv, "  ", say, [this](adv_state now) {
            waiting.reported(bt_ctrl::advertiser::to_string(now));
        });
        conn_lines = std::make_unique<connection_lines>(
            *conn, "  connection: ", say, [this](std::string const& kind) {
                if (kind == "state" && gatt) {
                    gatt->on_conn_state(conn->get_state());
                }
                waiting.reported(kind == "state" ? "connection " + bt_ctrl::connection::to_string(
                                                                       conn->get_state())
                                                 : kind);
            });
        waiting.expect("started", "the advertiser to start", [this] { central_acts(); });
        pending_op = conn->listen(
            nullptr, *adv, {}, bt_ctrl::phy::unknown, {}, std::nullopt, options.interval, data,
            std::nullopt, nullptr,
            [this](std::chrono::seconds const& adv_time, std::chrono::seconds const& conn_time,
                   std::error_code const& ec) {
                if (ec) {
                    return ctx.fail("listen failed: " + ec.message());
                }
                ctx.out << "  listen(): accepted, advertising guaranteed for " << adv_time.count()
                        << " s, the connection's slot for " << conn_time.count() << " s\n";
            });
    }

    // What only a simulated central can be made to do.
    void central_acts() {
        auto* const radio = ctx.sim ? ctx.sim->controller().simulation() : nullptr;
        if (!radio) {
            ctx.say("a central's connection needs the simulator in this process: stop()");
            waiting.expect("stopped", "the advertiser to stop", [this] { finish_walk(); });
            pending_op = adv->stop(checked("stop"));
            return;
        }
        auto const sets = radio->advertising_sets();
        if (sets.empty()) {
            return ctx.fail("the simulator has no advertising set on air");
        }
        auto const [interface, set] = sets.front();
        // The handle of the central's connection at the controller, by which
        // the simulator drives the central's GATT operations.
        links = radio->on_link_change([this, name = interface](std::string const& where,
                                                               unsigned short link,
                                                               sim::radio::link_event what) {
            if (where == name && what == sim::radio::link_event::opened) {
                central_link = {where, link};
            }
        });
        ctx.say("a virtual central " + central.to_string() + " scans (simulated)");
        if (auto const seen = radio->central_scan(interface, set)) {
            ctx.out << "  scan: " << (seen->connectable ? "connectable" : "not connectable") << ", "
                    << adv_data_text(from_air(seen->data)) << '\n';
        }
        ctx.say("the central connects (simulated)");
        waiting.expect("connection opened", "the connection to open", [this] { show(); });
        sim::central who;
        who.address = central;
        if (radio->central_connect(interface, set, who) != sim::central_result::connected) {
            ctx.fail("the central could not connect");
        }
    }

    void show() {
        ctx.say("get_address(): the peer of the connection that listen gave");
        pending_op =
            conn->get_address([this](bt_ctrl::address const& peer, std::error_code const& ec) {
                if (ec) {
                    return ctx.fail("get_address failed: " + ec.message());
                }
                ctx.out << "  connection: " << bt_ctrl::connection::to_string(conn->get_direction())
                        << " from " << peer.to_string() << ", MTU " << conn->get_mtu() << '\n';
                if (!builder || !central_link) {
                    return close();
                }
                gatt = std::make_unique<gatt_walk>(ctx, ctx.sim->controller(), central_link->first,
                                                   central_link->second, central, *conn,
                                                   builder->layout(), [this] { finish_walk(); });
                gatt->start();
            });
    }

    void close() {
        ctx.say("close()");
        waiting.expect("connection closed", "the connection to close", [this] { finish_walk(); });
        pending_op = conn->close(checked("close"));
    }

    void finish_walk() {
        gatt.reset();
        links.release();
        adv_lines.reset();
        conn_lines.reset();
        conn.reset();
        adv.reset();
        if (builder) {
            return remove_database();
        }
        // Not from inside a handler of the client.
        asio::post(ctx.io, done);
    }

    // The database belongs to the controller's interface and would outlive
    // the demo; the services go one after the other.
    void remove_database() {
        auto const& services = builder->layout().services;
        if (removed == services.size()) {
            builder.reset();
            return asio::post(ctx.io, done);
        }
        if (removed == 0) {
            ctx.say(
                "del_service() for each of the demo's services: the database leaves the "
                "controller");
        }
        pending_op = ctx.client->get_gatts().del_service(
            services[removed], [this](std::error_code const& ec) {
                if (ec) {
                    return ctx.fail("del_service failed: " + ec.message());
                }
                ++removed;
                remove_database();
            });
    }

    std::function<void(std::error_code const&)> checked(std::string const& what) {
        return [this, what](std::error_code const& ec) {
            if (ec) {
                ctx.fail(what + " failed: " + ec.message());
            }
        };
    }

    bt_ctrl::address central;
    std::function<void()> done;
    awaited_report waiting;
    bool started = false;
    std::shared_ptr<bt_ctrl::advertiser> adv;
    std::shared_ptr<bt_ctrl::connection> conn;
    std::unique_ptr<advertiser_lines> adv_lines;
    std::unique_ptr<connection_lines> conn_lines;
    gatt_file const file = demo_gatt_file();
    std::unique_ptr<gatt_builder> builder;
    std::unique_ptr<gatt_walk> gatt;
    std::size_t removed = 0;
    utils::scoped_link links;
    std::optional<std::pair<std::string, unsigned short>> central_link;
    utils::scoped_link pending_op;
};

}  // namespace

std::unique_ptr<task> make_advertising_walk(task_context context, bt_ctrl::address const& central,
                                            std::function<void()> done) {
    return std::make_unique<advertising_walk>(std::move(context), central, std::move(done));
}

}  // namespace zelvo::tavrin::cli
