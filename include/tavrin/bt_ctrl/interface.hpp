// bt_ctrl: the client object through which an application uses Bluetooth Low
// Energy. The application holds it by shared_ptr (create_bt_ctrl.hpp makes
// one) and calls it on the thread of its event loop only.
//
// Every asynchronous operation returns a utils::link: releasing it keeps the
// handler from being called and undoes nothing. A refusal is never delivered
// from inside the call, so the caller holds the link before its handler runs.
// Handlers that throw reach the exception handler, never the library.
//
// This header declares the class with its operations, enumerations and their
// text forms.
// The nested classes are declared here and defined in headers of their own
// (address.hpp, signal.hpp, capabilities.hpp, reservation.hpp, connection.hpp,
// advertiser.hpp); tavrin/bt_ctrl.hpp includes all of them.
//
// Enumerations are numbers in memory and words on the wire. Each to_string
// writes the word the controller expects and throws logic_error for a value
// outside its enumeration. The parsers read what the controller sends and
// differ on purpose: to_phy and to_addr_type fall back to `unknown` for a word
// they don't know, to_state and to_reservation_type throw. All four parsers
// ignore case.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <system_error>

#include "tavrin/export.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin {

class TAVRIN_API bt_ctrl {
public:
    enum class phy : unsigned char { unknown = 0, coded = 1, m1 = 2, m2 = 3 };
    enum class addr_type : unsigned char { unknown = 0, public_address = 1, random_address = 2 };
    // The state of the client as a whole: only `enabled` means usable.
    enum class state : unsigned char { rebooting = 0, disabled = 1, enabled = 2 };
    enum class log_level : unsigned char { error = 0, warning = 1, info = 2, debug = 3 };
    // The kind of advertising packet a scan saw; it has no text form.
    enum class scan_packet_type : unsigned char {
        adv_nonconn_ind = 0,
        adv_ind = 1,
        adv_direct_ind = 2,
        adv_scan_ind = 3,
        scan_rsp = 4,
    };
    // What a reservation claims. Its name for applications is
    // bt_ctrl::reservation::type; it is declared here, with its enumerators in
    // reservation.hpp, so that bt_ctrl's own text conversions can take it.
    enum class reservation_type : unsigned char;

    class address;
    struct signal;
    struct capabilities;
    class reservation;
    class connection;
    class advertiser;
    class handshake_ctx;
    class gatts;
    class scan_result;

    using connection_queue = std::map<std::shared_ptr<connection const>, unsigned>;
    using advertiser_queue = std::map<std::shared_ptr<advertiser const>, unsigned>;
    using reservation_counts = std::map<reservation_type, unsigned>;
    using reservation_set = std::set<std::shared_ptr<reservation const>>;

    bt_ctrl() = default;
    bt_ctrl(bt_ctrl const&) = delete;
    bt_ctrl& operator=(bt_ctrl const&) = delete;
    // Pending handlers hear error::bt_ctrl::no_instance, called at once.
    virtual ~bt_ctrl();

    // Log lines go to `handler`, prefixed "tavrin: " (and "<name>: " when
    // `name` is not empty). A new handler replaces the old one; releasing the
    // link stops the lines.
    virtual utils::link set_log_handler(
        std::function<void(log_level, std::string const&)> const& handler,
        std::string const& name) = 0;
    // Gets the fixed text of an application handler that threw, called inside
    // the catch block. Releasing the link drops it.
    virtual utils::link set_exception_handler(
        std::function<void(std::string const&)> const& handler) = 0;

    // From `disabled`: connects, hands `handler` a context to finish the
    // handshake on, or an error. In any other state the handler gets
    // inappropriate_state. Failed connects are retried with back-off, and the
    // handler waits for them.
    virtual utils::link enable(std::function<void(std::shared_ptr<handshake_ctx> const&,
                                                  std::error_code const&)> const& handler) = 0;
    // Reconnects and binds the interface bound before, in any state.
    virtual utils::link reset(std::function<void(std::error_code const&)> const& handler) = 0;
    // Drops the controller; pending handlers hear operation_aborted on a later
    // turn. Synchronous and valid in every state.
    virtual void disable() = 0;
    virtual state get_state() const = 0;
    // `handler` hears every later state change, not the present state.
    virtual utils::link notify_on_state_change(std::function<void(state)> const& handler) const = 0;
    // The interface's address; empty unless `enabled`.
    virtual address const& get_address() const = 0;

