// impl::bt_ctrl::gatts: the client's GATT server object. It exists for the
// client's whole life, made in the client's constructor, so that
// applications can hold a reference in every state.
//
// The published mirror is never null: an empty profile until the
// controller's database has been read, and again after an abort. A walk
// builds its tree aside in `sync_profile` and publishes it by moves only when
// the whole walk succeeded, so a reader never sees a partial tree.
//
// The waiter of a walk is its progress counter: every request in flight holds
// one share in its response handler, and the walk ends when the last share
// goes, or at the first finish(error). `sync_waiter` only watches it. Callers
// that come during a walk wait in `sync_signal` and are served together by
// one further walk, posted at the end of the running one.
//
// Sources: server.cpp (the object, the gate, abort and updates),
// server_sync.cpp (the walk), server_edit.cpp (the editing requests).
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <system_error>

#include <nlohmann/json.hpp>

#include "client/bt_ctrl.hpp"
#include "tavrin/bt_ctrl/gatts.hpp"
#include "tavrin/gatt/profile.hpp"
#include "tavrin/misc/signal.hpp"
#include "tavrin/misc/waiter.hpp"
#include "tavrin/utils/event_loop.hpp"

namespace zelvo::tavrin::impl {

class bt_ctrl::gatts : public tavrin::bt_ctrl::gatts {
public:
    explicit gatts(bt_ctrl& owner);
    ~gatts() override;

    utils::link sync(std::function<void(std::error_code const&)> const& handler) override;
    gatt::profile const& get_profile() const override;
    utils::link add_service(
        gatt::uuid const& uuid, bool enabled, std::optional<unsigned int> const& parent,
        std::function<void(unsigned int, std::error_code const&)> const& handler) override;
    utils::link del_service(unsigned int handle,
                            std::function<void(std::error_code const&)> const& handler) override;
    utils::link add_service_reference(
        unsigned int handle, unsigned int parent,
        std::function<void(std::error_code const&)> const& handler) override;
    utils::link del_service_reference(
        unsigned int handle, unsigned int parent,
        std::function<void(std::error_code const&)> const& handler) override;
    utils::link enable_service(unsigned int handle, bool enable,
                               std::function<void(std::error_code const&)> const& handler) override;
    utils::link add_characteristic(
        gatt::uuid const& uuid, std::set<gatt::characteristic::property> const& properties,
        std::set<gatt::attribute_permission> const& permissions, unsigned int parent,
        std::function<void(unsigned int, std::error_code const&)> const& handler) override;
    utils::link del_characteristic(
        unsigned int handle, std::function<void(std::error_code const&)> const& handler) override;
    utils::link add_descriptor(
        gatt::uuid const& uuid, std::set<gatt::attribute_permission> const& permissions,
        unsigned int parent,
        std::function<void(unsigned int, std::error_code const&)> const& handler) override;
    utils::link del_descriptor(unsigned int handle,
                               std::function<void(std::error_code const&)> const& handler) override;
    utils::link notify_on_updated(
        std::function<void(std::set<unsigned int> const&)> const& handler) const override;

    // The gate of every operation: inappropriate_state unless the owner is
    // enabled, unsupported_functionality without the gattSrv capability.
    std::error_code check() const;
    // Ends a running walk and every waiting caller with `code`, and empties
    // the mirror.
    void abort(std::error_code const& code);
    // Hands a "gattsDbUpdated" event's handles to the update subscribers.
    void on_updated(std::set<unsigned int> const& handles);

private:
    using result_handler = std::function<void(std::error_code const&)>;
    using created_handler = std::function<void(unsigned int, std::error_code const&)>;
    using waiter = misc::waiter<result_handler>;
    using response = std::shared_ptr<quorl::resp_ctx>;

    // Starts a walk unless one is running or nobody waits.
    void sync_impl();
    void sync_gatt_service(gatt::service& parent, unsigned int handle,
                           std::shared_ptr<waiter> const& walk);
    void sync_gatt_characteristic(gatt::service& parent, unsigned int handle,
                                  std::shared_ptr<waiter> const& walk);
    void sync_gatt_descriptor(gatt::characteristic& parent, unsigned int handle,
                              std::shared_ptr<waiter> const& walk);
    void on_service(gatt::service& parent, unsigned int handle, response const& resp,
                    std::shared_ptr<waiter> const& walk);
    void on_characteristic(gatt::service& parent, unsigned int handle, response const& resp,
                           std::shared_ptr<waiter> const& walk);
    // The common start of a per-attribute reply: true when the handler is to
    // stop. An unknown handle leaves the attribute out and the walk goes on;
    // any other error ends the walk.
    static bool attribute_step_stops(response const& resp, waiter& walk);

    // The two shapes of an edit: the refusal is posted, else `body()` is
    // encoded after the gate and sent, and the reply is mapped for the
    // handler, with the assigned handle for a creating request.
    utils::link edit(result_handler const& handler, std::string const& text,
                     std::string const& name, std::function<nlohmann::json()> const& body);
    utils::link edit(created_handler const& handler, std::string const& text,
                     std::string const& name, std::function<nlohmann::json()> const& body);

    bt_ctrl& owner;
    std::shared_ptr<utils::event_loop> const& event_loop;
    std::unique_ptr<gatt::profile> profile;
    std::unique_ptr<gatt::profile> sync_profile;
    std::weak_ptr<waiter> sync_waiter;
    misc::signal<void, std::error_code const&> sync_signal;
    mutable misc::signal<void, std::set<unsigned int> const&> updated_signal;
};

}  // namespace zelvo::tavrin::impl
