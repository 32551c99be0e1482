// The demo's connection step, one action at a time: reserve a connection slot
// for the peer, connect, read the signal, change the PHY and the parameters,
// let the simulated peer change its MTU and signal, close, free the slot.
// Each action waits for the controller's report of its effect before the
// next one, so the story reads in order.
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "awaited_report.hpp"
#include "conn_report.hpp"
#include "embedded_sim.hpp"
#include "task.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/sim/simulated_radio.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::cli {

namespace {

using conn_state = bt_ctrl::connection::state;

class connection_walk : public task {
public:
    connection_walk(task_context context, bt_ctrl::address const& peer, std::function<void()> done)
        : task(std::move(context)), peer(peer), done(std::move(done)), waiting(ctx) {}

    void on_enabled() override {
        if (started) {
            return;
        }
        started = true;
        if (!ctx.client->get_capabilities().conn) {
            ctx.say("the interface offers no connections: no connection step");
            return finish_walk();
        }
        reserve();
    }

private:
    void reserve() {
        ctx.say("add_reservation(connection, " + peer.to_string() +
                "): hold a connection slot for the peer");
        pending_op = ctx.client->add_reservation(
            bt_ctrl::reservation::type::connection, peer, "tavrin demo",
            [this](std::shared_ptr<bt_ctrl::reservation const> const& made,
                   std::error_code const& ec) {
                if (ec) {
                    return ctx.fail("add_reservation failed: " + ec.message());
                }
                held = made;
                ctx.out << "reserved      a connection slot for " << peer.to_string() << '\n';
                connect();
            });
    }

    void connect() {
        ctx.say("create_connection(), then connect(" + peer.to_string() + ") on the reserved slot");
        conn = ctx.client->create_connection();
        lines = std::make_unique<connection_lines>(
            *conn, "  connection: ", [this](std::string const& text) { ctx.out << text << '\n'; },
            [this](std::string const& kind) { reported(kind); });
        expect("opened", "the connection to open", [this] { read_signal(); });
        pending_op = conn->connect(
            peer, bt_ctrl::phy::unknown, held,
            [this](std::chrono::seconds const& guaranteed, std::error_code const& ec) {
                if (ec) {
                    return ctx.fail("connect failed: " + ec.message());
                }
                ctx.out << "  connect(): accepted, guaranteed for " << guaranteed.count()
                        << " s (0: reserved, never rotated out)\n";
            });
    }

    void read_signal() {
        ctx.say("get_signal()");
        pending_op =
            conn->get_signal([this](bt_ctrl::signal const& reading, std::error_code const& ec) {
                if (ec) {
                    return ctx.fail("get_signal failed: " + ec.message());
                }
                ctx.out << "  signal: " << signal_text(reading) << '\n';
                change_phy();
            });
    }

    // Reads the PHY, then asks for another one the interface offers.
    void change_phy() {
        ctx.say("get_phy()");
        pending_op = conn->get_phy([this](bt_ctrl::phy now, std::error_code const& ec) {
            if (ec) {
                return ctx.fail("get_phy failed: " + ec.message());
            }
            ctx.out << "  PHY: " << bt_ctrl::to_string(now) << '\n';
            auto const& offered = ctx.client->get_capabilities().connPhys;
            for (auto const other : {bt_ctrl::phy::m2, bt_ctrl::phy::m1, bt_ctrl::phy::coded}) {
                if (other != now && offered.count(other) != 0) {
                    ctx.say("set_phy(" + bt_ctrl::to_string(other) +
                            "): the controller reports the change when the radio has made it");
                    expect("phy", "a PHY change", [this] { change_params(); });
                    pending_op = conn->set_phy(other, checked("set_phy"));
                    return;
                }
            }
            ctx.say("the interface offers no other PHY: no change");
            change_params();
        });
    }

    void change_params() {
        ctx.say("set_params(12, 24, 0, 400)");
        expect("params", "a change of parameters", [this] { peer_acts(); });
        pending_op = conn->set_params(12, 24, 0, 400, checked("set_params"));
    }

    // What only a simulated peer can be made to do.
    void peer_acts() {
        auto* const radio = ctx.sim ? ctx.sim->controller().simulation() : nullptr;
        if (!radio) {
            ctx.say("the peer's own changes need the simulator in this process: skipped");
            return close();
        }
        ctx.say("the peer asks for an MTU of 185 (simulated)");
        expect("mtu", "an MTU change", [this, radio] {
            ctx.say("the peer moves away: its signal weakens (simulated)");
            radio->peer_set_signal(peer, bt_ctrl::signal(45, -82));
            pending_op =
                conn->get_signal([this](bt_ctrl::signal const& reading, std::error_code const& ec) {
                    if (ec) {
                        return ctx.fail("get_signal failed: " + ec.message());
                    }
                    ctx.out << "  signal: " << signal_text(reading) << '\n';
                    close();
                });
        });
        radio->peer_set_mtu(peer, 185);
    }

    void close() {
        ctx.say("close()");
        expect("closed", "the connection to close", [this] { release(); });
        pending_op = conn->close(checked("close"));
    }

    void release() {
        ctx.say("remove_reservation(): the slot goes back to the pool");
        pending_op = ctx.client->remove_reservation(held, [this](std::error_code const& ec) {
            if (ec) {
                return ctx.fail("remove_reservation failed: " + ec.message());
            }
            held.reset();
            ctx.out << "released      the connection slot\n";
            finish_walk();
        });
    }

    void finish_walk() {
        lines.reset();
        conn.reset();
        // Not from inside a handler of the client.
        asio::post(ctx.io, done);
    }

    std::function<void(std::error_code const&)> checked(std::string const& what) {
        return [this, what](std::error_code const& ec) {
            if (ec) {
                ctx.fail(what + " failed: " + ec.message());
            }
        };
    }

    void expect(std::string key, std::string const& what, std::function<void()> next) {
        waiting.expect(std::move(key), what, std::move(next));
    }

    void reported(std::string const& kind) {
        waiting.reported(kind == "state" ? bt_ctrl::connection::to_string(conn->get_state())
                                         : kind);
    }

    bt_ctrl::address peer;
    std::function<void()> done;
    awaited_report waiting;
    bool started = false;
    std::shared_ptr<bt_ctrl::reservation const> held;
    std::shared_ptr<bt_ctrl::connection> conn;
    std::unique_ptr<connection_lines> lines;
    utils::scoped_link pending_op;
};

}  // namespace

std::unique_ptr<task> make_connection_walk(task_context context, bt_ctrl::address const& peer,
                                           std::function<void()> done) {
    return std::make_unique<connection_walk>(std::move(context), peer, std::move(done));
}

}  // namespace zelvo::tavrin::cli
