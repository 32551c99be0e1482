// bt_ctrl: the client object through which an application uses Bluetooth Low
// Energy. The application holds it by shared_ptr (create_bt_ctrl.hpp makes
// one) and calls it on the thread of its event loop only.
//
// Every asynchronous operation returns a utils::link: releasing it keeps the
// handler from being called and undoes nothing. A refusal is never delivered
// from inside the call, so the caller holds the link before its handler runs.
// A handler that throws is contained and its text reported to the exception
// handler, never thrown through the library; the few exceptions are named
// where they apply (four advertiser getters, a close or stop that waits for
// the controller's handle, the predicates of a connection's GATT server).
//
// This header declares the class with its operations, enumerations and their
// text forms. It also defines two nested value classes, `address` and
// `reservation`: bt_ctrl's own operations take the kind of a reservation,
// `reservation::type`, and C++ can name a nested type only once its class is
// complete, which a reservation (holding an address) can only be inside this
// class. The other nested classes are declared here and defined in headers
// of their own (signal.hpp, capabilities.hpp, connection.hpp,
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
#include "tavrin/utils/comparator.hpp"
#include "tavrin/utils/link.hpp"
#include "tavrin/utils/mac_address.hpp"

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

    // A Bluetooth device address, the MAC together with its type. A value
    // type; ordering is by type first, then by MAC. An address of unknown type
    // stands for "no particular device": it is false in a boolean context
    // whatever its MAC holds.
    class TAVRIN_API address : public utils::comparator<address> {
    public:
        // Unknown type, 00:00:00:00:00:00.
        address();
        address(addr_type type, utils::mac_address const& mac);
        address(address const& other);
        address& operator=(address const& other);
        ~address() override;

        // The type is known.
        explicit operator bool() const;

        bool is_type_unknown() const;
        bool is_type_public() const;
        bool is_type_random() const;
        // The random subtypes, told by the two top bits of the first MAC byte:
        // static 11, resolvable private 01, non-resolvable private 00.
        bool is_type_random_static() const;
        bool is_type_random_resolvable() const;
        bool is_type_random_non_resolvable() const;

        bool is_equal(address const& other) const override;
        bool is_less(address const& other) const override;

        // Whether the MAC is possible for the type. A public MAC must be
        // neither all zeros nor all ones. A random MAC of a known subtype must
        // have a random part that is neither all zeros nor all ones; for a
        // resolvable one that part is the first three bytes, as the rest hold
        // the hash. An unknown type accepts any MAC, and a random MAC with the
        // reserved top bits 10 is not judged.
        bool is_valid() const;

        // "AA:BB:CC:DD:EE:FF-public": the MAC in upper case, a hyphen, the
        // type.
        std::string to_string() const;

        addr_type type;
        utils::mac_address mac;
        // Selects the subtype bits of mac[0]; always 0xC0.
        unsigned char const type_mask = 0xC0;
    };

    // A claim on one of the controller's radio slots, for a connection or an
    // advertiser, optionally for one peer.
    //
    // The client hands reservations out as shared_ptr<reservation const>, and
    // a reservation's identity is that object: two objects with equal fields
    // are two reservations. The fields are for reading; changing a
    // reservation is a request to the client.
    class TAVRIN_API reservation {
    public:
        // What a reservation claims.
        enum class type : unsigned char { connection = 0, advertiser = 1 };

        reservation() = default;
        reservation(reservation const&) = default;
        reservation& operator=(reservation const&) = default;
        virtual ~reservation();

        // The kind; a data member can't share its name with the type.
        type resource_type = type::connection;
        // Unknown type: no particular peer.
        bt_ctrl::address address;
        // The application's own text, kept by the controller for it.
        std::string custom_data;
    };

    struct signal;
    struct capabilities;
    class connection;
    class advertiser;
    class handshake_ctx;
    class gatts;
    class scan_result;

    using connection_queue = std::map<std::shared_ptr<connection const>, unsigned>;
    using advertiser_queue = std::map<std::shared_ptr<advertiser const>, unsigned>;
    using reservation_counts = std::map<reservation::type, unsigned>;
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
    // The interface's address. The handshake sets it when it binds an
    // interface that announces one, so it may be known while still
    // `rebooting`; otherwise the sync asks for it. Empty (unknown type) before
    // that, and again as soon as the state leaves `enabled`.
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

    // Free radio slots per kind of reservation: empty until the sync has
    // read them (which may be before `enabled`), then always both kinds;
    // emptied as soon as the state leaves `enabled`.
    virtual reservation_counts get_free_reservation_cnt() const = 0;
    // `handler` hears every change of the counts while `enabled`, with the
    // new counts; a report of unchanged counts is not told.
    virtual utils::link notify_on_free_reservation_cnt_change(
        std::function<void(reservation_counts const&)> const& handler) const = 0;
    // The reservations that the controller holds for this client: read by the
    // sync (only with a client id), then changed only by this client's own
    // add, replace and remove, and emptied when the state leaves `enabled`.
    // After a resync the set holds new objects, even for the same slots, and
    // older objects are unknown to every operation.
    virtual reservation_set const& get_reservations() const = 0;
    // Asks the controller for a slot of `type`, for `target` if its type is
    // known, with the application's `custom_data`. The handler gets the new
    // reservation, which is in the set by then; the set takes it even if the
    // link was released. A refusal gives a null reservation and the
    // controller's error; inappropriate_state unless `enabled`.
    virtual utils::link add_reservation(
        reservation::type type, address const& target, std::string const& custom_data,
        std::function<void(std::shared_ptr<reservation const> const&,
                           std::error_code const&)> const& handler) = 0;
    // Replaces a reservation of the set by a new one in one step at the
    // controller. On success the old object leaves the set (unchanged, but
    // unknown from then on) and the handler gets the new one; on a refusal
    // the set is unchanged. unknown_resource_reservation for an object that
    // is not in the set, null included (checked after the state).
    virtual utils::link replace_reservation(
        std::shared_ptr<reservation const> const& old_reservation, reservation::type type,
        address const& target, std::string const& custom_data,
        std::function<void(std::shared_ptr<reservation const> const&,
                           std::error_code const&)> const& handler) = 0;
    // Gives a reservation of the set back; it leaves the set only when the
    // controller agrees. Checks as for replace_reservation.
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
    static std::string to_string(reservation::type value);

    // Also takes "m1" and "m2", which to_string never writes.
    static phy to_phy(std::string const& text);
    static addr_type to_addr_type(std::string const& text);
    // Throws logic_error "unknown BT ctrl state str" for any other word.
    static state to_state(std::string const& text);
    // Throws logic_error "unknown reservation type [<text>]" for any other
    // word, quoting the text as given.
    static reservation::type to_reservation_type(std::string const& text);

    // adv_ind and adv_direct_ind invite a connection.
    static bool is_connectable(scan_packet_type type);
    // adv_ind and adv_scan_ind invite a scan request.
    static bool is_scannable(scan_packet_type type);
};

}  // namespace zelvo::tavrin
