#include "gatt/server.hpp"

#include <utility>

#include "tavrin/error.hpp"
#include "tavrin/misc/tie_handler.hpp"

namespace zelvo::tavrin::impl {

bt_ctrl::gatts::gatts(bt_ctrl& owner)
    : owner(owner), event_loop(owner.event_loop), profile(std::make_unique<gatt::profile>()) {}

bt_ctrl::gatts::~gatts() {
    abort(make_error_code(error::bt_ctrl::no_instance));
}

gatt::profile const& bt_ctrl::gatts::get_profile() const {
    return *profile;
}

std::error_code bt_ctrl::gatts::check() const {
    if (owner.get_state() != state::enabled) {
        return make_error_code(error::bt_ctrl::inappropriate_state);
    }
    if (!owner.get_capabilities().gattSrv) {
        return make_error_code(error::bt_ctrl::unsupported_functionality);
    }
    return {};
}

void bt_ctrl::gatts::abort(std::error_code const& code) {
    auto const running = sync_waiter.lock();
    sync_waiter.reset();
    if (running) {
        running->finish(code);
    }
    // The waiting callers are called from a list of their own: a handler
    // called here must not release its own link, whose position named an
    // element of `sync_signal`.
    misc::signal<void, std::error_code const&> waiting(std::move(sync_signal));
    waiting(code);
    profile = std::make_unique<gatt::profile>();
}

utils::link bt_ctrl::gatts::notify_on_updated(
    std::function<void(std::set<unsigned int> const&)> const& handler) const {
    return updated_signal.connect(
        owner.make_exception_wrapper(handler, "Failed notification handler on GATTS updated"));
}

void bt_ctrl::gatts::on_updated(std::set<unsigned int> const& handles) {
    auto subscribers = updated_signal;
    subscribers(handles);
}

}  // namespace zelvo::tavrin::impl
