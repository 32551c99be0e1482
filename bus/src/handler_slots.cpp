// Registering and forgetting an endpoint's handlers. A new handler in a
// place replaces the old one, whose link goes inactive at once.
#include <memory>
#include <string>
#include <utility>

#include "endpoint.hpp"
#include "handler_slots.hpp"

namespace zelvo::quorl_detail {

void endpoint::forget_slot(void const* which) {
    if (error_slot.get() == which) {
        error_slot.reset();
    }
    if (reply_check->get() == which) {
        reply_check->reset();
    }
    if (fallback_slot.get() == which) {
        fallback_slot.reset();
    }
    for (auto entry = event_slots.begin(); entry != event_slots.end(); ++entry) {
        if (entry->second.get() == which) {
            event_slots.erase(entry);
            return;
        }
    }
    for (auto entry = request_slots.begin(); entry != request_slots.end(); ++entry) {
        if (entry->second.get() == which) {
            request_slots.erase(entry);
            return;
        }
    }
}

namespace {

// Installs a new handler in `place`; the one it replaces goes inactive. An
// empty handler only unsets.
template <typename Handler>
quorl_utils::link install(std::shared_ptr<slot<Handler>>& place, std::weak_ptr<endpoint> owner,
                          Handler const& handler) {
    if (place) {
        place->drop();
        place.reset();
    }
    if (!handler) {
        return {};
    }
    place = std::make_shared<slot<Handler>>(std::move(owner), handler);
    return quorl_utils::link(place);
}

}  // namespace

quorl_utils::link endpoint::set_error_handler(quorl::error_handler const& handler) {
    return install(error_slot, weak_from_this(), handler);
}

quorl_utils::link endpoint::set_event_handler(std::string const& name,
                                              quorl::event_handler const& handler) {
    return install(event_slots[name], weak_from_this(), handler);
}

quorl_utils::link endpoint::set_reply_check_handler(quorl::reply_check_handler const& handler) {
    return install(*reply_check, weak_from_this(), handler);
}

quorl_utils::link endpoint::set_request_handler(std::string const& name,
                                                request_handler const& handler) {
    return install(request_slots[name], weak_from_this(), handler);
}

quorl_utils::link endpoint::set_fallback_handler(request_handler const& handler) {
    return install(fallback_slot, weak_from_this(), handler);
}

void endpoint::set_default_reply_timeout(std::chrono::seconds const& timeout) {
    default_timeout = timeout;
}

}  // namespace zelvo::quorl_detail
