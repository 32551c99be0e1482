// bt_ctrl: the client object through which an application uses Bluetooth Low
// Energy. The application holds it by shared_ptr and calls it on the thread of
// its event loop only.
//
// This header declares the class with its enumerations and their text forms.
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

#include <string>

#include "tavrin/export.hpp"

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

    bt_ctrl() = default;
    bt_ctrl(bt_ctrl const&) = delete;
    bt_ctrl& operator=(bt_ctrl const&) = delete;
    virtual ~bt_ctrl();

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
