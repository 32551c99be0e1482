// `tavrin connect ADDRESS`: opens a connection as central, prints what the
// controller says of it and every change, and closes it on interrupt. The
// run ends with 0 once a close asked for is done, and with 1 when the
// connection fails or ends by itself. Each line is flushed as it is
// written, for whoever reads the output as it comes.
#include <chrono>
#include <memory>
#include <ostream>
#include <string>
#include <system_error>

#include "conn_report.hpp"
#include "task.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::cli {

namespace {

using conn_state = bt_ctrl::connection::state;

class connect_task : public task {
public:
    connect_task(task_context context, bt_ctrl::address const& peer)
        : task(std::move(context)), peer(peer) {}

    void on_enabled() override {
        if (conn) {
            return;
        }
        conn = ctx.client->create_connection();
        lines = std::make_unique<connection_lines>(
            *conn, "", [this](std::string const& text) { ctx.out << text << std::endl; },
            [this](std::string const& kind) {
                if (kind == "state") {
                    on_conn_state(conn->get_state());
                }
            });
        ctx.out << "connecting to " << peer.to_string() << std::endl;
        opening = conn->connect(
            peer, bt_ctrl::phy::unknown, nullptr,
            [this](std::chrono::seconds const& guaranteed, std::error_code const& ec) {
                if (ec) {
                    return ctx.fail("connect failed: " + ec.message());
                }
                ctx.out << "guaranteed    " << guaranteed.count() << " s\n";
            });
    }

    void on_interrupt() override {
        if (!conn || conn->get_state() == conn_state::closed) {
            return ctx.finish(0);
        }
        closing_asked = true;
        ctx.out << "closing\n";
        closing = conn->close([this](std::error_code const& ec) {
            if (ec) {
                ctx.fail("close failed: " + ec.message());
            }
        });
    }

private:
    void on_conn_state(conn_state state) {
        if (state == conn_state::opened && !shown) {
            shown = true;
            show_properties();
        }
        if (state != conn_state::closed) {
            return;
        }
        if (closing_asked) {
            return ctx.finish(0);
        }
        ctx.fail("the connection closed (reason: " +
                 bt_ctrl::connection::to_string(conn->get_close_reason()) + ")");
    }

    // The controller's answers; each is a line when it comes.
    void show_properties() {
        reads[0] =
            conn->get_address([this](bt_ctrl::address const& address, std::error_code const& ec) {
                ctx.out << "address       " << (ec ? ec.message() : address.to_string())
                        << std::endl;
            });
        reads[1] = conn->get_phy([this](bt_ctrl::phy phy, std::error_code const& ec) {
            ctx.out << "PHY           " << (ec ? ec.message() : bt_ctrl::to_string(phy))
                    << std::endl;
        });
        reads[2] =
            conn->get_params([this](unsigned short min, unsigned short max, unsigned short latency,
                                    unsigned short timeout, std::error_code const& ec) {
                ctx.out << "parameters    "
                        << (ec ? ec.message() : params_text(min, max, latency, timeout))
                        << std::endl;
            });
        reads[3] =
            conn->get_signal([this](bt_ctrl::signal const& reading, std::error_code const& ec) {
                ctx.out << "signal        " << (ec ? ec.message() : signal_text(reading))
                        << std::endl;
            });
    }

    bt_ctrl::address peer;
    std::shared_ptr<bt_ctrl::connection> conn;
    std::unique_ptr<connection_lines> lines;
    utils::scoped_link opening;
    utils::scoped_link closing;
    utils::scoped_link reads[4];
    bool shown = false;
    bool closing_asked = false;
};

}  // namespace

std::unique_ptr<task> make_connect_task(task_context context, bt_ctrl::address const& peer) {
    return std::make_unique<connect_task>(std::move(context), peer);
}

}  // namespace zelvo::tavrin::cli
