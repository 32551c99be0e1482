// `tavrin watch`: one line per change, each with the local time, until
// interrupted: the client's state, free reservation counts, the connection
// queue, new connections and every change of a connection it knows of.
#include <chrono>
#include <ctime>
#include <iomanip>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "conn_report.hpp"
#include "task.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::cli {

namespace {

std::string timestamp() {
    auto const now = std::chrono::system_clock::now();
    auto const seconds = std::chrono::system_clock::to_time_t(now);
    auto const millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    std::ostringstream text;
    text << std::put_time(&local, "%H:%M:%S") << '.' << std::setw(3) << std::setfill('0') << millis;
    return text.str();
}

std::string counts_text(bt_ctrl::reservation_counts const& counts) {
    std::string text;
    for (auto const& [type, count] : counts) {
        text += (text.empty() ? "" : ", ") + bt_ctrl::to_string(type) + " " + std::to_string(count);
    }
    return text.empty() ? "none reported" : text;
}

class watch_task : public task {
public:
    using task::task;

    void on_enabled() override {
        line("client state enabled");
        auto const& client = *ctx.client;
        line("free reservations " + counts_text(client.get_free_reservation_cnt()));
        line("connections at most " + std::to_string(client.get_connection_max_cnt()));
        if (subscribed) {
            return;
        }
        subscribed = true;
        free_counts = client.notify_on_free_reservation_cnt_change(
            [this](bt_ctrl::reservation_counts const& counts) {
                line("free reservations " + counts_text(counts));
            });
        queue = client.notify_on_connection_queue_changed(
            [this](bt_ctrl::connection_queue const& waiting) { show_queue(waiting); });
        new_connections = client.notify_on_new_connection(
            [this](std::shared_ptr<bt_ctrl::connection const> const& conn) {
                line("new connection #" + std::to_string(next_number) + ", state " +
                     bt_ctrl::connection::to_string(conn->get_state()) + ", " +
                     bt_ctrl::connection::to_string(conn->get_direction()));
                follow(conn);
            });
    }

    void on_state(bt_ctrl::state state) override {
        line("client state " + bt_ctrl::to_string(state));
        // The client's connections end with its link; new ones come as new.
        followed.clear();
    }

private:
    void line(std::string const& text) { ctx.out << timestamp() << ' ' << text << std::endl; }

    // Keeps the connection until it closes, with a line for each change.
    void follow(std::shared_ptr<bt_ctrl::connection const> const& conn) {
        auto const number = next_number++;
        auto const prefix = "connection #" + std::to_string(number) + " ";
        auto watched = std::make_unique<followed_connection>();
        watched->conn = conn;
        watched->lines = std::make_unique<connection_lines>(
            *conn, prefix, [this](std::string const& text) { line(text); },
            [this, number](std::string const& kind) {
                auto const found = followed.find(number);
                if (kind == "state" && found != followed.end() &&
                    found->second->conn->get_state() == bt_ctrl::connection::state::closed) {
                    // Not from inside its own notification: the signal is
                    // calling this handler.
                    asio::post(ctx.io, [this, number] { followed.erase(number); });
                }
            });
        followed.emplace(number, std::move(watched));
    }

    void show_queue(bt_ctrl::connection_queue const& waiting) {
        std::string text;
        for (auto const& [conn, position] : waiting) {
            if (!conn) {
                continue;
            }
            text += (text.empty() ? "" : ", ") + std::to_string(position);
        }
        line("connection queue: " + std::to_string(waiting.size()) + " waiting" +
             (text.empty() ? "" : " (positions " + text + ")"));
    }

    struct followed_connection {
        std::shared_ptr<bt_ctrl::connection const> conn;
        std::unique_ptr<connection_lines> lines;
    };

    bool subscribed = false;
    unsigned next_number = 1;
    std::map<unsigned, std::unique_ptr<followed_connection>> followed;
    utils::scoped_link free_counts;
    utils::scoped_link queue;
    utils::scoped_link new_connections;
};

}  // namespace

std::unique_ptr<task> make_watch_task(task_context context) {
    return std::make_unique<watch_task>(std::move(context));
}

}  // namespace zelvo::tavrin::cli
