// impl::bt_ctrl: the one implementation of the client object.
//
// Ownership: the client owns the TCP connection and the reconnect timer (both
// made once, in the constructor, and reused), one bus instance per TCP
// connection, the mirrors of the controller's state and the GATT server
// object. The application owns the event loop (shared) and the client.
//
// Single-threaded; the hazard is re-entrancy. Every state change goes through
// on_state_change(), which tells the application last, after the mirrors are
// empty. A pending handler is taken out of its field before it is called, and
// anything posted or handed to the bus is tied to `alive_token` (or to the
// bus instance it belongs to), so a late call finds the client or the instance
// gone and does nothing.
//
// Sources by concern: lifecycle.cpp (front door, state gate, destructor),
// ctrl_link.cpp (TCP link, bus wiring, back-off, interface status),
// handshake.cpp, sync.cpp (subscriptions and the sync's burst of requests),
// reservations.cpp, conn_registry.cpp and adv_registry.cpp (the objects
// the controller's events reach by handle, the maxima and queues),
// diagnostics.cpp (log lines, exception containment), messages.cpp (error
// mapping, versions), scanning.cpp (what the library doesn't offer).
#pragma once

#include <array>
#include <chrono>
#include <exception>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>

#include <nlohmann/json.hpp>

#include "quorl/link.hpp"
#include "quorl/quorl.hpp"
#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/advertiser.hpp"
#include "tavrin/bt_ctrl/capabilities.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/handshake_ctx.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/bt_ctrl/reservation.hpp"
#include "tavrin/misc/signal.hpp"
#include "tavrin/misc/tie_handler.hpp"
#include "tavrin/misc/waiter.hpp"
#include "tavrin/utils/connection.hpp"
#include "tavrin/utils/event_loop.hpp"
#include "tavrin/utils/ip_address.hpp"
#include "tavrin/utils/link.hpp"
#include "tavrin/utils/tcp_connection.hpp"
#include "tavrin/utils/timer.hpp"
#include "values/wire_values.hpp"

namespace zelvo::tavrin::impl {

class bt_ctrl : public tavrin::bt_ctrl, public wire_values {
public:
    class log;
    class handshake_ctx;
    class gatts;
    class connection;
    class advertiser;
    class reservation;

    using seconds = std::chrono::seconds;
    using client_id_type = std::optional<std::array<unsigned char, 16>>;
    using sync_waiter_type = misc::waiter<std::function<void()>>;
    using interface_map = std::map<std::string, tavrin::bt_ctrl::handshake_ctx::interface>;
    using version_type = std::tuple<unsigned, unsigned, unsigned>;
    using enable_handler = std::function<void(
        std::shared_ptr<tavrin::bt_ctrl::handshake_ctx> const&, std::error_code const&)>;
    using finish_handler = std::function<void(std::string const&, std::error_code const&)>;
    using result_handler = std::function<void(std::error_code const&)>;
    using reservation_ptr = std::shared_ptr<tavrin::bt_ctrl::reservation const>;
    using reservation_handler = std::function<void(reservation_ptr const&, std::error_code const&)>;
    using reservation_kind = tavrin::bt_ctrl::reservation::type;
    using response = std::shared_ptr<quorl::resp_ctx>;
    using event = std::shared_ptr<quorl::event_ctx>;

    // Only create_bt_ctrl makes one.
    bt_ctrl(std::shared_ptr<utils::event_loop> const& loop, client_id_type const& client_id,
            utils::ip_address const& ip, unsigned short port);
    ~bt_ctrl() override;

