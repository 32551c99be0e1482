// impl::bt_ctrl::handshake_ctx: the application's window between "hdshkStart"
// and "hdshkFinish".
//
// It refers to the client by reference, valid only while active(): active()
// first checks, through weak references, that the bus instance of this
// handshake and the handshake's marker still live, and the client's
// destruction takes both down. So a context that outlives its handshake or
// the client does no harm; it keeps a strong copy of the event loop so that
// its refusals can still be posted.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "client/bt_ctrl.hpp"

namespace zelvo::tavrin::impl {

class bt_ctrl::handshake_ctx : public tavrin::bt_ctrl::handshake_ctx {
public:
    handshake_ctx(bt_ctrl& ctrl, version_type const& app_version, version_type const& api_version,
                  interface_map const& interfaces);
    // Finishes on the controller's default interface if nobody did.
    ~handshake_ctx() override;

    bool active() const override;
    version const& get_app_version() const override { return app_version; }
    version const& get_api_version() const override { return api_version; }
    interface_map const& get_interfaces() const override { return interfaces; }
    utils::link finish(std::string const& interface_name, finish_handler const& handler) override;

private:
    bt_ctrl& ctrl;
    std::shared_ptr<utils::event_loop> event_loop;
    version_type app_version;
    version_type api_version;
    interface_map interfaces;
    std::weak_ptr<quorl> bus;
    std::weak_ptr<char> token;
    bool not_finished = true;
};

}  // namespace zelvo::tavrin::impl
