// impl::bt_ctrl::advertiser: the one implementation of an advertiser object,
// the local mirror of one advertising set at the controller.
//
// Its state is moved by the application's start and stop, by the replies to
// them and by the controller's events. on_state_change() is the one gate: it
// refuses the moves a race can produce ("started" while stopping, "stopping"
// from stopped, "starting" from anything but stopped or pending, "pending"
// from anything but stopped).
//
// The state lives in a cell of its own (`state_cell`), and so do the handlers
// of a stop that waits for the controller's handle (`stop_done`): the
// "advStart" reply can arrive after the application has dropped the object,
// and must still see that a stop was asked and tell whoever waits. Nothing
// is lost when the application lets go: a running set is stopped from the
// destructor and a stand-in under the same handle hears the end; without a
// handle, the start reply makes the stand-in and stops it.
//
// A listening advertiser (one started with a connection) follows its
// connection: when the connection starts closing, the advertiser starts
// stopping; a stop of the advertiser closes the connection.
//
// Sources: lifecycle.cpp (construction, the state gate, start and its reply,
// stop, the destructor), properties.cpp (the requests that read or change
// the set at the controller), data.cpp (the JSON forms of data and channels).
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/bt_ctrl.hpp"
#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/advertiser.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/reservation.hpp"
#include "tavrin/misc/signal.hpp"
#include "tavrin/utils/event_loop.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::impl {

class bt_ctrl::advertiser : public tavrin::bt_ctrl::advertiser {
public:
    using stop_signal = misc::signal<void, std::error_code const&>;
    using sync_waiter_ptr = std::shared_ptr<bt_ctrl::sync_waiter_type>;
    using reservation_ptr = std::shared_ptr<tavrin::bt_ctrl::reservation const>;
    using seconds = std::chrono::seconds;
    using start_handler =
        std::function<void(seconds const&, std::optional<seconds> const&, std::error_code const&)>;
    using connect_resp_handler = std::function<void(
        unsigned short, tavrin::bt_ctrl::connection::state, std::error_code const&)>;

    // Sends nothing.
    advertiser(bt_ctrl& owner, std::optional<unsigned short> const& id, state initial);
    // An advertiser found at synchronisation: stopped until the controller
    // answers the "advStatusGet" that this sends at once. The waiter is held
    // until that answer has been handled.
    advertiser(bt_ctrl& owner, unsigned short id, sync_waiter_ptr const& waiter);
    ~advertiser() override;

    state get_state() const override;
    stop_reason get_stop_reason() const override;
    utils::link notify_on_state_change(std::function<void(state)> const& handler) const override;
    utils::link notify_on_data_change(
        std::function<void(adv_data const&, std::optional<adv_data> const&)> const& handler)
        const override;
    utils::link start(tavrin::bt_ctrl::address const& addr, phy adv_phy,
                      std::set<unsigned char> channels, std::optional<signed char> const& tx_power,
                      unsigned short interval, adv_data const& data,
                      std::optional<adv_data> const& scan_data,
                      reservation_ptr const& adv_reservation,
                      tavrin::bt_ctrl::connection* connection,
                      reservation_ptr const& conn_reservation,
                      start_handler const& handler) override;
    utils::link stop(std::function<void(std::error_code const&)> const& handler) override;
    utils::link set_reservation(
        reservation_ptr const& adv_reservation, reservation_ptr const& conn_reservation,
        std::function<void(std::error_code const&)> const& handler) override;
    utils::link set_data(adv_data const& data, std::optional<adv_data> const& scan_data,
                         std::function<void(std::error_code const&)> const& handler) override;
    utils::link get_data(std::function<void(adv_data const&, std::optional<adv_data> const&,
                                            std::error_code const&)> const& handler) override;
    utils::link get_address(
        std::function<void(tavrin::bt_ctrl::address const&, std::error_code const&)> const& handler)
        const override;
    utils::link get_connection(
        std::function<void(std::shared_ptr<tavrin::bt_ctrl::connection const> const&,
                           std::error_code const&)> const& handler) const override;
    utils::link get_interval(
        std::function<void(unsigned short, std::error_code const&)> const& handler) const override;
    utils::link get_tx_power(
        std::function<void(signed char, std::error_code const&)> const& handler) const override;
    utils::link get_channel_map(
        std::function<void(std::set<unsigned char> const&, std::error_code const&)> const& handler)
        const override;
    utils::link get_phy(
        std::function<void(phy, std::error_code const&)> const& handler) const override;