    utils::link set_log_handler(std::function<void(log_level, std::string const&)> const& handler,
                                std::string const& name) override;
    utils::link set_exception_handler(
        std::function<void(std::string const&)> const& handler) override;
    utils::link enable(enable_handler const& handler) override;
    utils::link reset(result_handler const& handler) override;
    void disable() override;
    state get_state() const override;
    utils::link notify_on_state_change(std::function<void(state)> const& handler) const override;
    tavrin::bt_ctrl::address const& get_address() const override;
    utils::link start_scan(std::set<phy> const& phys, bool active,
                           result_handler const& handler) override;
    utils::link stop_scan(result_handler const& handler) override;
    utils::link notify_on_scan_result(
        std::function<void(scan_result const&)> const& handler) const override;
    utils::link notify_on_scan_stopped(std::function<void()> const& handler) const override;
    std::shared_ptr<tavrin::bt_ctrl::connection> create_connection() override;
    unsigned get_connection_max_cnt() const override;
    utils::link get_connection_queue(
        std::function<void(connection_queue const&, std::error_code const&)> const& handler)
        const override;
    utils::link notify_on_connection_queue_changed(
        std::function<void(connection_queue const&)> const& handler) const override;
    utils::link notify_on_new_connection(
        std::function<void(std::shared_ptr<tavrin::bt_ctrl::connection const> const&)> const&
            handler) const override;
    std::shared_ptr<tavrin::bt_ctrl::advertiser> create_advertiser() override;
    unsigned get_advertiser_max_cnt() const override;
    utils::link get_advertiser_queue(
        std::function<void(advertiser_queue const&, std::error_code const&)> const& handler)
        const override;
    utils::link notify_on_advertiser_queue_changed(
        std::function<void(advertiser_queue const&)> const& handler) const override;
    utils::link notify_on_new_advertiser(
        std::function<void(std::shared_ptr<tavrin::bt_ctrl::advertiser const> const&)> const&
            handler) const override;
    reservation_counts get_free_reservation_cnt() const override;
    utils::link notify_on_free_reservation_cnt_change(
        std::function<void(reservation_counts const&)> const& handler) const override;
    reservation_set const& get_reservations() const override;
    utils::link add_reservation(reservation_kind type, tavrin::bt_ctrl::address const& target,
                                std::string const& custom_data,
                                reservation_handler const& handler) override;
    utils::link replace_reservation(reservation_ptr const& old_reservation, reservation_kind type,
                                    tavrin::bt_ctrl::address const& target,
                                    std::string const& custom_data,
                                    reservation_handler const& handler) override;
    utils::link remove_reservation(reservation_ptr const& target,
                                   result_handler const& handler) override;
    tavrin::bt_ctrl::gatts const& get_gatts() const override;
    tavrin::bt_ctrl::gatts& get_gatts() override;
    tavrin::bt_ctrl::capabilities const& get_capabilities() const override;

    // Diagnostics. A log object is one line, delivered when it dies.
    log log_debug() const;
    log log_info() const;
    log log_warning() const;
    log log_error() const;
    // Hands `text` to the exception handler, if one is set. Called only from
    // inside a catch block.
    void handle_exception(std::string const& text) const;
    // `handler` with every exception it throws caught and reported as `text`.
    // The result stays safe to call after the client is gone.
    template <typename F>
    F make_exception_wrapper(F const& handler, std::string const& text) const;
    // For the objects that may outlive the client: make_exception_wrapper of
    // `owner` while `owner_tracker` lives; once the client is gone, the
    // handler's exceptions are dropped, as the client would have dropped them
    // without an exception handler.
    template <typename F>
    static F contain(bt_ctrl const& owner, std::weak_ptr<void> const& owner_tracker,
                     F const& handler, std::string const& text);

    // The one mapping of bus results to error codes.
    static std::error_code to_error_code(quorl_utils::error const& error);
    static std::error_code to_error_code(std::shared_ptr<quorl::resp_ctx> const& resp);
    // "major.minor.patch"; missing parts are 0, more parts are ignored. A part
    // that is not a number throws invalid_argument "stol".
    static version_type to_version(std::string const& text);
    // Advertising data and scan response from {"primary": [...], "scanRsp":
    // [...]}; either may be missing, and a scan response is engaged only when
    // present. Malformed structures throw to the caller.
    static std::pair<tavrin::bt_ctrl::advertiser::adv_data,
                     std::optional<tavrin::bt_ctrl::advertiser::adv_data>>
    to_adv_data(nlohmann::json::object_t const& object);

    // The controller's id of a reservation in the set; empty for any other
    // object, null included.
    std::optional<unsigned short> get_reserv_id(reservation_ptr const& target) const;

    std::shared_ptr<utils::event_loop> const& get_event_loop() const { return event_loop; }
    // Weak copies tell whether the client still lives.
    std::weak_ptr<void> get_alive_token() const { return alive_token; }

private:
    friend class handshake_ctx;
    friend class connection;
    friend class advertiser;
    friend class gatts;

    // Lifecycle.
    utils::link enable_impl(enable_handler const& handler);
    void post_bus_release();
    void on_state_change(state new_state);

    // Controller link.
    void connect_to_ctrl(result_handler const& handler);
    void on_connect_to_ctrl(std::error_code const& ec, bool direct);
    void on_connected_to_ctrl();
    void disconnect_from_ctrl();
    void on_disconnected_from_ctrl();
    void ctrl_conn_state_change_handler(utils::connection::state conn_state);
    void reconnect_to_ctrl();
    void reconnect_later_to_ctrl(std::optional<seconds> const& delay);
    void reset_reconn_scheduler_to_ctrl();
    std::optional<seconds> update_reconn_interval_to_ctrl();
    void bus_error_handler(std::shared_ptr<quorl::error_ctx> const& ctx);
    bool reply_check_handler(std::shared_ptr<quorl::reply_ctx> const& ctx);
    void iface_status_get_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp);
    void iface_status_changed_event_handler(std::shared_ptr<quorl::event_ctx> const& event);
    void default_connect_handler(std::error_code const& ec);

