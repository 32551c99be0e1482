// The link to the controller: the TCP connection, one bus instance per
// connection, the back-off by which a lost link is rebuilt, and the watch on
// the interface's status.
//
// Invariants: `ctrl_conn` and `reconn_timer` live as long as the client;
// `bus` is set from `connected` until `closed` (or a posted release); at most
// one reconnect step is scheduled, and `reconn_token` is set exactly while
// one is.
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "client/bt_ctrl.hpp"
#include "stravik/part_payload.hpp"
#include "tavrin/error.hpp"
#include "tavrin/misc/tie_handler.hpp"

namespace zelvo::tavrin::impl {

namespace {

// Limits of one received message and of bytes buffered towards it.
constexpr unsigned max_message = 0x80000;
constexpr unsigned max_buffer = 0x80000;
constexpr std::chrono::seconds reply_timeout{45};

char const* state_word(utils::connection::state conn_state) {
    switch (conn_state) {
        case utils::connection::state::closed:
            return "closed";
        case utils::connection::state::connecting:
            return "connecting";
        case utils::connection::state::connected:
            return "connected";
        case utils::connection::state::closing:
            return "closing";
    }
    return nullptr;
}

}  // namespace

void bt_ctrl::connect_to_ctrl(result_handler const& handler) {
    on_connect_to_ctrl(make_error_code(error::bt_ctrl::operation_aborted), false);
    reconnect_to_ctrl();
    connect_handler = handler;
}

void bt_ctrl::on_connect_to_ctrl(std::error_code const& ec, bool direct) {
    if (!connect_handler) {
        return;
    }
    result_handler handler;
    handler.swap(connect_handler);
    if (direct) {
        handler(ec);
    } else {
        event_loop->post([handler, ec] { handler(ec); });
    }
}

void bt_ctrl::reconnect_to_ctrl() {
    reconn_token.reset();
    reconn_timer->stop();
    if (!keep_connected) {
        return;
    }
    if (ctrl_conn->get_state() != utils::connection::state::closed) {
        // The close comes back through on_disconnected_from_ctrl, which
        // schedules the next step.
        disconnect_from_ctrl();
        return;
    }
    ctrl_conn->connect(ctrl_ip, ctrl_port);
}

void bt_ctrl::reconnect_later_to_ctrl(std::optional<seconds> const& delay) {
    if (!keep_connected || reconn_token) {
        return;
    }
    reconn_token = std::make_shared<char>(0);
    auto const step = misc::tie_member(&bt_ctrl::reconnect_to_ctrl, this, reconn_token);
    if (delay) {
        reconn_timer->set_handler(step);
        reconn_timer->start(*delay);
    } else {
        event_loop->post(step);
    }
}

std::optional<bt_ctrl::seconds> bt_ctrl::update_reconn_interval_to_ctrl() {
    if (reconn_interval < reconn_min_interval) {
        reconn_interval = reconn_min_interval;
    } else {
        reconn_interval = std::min(reconn_interval * 2, reconn_max_interval);
    }
    return reconn_interval;
}

void bt_ctrl::reset_reconn_scheduler_to_ctrl() {
    reconn_interval = seconds{0};
    reconn_token.reset();
    reconn_timer->stop();
}

void bt_ctrl::disconnect_from_ctrl() {
    if (ctrl_conn) {
        ctrl_conn->close();
    }
}

void bt_ctrl::ctrl_conn_state_change_handler(utils::connection::state conn_state) {
    auto const word = state_word(conn_state);
    if (!word) {
        return;
    }
    // The log handler and the state handlers may drop the last reference to
    // the client: nothing of it is touched once it has gone.
    std::weak_ptr<void> const alive = alive_token;
    log_debug() << "Connection [" << ctrl_conn->get_name() << "] change state to " << word;
    if (alive.expired()) {
        return;
    }
    if (conn_state == utils::connection::state::closed) {
        on_disconnected_from_ctrl();
    } else if (conn_state == utils::connection::state::connected) {
        on_connected_to_ctrl();
    }
}

void bt_ctrl::on_connected_to_ctrl() {
    // A TCP connect counts as success for the back-off, whatever follows.
    reset_reconn_scheduler_to_ctrl();
    auto const writer = misc::tie_member(
        static_cast<bool (utils::connection::*)(std::vector<unsigned char> const&)>(
            &utils::connection::send),
        ctrl_conn.get(), false, ctrl_conn);
    bus = std::make_shared<quorl>(event_loop, writer);
    auto const receive = misc::tie_member(&quorl::receive, bus.get(), bus);
    ctrl_conn->set_receive_handler([receive](std::vector<unsigned char> const& bytes) {
        receive(bytes, false, max_message, max_buffer);
    });
    bus->set_error_handler(misc::tie_member(&bt_ctrl::bus_error_handler, this, alive_token));
    bus->set_default_reply_timeout(reply_timeout);
    bus->set_reply_check_handler(
        misc::tie_member(&bt_ctrl::reply_check_handler, this, true, alive_token));
    on_connect_to_ctrl({}, true);
}

void bt_ctrl::on_disconnected_from_ctrl() {
    bus.reset();
    reconnect_later_to_ctrl(update_reconn_interval_to_ctrl());
    std::weak_ptr<void> const alive = alive_token;
    on_state_change(reconn_token ? state::rebooting : state::disabled);
    if (alive.expired()) {
        return;
    }
    if (!reconn_token) {
        on_connect_to_ctrl(make_error_code(error::bt_ctrl::operation_aborted), true);
    } else if (!connect_handler) {
        connect_handler = misc::tie_member(&bt_ctrl::default_connect_handler, this, alive_token);
    }
}

// Rebuilds the link with no application handler: the handshake then ends on
// the controller's default interface, through the context's destructor.
void bt_ctrl::default_connect_handler(std::error_code const& ec) {
    if (ec) {
        log_error() << "Failed to connect to ctrl [" << ec << "]:" << ec.message();
        return;
    }
    handshake(misc::tie_handler(
        enable_handler([this](std::shared_ptr<tavrin::bt_ctrl::handshake_ctx> const&,
                              std::error_code const& ec2) {
            if (ec2) {
                log_error() << "Failed handshake [" << ec2 << "]: " << ec2.message();
            }
        }),
        alive_token));
}

void bt_ctrl::bus_error_handler(std::shared_ptr<quorl::error_ctx> const& ctx) {
    auto const& failure = ctx->error;
    std::weak_ptr<void> const alive = alive_token;
    log_warning() << "QUORLv4 error: " << failure.code() << " " << failure.text();
    if (alive.expired()) {
        return;
    }
    if (failure == quorl::local_error::malformed_frame ||
        failure == quorl::local_error::message_too_large ||
        failure == quorl::local_error::buffer_overflow ||
        failure.type() == typeid(quorl::remote_error)) {
        reconnect_later_to_ctrl(std::nullopt);
    }
}

bool bt_ctrl::reply_check_handler(std::shared_ptr<quorl::reply_ctx> const& ctx) {
    auto const& failure = ctx->error;
    if (!failure || failure == quorl::exchange_error::aborted) {
        return true;
    }
    std::weak_ptr<void> const alive = alive_token;
    log_warning() << "Got bad QUORL reply [" << ctx->request_name << "]: " << failure.code() << " "
                  << failure.text();
    if (!alive.expired()) {
        reconnect_later_to_ctrl(std::nullopt);
    }
    return true;
}

void bt_ctrl::iface_status_get_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp) {
    if (to_error_code(resp)) {
        disconnect_from_ctrl();
        return;
    }
    auto const body = stravik_part_payload::from_bytes<nlohmann::json>(resp->payload);
    auto const status = to_state(body.at("status").get<std::string>());
    if (status != state::enabled) {
        disconnect_from_ctrl();
    }
    on_state_change(status);
}

void bt_ctrl::iface_status_changed_event_handler(std::shared_ptr<quorl::event_ctx> const& event) {
    auto const body = stravik_part_payload::from_bytes<nlohmann::json>(event->payload);
    on_state_change(to_state(body.at("status").get<std::string>()));
}

quorl_utils::link bt_ctrl::send_request(
    std::string const& name, nlohmann::json const& body,
    std::function<void(std::shared_ptr<quorl::resp_ctx> const&)> const& handler) {
    return bus->send(quorl::req_msg(name, quorl_utils::payload(body)), handler, true, seconds{0});
}

}  // namespace zelvo::tavrin::impl