    // For the client.
    std::optional<unsigned short> const& get_id() const { return adv_id; }
    void set_stop_reason(stop_reason reason) { adv_stop_reason = reason; }
    std::weak_ptr<void> get_tracker() const { return tracker; }
    // The gate of every state change; refused moves are dropped in silence.
    void on_state_change(state new_state);
    void on_data_change(adv_data const& data, std::optional<adv_data> const& scan_data);

    // The JSON forms of channels and advertising data.
    static bool is_channel_map_valid(std::set<unsigned char> const& channels);
    // "ch37" and so on, in ascending order.
    static std::vector<nlohmann::json> to_json(std::set<unsigned char> const& channels);
    // {"type": n, "value": "HEX"} per AD structure, in multimap order;
    // "value" is left out for an empty payload.
    static std::vector<nlohmann::json> to_json(adv_data const& data);
    // "primary" unless `data` is empty, "scanRsp" whenever `scan_data` is
    // engaged.
    static std::map<std::string, nlohmann::json> to_json(adv_data const& data,
                                                         std::optional<adv_data> const& scan_data);
    // Each text without its first two characters, read as a decimal number
    // and cut to a byte; not tested for validity.
    static std::set<unsigned char> to_channel_map(std::vector<nlohmann::json> const& values);

private:
    // The client lives, is `enabled`, and its interface offers advertising.
    std::error_code check() const;
    // check(), then the set is started with a handle.
    std::error_code check_state() const;
    // Stores a permitted new state without telling anyone; true if stored.
    bool on_state_change_impl(state new_state);
    // `handler` wrapped with the client's exception containment, or, once
    // the client is gone, with exceptions dropped.
    template <typename F>
    F wrap(F const& handler, std::string const& words) const {
        return bt_ctrl::contain(ctrl, ctrl_tracker, handler, words);
    }
    void post(std::function<void()> const& call) const;

    // One request about the set: `request` with "advHandle" added to `body`,
    // unless `ec` refuses it first. The reply goes through `read`, whose
    // tuple of values goes to the handler; on an error the handler gets
    // `failure` instead. `linked` is the already wrapped and linked handler.
    template <typename Linked, typename Read, typename Failure>
    void ask(std::error_code const& ec, std::string const& request, nlohmann::json body,
             Linked const& linked, Read read, Failure const& failure) const;

    // Settles an "advStart" reply against whatever has happened meanwhile.
    // It holds nothing of the object but weak trackers and shared cells, so
    // it works after the object has died.
    static void start_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp, advertiser* adv,
                                   std::weak_ptr<void> const& adv_tracker, bt_ctrl& owner,
                                   std::weak_ptr<void> const& owner_tracker,
                                   std::shared_ptr<state> const& cell,
                                   std::shared_ptr<stop_signal> const& done,
                                   start_handler const& handler,
                                   connect_resp_handler const& connect_handler);
    // Tells each waiting stop once; a stop asked during the dispatch waits
    // anew.
    static void fire_stop_done(std::shared_ptr<stop_signal> const& done, std::error_code const& ec);

    void status_get_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp,
                                 sync_waiter_ptr const& waiter);
    // True when the reply must not be read: an error of the synchronisation,
    // which is then ended, or a set stopped in the meantime.
    bool handle_sync_resp_error(std::error_code const& ec, sync_waiter_ptr const& waiter);

    bt_ctrl& ctrl;
    std::weak_ptr<void> ctrl_tracker;
    std::shared_ptr<utils::event_loop> event_loop;
    std::optional<unsigned short> adv_id;
    std::shared_ptr<state> state_cell;
    stop_reason adv_stop_reason = stop_reason::unknown;
    std::shared_ptr<stop_signal> stop_done;
    std::weak_ptr<bt_ctrl::connection> connection;
    utils::scoped_link connection_link;
    std::shared_ptr<char> tracker;
    mutable misc::signal<void, adv_data const&, std::optional<adv_data> const&> data_signal;
    mutable misc::signal<void, state> state_signal;
};

}  // namespace zelvo::tavrin::impl
