// misc::create_link: the link of a registration that lives in a single member
// rather than in a signal.
//
// The registering object keeps the callback in a shared_ptr member, passes that
// member as `tracked` and an `on_release` that resets it. The link holds
// `tracked` only weakly: it is active while `tracked` has a strong owner, and
// release() calls `on_release`. `on_release` must therefore destroy the last
// strong owner of `tracked`; if it doesn't, utils::link::release() throws
// logic_error "tavrin failed to release link". A null `tracked` gives a link
// that is never active and never calls `on_release`.
#pragma once

#include <functional>
#include <memory>

#include "tavrin/export.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::misc {

TAVRIN_API utils::link create_link(std::shared_ptr<void> const& tracked,
                                   std::function<void()> const& on_release);

}  // namespace zelvo::tavrin::misc
