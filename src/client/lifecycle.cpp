// The client's front door: construction, enable / reset / disable, the one
// gate of state changes, and the destructor's order.
#include <memory>

#include "advertiser/advertiser.hpp"
#include "client/bt_ctrl.hpp"
#include "client/handshake_ctx.hpp"
#include "gatt/server.hpp"
#include "tavrin/bt_ctrl/create_bt_ctrl.hpp"
#include "tavrin/error.hpp"
#include "tavrin/misc/link_handler.hpp"
#include "tavrin/misc/shared_ptr_tracker.hpp"

namespace zelvo::tavrin {

std::shared_ptr<bt_ctrl> create_bt_ctrl(
    std::shared_ptr<utils::event_loop> const& loop,
    std::optional<std::array<unsigned char, 16>> const& client_id, utils::ip_address const& ip,
    unsigned short port) {
    return std::make_shared<impl::bt_ctrl>(loop, client_id, ip, port);
}

namespace impl {

bt_ctrl::bt_ctrl(std::shared_ptr<utils::event_loop> const& loop, client_id_type const& client_id,
                 utils::ip_address const& ip, unsigned short port)
    : event_loop(loop), client_id(client_id), ctrl_ip(ip), ctrl_port(port) {
    ctrl_conn = event_loop->create_tcp_connection();
    reconn_timer = event_loop->create_timer();
    gatts_object = std::make_unique<gatts>(*this);
    alive_token = std::make_shared<char>(0);
    // A plain binding: the destructor closes the link before members die, and
    // the connection reports only on later turns of the loop.
    ctrl_conn->set_state_handler([this](utils::connection::state conn_state) {
        ctrl_conn_state_change_handler(conn_state);
    });
}

bt_ctrl::~bt_ctrl() {
    on_advs_force_stopped(tavrin::bt_ctrl::advertiser::stop_reason::interface_unavailable);
    on_conns_force_stopped(tavrin::bt_ctrl::connection::close_reason::interface_unavailable);
    clear_sync();
    // The loop may outlive the client: pending handlers hear it now.
    auto const gone = make_error_code(error::bt_ctrl::no_instance);
    on_connect_to_ctrl(gone, true);
    on_handshake_start_done(nullptr, gone, true);
    on_handshake_finish_done("", gone, true);
    disable();
    // The connection outlives nothing of ours: it may still hold the state
    // handler, which refers to this object.
    ctrl_conn->set_state_handler([](utils::connection::state) {});
    ctrl_conn->set_receive_handler([](std::vector<unsigned char> const&) {});
    reconn_timer->set_handler([] {});
}

utils::link bt_ctrl::enable(enable_handler const& handler) {
    auto const wrapped = make_exception_wrapper(handler, "Failed response handler on enable");
    if (current_state == state::disabled) {
        return enable_impl(wrapped);
    }
    auto [linked, link] = misc::link_handler(wrapped, false);
    event_loop->post([linked = linked] {
        linked(nullptr, make_error_code(error::bt_ctrl::inappropriate_state));
    });
    return link;
}

utils::link bt_ctrl::enable_impl(enable_handler const& handler) {
    keep_connected = true;
    auto [linked, link] = misc::link_handler(handler, false);
    // An abort may be posted and run after the client has gone; only the
    // handshake needs the client.
    connect_to_ctrl([this, linked = linked, alive = get_alive_token()](std::error_code const& ec) {
        if (ec) {
            linked(nullptr, ec);
        } else if (!alive.expired()) {
            handshake(linked);
        }
    });
    on_state_change(state::rebooting);
    return link;
}

utils::link bt_ctrl::reset(result_handler const& handler) {
    post_bus_release();
    auto [linked, link] = misc::link_handler(handler, false);
    auto const wrapped = make_exception_wrapper(linked, "Failed response handler on reset");
    enable_impl([this, wrapped, linked = linked](
                    std::shared_ptr<tavrin::bt_ctrl::handshake_ctx> const& context,
                    std::error_code const& ec) {
        if (ec) {
            wrapped(ec);
            return;
        }
        context->finish(iface_name,
                        [linked](std::string const&, std::error_code const& ec2) { linked(ec2); });
    });
    return link;
}

void bt_ctrl::disable() {
    post_bus_release();
    keep_connected = false;
    auto const aborted = make_error_code(error::bt_ctrl::operation_aborted);
    on_connect_to_ctrl(aborted, false);
    on_handshake_start_done(nullptr, aborted, false);
    on_handshake_finish_done("", aborted, false);
    reset_reconn_scheduler_to_ctrl();
    disconnect_from_ctrl();
    on_state_change(state::disabled);
}

// The release is posted because the caller may be inside a callback of this
// very bus. The tracker makes it a no-op once that instance has gone, so an
// old post never takes down a newer instance.
void bt_ctrl::post_bus_release() {
    event_loop->post(misc::tie_handler(std::function<void()>([this] { bus.reset(); }),
                                       misc::shared_ptr_tracker(std::weak_ptr<quorl>(bus))));
}

void bt_ctrl::on_state_change(state new_state) {
    if (new_state == current_state) {
        return;
    }
    if (new_state == state::enabled) {
        // The state follows when the sync has ended well.
        start_sync();
        return;
    }
    // Every advertiser, then every connection, then the GATT server's callers
    // hear of the end before the application hears of the client's state, and
    // the mirrors are empty by then.
    current_state = new_state;
    on_advs_force_stopped(tavrin::bt_ctrl::advertiser::stop_reason::interface_unavailable);
    on_conns_force_stopped(tavrin::bt_ctrl::connection::close_reason::interface_unavailable);
    gatts_object->abort(make_error_code(error::bt_ctrl::inappropriate_state));
    clear_sync();
    state_signal(new_state);
}

tavrin::bt_ctrl::state bt_ctrl::get_state() const {
    return current_state;
}

utils::link bt_ctrl::notify_on_state_change(std::function<void(state)> const& handler) const {
    return state_signal.connect(
        make_exception_wrapper(handler, "Failed notification handler on state change"));
}

tavrin::bt_ctrl::address const& bt_ctrl::get_address() const {
    return address;
}

unsigned bt_ctrl::get_connection_max_cnt() const {
    return connection_max_cnt;
}

unsigned bt_ctrl::get_advertiser_max_cnt() const {
    return advertiser_max_cnt;
}

tavrin::bt_ctrl::gatts const& bt_ctrl::get_gatts() const {
    return *gatts_object;
}

tavrin::bt_ctrl::gatts& bt_ctrl::get_gatts() {
    return *gatts_object;
}

tavrin::bt_ctrl::capabilities const& bt_ctrl::get_capabilities() const {
    return capabilities;
}

}  // namespace impl
}  // namespace zelvo::tavrin
