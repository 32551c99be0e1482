// bt_ctrl::handshake_ctx: the choice of an interface, handed to the handler of
// enable() between the controller's greeting and the binding of an interface.
//
// The application reads the controller's versions and interfaces and calls
// finish() once. Letting the last reference go without finishing leaves the
// choice to the controller: the handshake is finished on its default
// interface. A context dies (active() false) when it has been finished, when
// its link to the controller ended, or when a newer handshake began; finish()
// on a dead context reports inappropriate_state on a later turn.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <system_error>
#include <tuple>

#include "tavrin/bt_ctrl/address.hpp"
#include "tavrin/bt_ctrl/capabilities.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/export.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin {

class TAVRIN_API bt_ctrl::handshake_ctx {
public:
    // One radio interface of the controller, as it describes itself.
    struct interface {
        bt_ctrl::address address;
        std::string vendor;
        std::string part;
        bt_ctrl::capabilities caps;
    };
    using version = std::tuple<unsigned, unsigned, unsigned>;

    handshake_ctx() = default;
    handshake_ctx(handshake_ctx const&) = delete;
    handshake_ctx& operator=(handshake_ctx const&) = delete;

    virtual bool active() const = 0;
    // The controller's application and API versions (major, minor, patch).
    virtual version const& get_app_version() const = 0;
    virtual version const& get_api_version() const = 0;
    // Interfaces by name, as offered.
    virtual std::map<std::string, interface> const& get_interfaces() const = 0;
    // Binds `interface_name` ("" lets the controller choose); `handler` gets
    // the name bound. Only a refusal can be cancelled by the link: once the
    // request is out, the handler will hear its answer.
    virtual utils::link finish(
        std::string const& interface_name,
        std::function<void(std::string const&, std::error_code const&)> const& handler) = 0;
    virtual ~handshake_ctx();

    explicit operator bool() const { return active(); }
};

}  // namespace zelvo::tavrin