    // Handshake.
    void handshake(enable_handler const& handler);
    void hdshk_start_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp);
    void hdshk_finish_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp,
                                   interface_map const& interfaces);
    void on_handshake_start_done(std::shared_ptr<handshake_ctx> const& ctx,
                                 std::error_code const& ec, bool direct);
    void on_handshake_finish_done(std::string const& name, std::error_code const& ec, bool direct);
    // Sends "hdshkFinish" on `instance` for a context; the reply binds the
    // interface.
    void send_hdshk_finish(std::shared_ptr<quorl> const& instance, std::string const& name,
                           interface_map const& interfaces, finish_handler const& handler);

    // Synchronisation.
    using sync_handler = void (bt_ctrl::*)(response const&,
                                           std::shared_ptr<sync_waiter_type> const&);
    using event_handler = void (bt_ctrl::*)(event const&);
    void start_sync();
    void clear_sync();
    void subscribe(std::string const& name,
                   std::function<void(bt_ctrl&, event const&)> const& handler);
    void send_sync_request(std::string const& name, sync_handler handler,
                           std::shared_ptr<sync_waiter_type> const& waiter);
    // The common start of every sync reply's handler: on an error the sync
    // is aborted, the link dropped, and the result is true.
    bool sync_step_failed(response const& resp, sync_waiter_type& waiter);
    void iface_addr_get_resp_handler(response const& resp,
                                     std::shared_ptr<sync_waiter_type> const& waiter);
    // "gattsDbUpdated": handed to the GATT server object while enabled.
    void gatts_db_updated_event_handler(event const& ev);

    // Reservations.
    void free_reservs_get_resp_handler(response const& resp,
                                       std::shared_ptr<sync_waiter_type> const& waiter);
    void reservs_get_resp_handler(response const& resp,
                                  std::shared_ptr<sync_waiter_type> const& waiter);
    void free_reserv_changed_event_handler(event const& ev);
    // inappropriate_state unless enabled, then unknown_resource_reservation
    // without an id; no error otherwise.
    std::error_code refuse_known_reservation(std::optional<unsigned short> const& id) const;
    // Posts `handler` with `ec` and a null reservation.
    void post_refusal(reservation_handler const& handler, std::error_code const& ec) const;
    void post_refusal(result_handler const& handler, std::error_code const& ec) const;

    // Registries: the sync's reads and the events that keep the maxima and
    // queues.
    void advs_get_resp_handler(response const& resp,
                               std::shared_ptr<sync_waiter_type> const& waiter);
    void conns_get_resp_handler(response const& resp,
                                std::shared_ptr<sync_waiter_type> const& waiter);
    void advs_changed_event_handler(event const& ev);
    void conns_changed_event_handler(event const& ev);

    // Advertiser registry (adv_registry.cpp).
    using adv_state = tavrin::bt_ctrl::advertiser::state;
    // The object that stands for `handle`: the library's own first, then the
    // application's; null if none lives.
    std::shared_ptr<advertiser> find_adv(unsigned short handle) const;
    advertiser_queue get_advertiser_queue_impl() const;
    void clean_advs();
    void on_advs_force_stopped(tavrin::bt_ctrl::advertiser::stop_reason reason);
    void adv_state_changed_event_handler(event const& ev, adv_state new_state);
    void adv_data_changed_event_handler(event const& ev);

    // Connection registry (conn_registry.cpp).
    using conn_state = tavrin::bt_ctrl::connection::state;
    // The object that stands for `handle`: the library's own first, then the
    // application's; null if none lives.
    std::shared_ptr<connection> find_conn(unsigned short handle) const;
    connection_queue get_connection_queue_impl() const;
    void clean_conns();
    void on_conns_force_stopped(tavrin::bt_ctrl::connection::close_reason reason);
    void conn_state_changed_event_handler(event const& ev, conn_state new_state);
    void conn_mtu_event_handler(event const& ev);
    void conn_phy_event_handler(event const& ev);
    void conn_params_event_handler(event const& ev);

    // A peer's value reads and writes on a connection (gatts_value_events.cpp):
    // routed to the connection's GATT server handlers, whatever the states;
    // an event for an unknown connection is dropped unread.
    void gatts_char_value_read_event_handler(event const& ev);
    void gatts_desc_value_read_event_handler(event const& ev);
    void gatts_char_value_write_event_handler(event const& ev);
    void gatts_desc_value_write_event_handler(event const& ev);

    // Sends a request with a JSON body on the present bus; the handler is
    // called by the bus with the response.
    quorl_utils::link send_request(
        std::string const& name, nlohmann::json const& body,
        std::function<void(std::shared_ptr<quorl::resp_ctx> const&)> const& handler);

    std::string log_prefix;
    std::shared_ptr<std::function<void(log_level, std::string const&)>> log_handler;
    bool keep_connected = false;
    state current_state = state::disabled;
    std::shared_ptr<utils::event_loop> event_loop;
    std::shared_ptr<utils::tcp_connection> ctrl_conn;
    std::shared_ptr<quorl> bus;
    client_id_type client_id;
    utils::ip_address ctrl_ip;
    unsigned short ctrl_port;
    std::shared_ptr<char> reconn_token;
    std::shared_ptr<char> hdshk_token;
    std::shared_ptr<utils::timer> reconn_timer;
    seconds reconn_min_interval{3};
    seconds reconn_max_interval{30};
    seconds reconn_interval{0};
    result_handler connect_handler;
    std::function<void(std::shared_ptr<tavrin::bt_ctrl::handshake_ctx> const&,
                       std::error_code const&)>
        hdshk_start_handler;
    finish_handler hdshk_finish_handler;
    std::string iface_name;
    quorl_utils::scoped_link hdshk_link;
    quorl_utils::scoped_link status_link;
    std::list<quorl_utils::scoped_link> event_links;
    std::weak_ptr<sync_waiter_type> sync_waiter;
    tavrin::bt_ctrl::address address;
    tavrin::bt_ctrl::capabilities capabilities;
    reservation_counts free_reservation_cnt;
    reservation_set reservations;
    std::map<tavrin::bt_ctrl::advertiser*, std::weak_ptr<advertiser>> adv_registry;
    std::map<unsigned short, std::weak_ptr<advertiser>> adv_by_handle;
    std::map<unsigned short, std::shared_ptr<advertiser>> adv_owned;
    std::map<unsigned short, unsigned> adv_queue;
    unsigned advertiser_max_cnt = 0;
    mutable misc::signal<void, advertiser_queue const&> adv_queue_signal;
    mutable misc::signal<void, std::shared_ptr<tavrin::bt_ctrl::advertiser const> const&>
        new_adv_signal;
    std::map<tavrin::bt_ctrl::connection*, std::weak_ptr<connection>> conn_registry;
    std::map<unsigned short, std::weak_ptr<connection>> conn_by_handle;
    std::map<unsigned short, std::shared_ptr<connection>> conn_owned;
    std::map<unsigned short, unsigned> conn_queue;
    unsigned connection_max_cnt = 0;
    mutable misc::signal<void, connection_queue const&> conn_queue_signal;
    mutable misc::signal<void, std::shared_ptr<tavrin::bt_ctrl::connection const> const&>
        new_conn_signal;
    mutable misc::signal<void, state> state_signal;
    mutable misc::signal<void, reservation_counts const&> free_reservation_signal;
    std::unique_ptr<gatts> gatts_object;
    std::shared_ptr<std::function<void(std::string const&)>> exception_handler;
    std::shared_ptr<char> alive_token;
};