    // Scanning is not available: all four throw logic_error "Not implemented".
    virtual utils::link start_scan(std::set<phy> const& phys, bool active,
                                   std::function<void(std::error_code const&)> const& handler) = 0;
    virtual utils::link stop_scan(std::function<void(std::error_code const&)> const& handler) = 0;
    virtual utils::link notify_on_scan_result(
        std::function<void(scan_result const&)> const& handler) const = 0;
    virtual utils::link notify_on_scan_stopped(std::function<void()> const& handler) const = 0;

    // A new connection object, closed, owned by the caller.
    virtual std::shared_ptr<connection> create_connection() = 0;
    virtual unsigned get_connection_max_cnt() const = 0;
    virtual utils::link get_connection_queue(
        std::function<void(connection_queue const&, std::error_code const&)> const& handler)
        const = 0;
    virtual utils::link notify_on_connection_queue_changed(
        std::function<void(connection_queue const&)> const& handler) const = 0;
    // Connections that the controller reported and the application did not make.
    virtual utils::link notify_on_new_connection(
        std::function<void(std::shared_ptr<connection const> const&)> const& handler) const = 0;

    // A new advertiser object, stopped, owned by the caller.
    virtual std::shared_ptr<advertiser> create_advertiser() = 0;
    virtual unsigned get_advertiser_max_cnt() const = 0;
    virtual utils::link get_advertiser_queue(
        std::function<void(advertiser_queue const&, std::error_code const&)> const& handler)
        const = 0;
    virtual utils::link notify_on_advertiser_queue_changed(
        std::function<void(advertiser_queue const&)> const& handler) const = 0;
    virtual utils::link notify_on_new_advertiser(
        std::function<void(std::shared_ptr<advertiser const> const&)> const& handler) const = 0;

    // Free radio slots per kind of reservation; empty unless `enabled`.
    virtual reservation_counts get_free_reservation_cnt() const = 0;
    virtual utils::link notify_on_free_reservation_cnt_change(
        std::function<void(reservation_counts const&)> const& handler) const = 0;
    virtual reservation_set const& get_reservations() const = 0;
    virtual utils::link add_reservation(
        reservation_type type, address const& target, std::string const& custom_data,
        std::function<void(std::shared_ptr<reservation const> const&,
                           std::error_code const&)> const& handler) = 0;
    virtual utils::link replace_reservation(
        std::shared_ptr<reservation const> const& old_reservation, reservation_type type,
        address const& target, std::string const& custom_data,
        std::function<void(std::shared_ptr<reservation const> const&,
                           std::error_code const&)> const& handler) = 0;
    virtual utils::link remove_reservation(
        std::shared_ptr<reservation const> const& target,
        std::function<void(std::error_code const&)> const& handler) = 0;

    // The GATT server; it exists in every state.
    virtual gatts const& get_gatts() const = 0;
    virtual gatts& get_gatts() = 0;
    // What the bound interface can do; kept from the last handshake.
    virtual capabilities const& get_capabilities() const = 0;

    // "unknown", "coded", "1m", "2m".
    static std::string to_string(phy value);
    // "unknown", "public", "random".
    static std::string to_string(addr_type value);
    // "rebooting", "disabled", "enabled".
    static std::string to_string(state value);
    // "connection", "advertiser".
    static std::string to_string(reservation_type value);

    // Also takes "m1" and "m2", which to_string never writes.
    static phy to_phy(std::string const& text);
    static addr_type to_addr_type(std::string const& text);
    // Throws logic_error "unknown BT ctrl state str" for any other word.
    static state to_state(std::string const& text);
    // Throws logic_error "unknown reservation type [<text>]" for any other
    // word, quoting the text as given.
    static reservation_type to_reservation_type(std::string const& text);

    // adv_ind and adv_direct_ind invite a connection.
    static bool is_connectable(scan_packet_type type);
    // adv_ind and adv_scan_ind invite a scan request.
    static bool is_scannable(scan_packet_type type);
};

}  // namespace zelvo::tavrin