// One log line; delivered with the client's prefix when the last holder of the
// line dies, unless no log handler is set or nothing was written.
class bt_ctrl::log {
public:
    log(bt_ctrl const& ctrl, log_level level);
    log(log&& source);
    log(log const&) = delete;
    log& operator=(log const&) = delete;
    log& operator=(log&&) = delete;
    ~log();

    // Formats nothing when no log handler is set.
    template <typename T>
    log& operator<<(T&& value) {
        if (ctrl.log_handler) {
            text << std::forward<T>(value);
        }
        return *this;
    }

private:
    bt_ctrl const& ctrl;
    log_level level;
    std::stringstream text;
};

template <typename F>
F bt_ctrl::make_exception_wrapper(F const& handler, std::string const& text) const {
    auto const report = misc::tie_member(&bt_ctrl::handle_exception, this, alive_token);
    return [handler, text, report](auto&&... args) {
        std::exception_ptr failure;
        try {
            handler(std::forward<decltype(args)>(args)...);
        } catch (...) {
            failure = std::current_exception();
        }
        if (!failure) {
            return;
        }
        // The exception handler runs inside a catch block, so it can look at
        // the exception itself.
        try {
            std::rethrow_exception(failure);
        } catch (...) {
            report(text);
        }
    };
}

template <typename F>
F bt_ctrl::contain(bt_ctrl const& owner, std::weak_ptr<void> const& owner_tracker, F const& handler,
                   std::string const& text) {
    if (!owner_tracker.expired()) {
        return owner.make_exception_wrapper(handler, text);
    }
    return [handler](auto&&... args) {
        try {
            handler(std::forward<decltype(args)>(args)...);
        } catch (...) {
        }
    };
}

}  // namespace zelvo::tavrin::impl
