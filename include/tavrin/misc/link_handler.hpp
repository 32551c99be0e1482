// misc::link_handler: turns a completion handler into the function that the
// library stores and calls, and the utils::link that the application keeps.
//
// The stored copy of the handler has one strong owner, the link's target, so:
// - After release() (or the death of a utils::scoped_link holding the link)
//   the handler never starts, and it and everything it captured are destroyed
//   at the time of the release. The function stays callable but is inert.
// - A running handler is not interrupted: it runs on a local copy, so it may
//   release its own link or drop the last copy of the function.
// - A dropped operation cancels itself: when the last copy of the function is
//   destroyed, called or not, the link is released. So link.active() is true
//   exactly while the function can still fire.
// - With one_shot false the handler fires on every call until released; with
//   one_shot true at most once, and the link goes inactive before it runs.
// Exceptions from the handler pass unchanged. Single-threaded.
#pragma once

#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

#include "tavrin/misc/aggregate_adapter.hpp"
#include "tavrin/misc/callable_traits.hpp"
#include "tavrin/misc/shared_ptr_tracker.hpp"
#include "tavrin/misc/tie_handler.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::misc {

namespace linkhandlerdetail {

// Gives the closure, a weak reference to the stored handler and the link. The
// closure must not be called once the stored handler is gone; link_handler
// ties it to the weak reference for that.
template <typename F, typename G = typename callable_traits<F>::type>
std::tuple<G, std::weak_ptr<void>, utils::link> wrap_handler(F const& handler, bool one_shot) {
    using handler_type = std::decay_t<F>;

    class link_ctx : public utils::link::impl {
    public:
        explicit link_ctx(std::shared_ptr<handler_type> handler) : handler(std::move(handler)) {}

        void release() override { handler.reset(); }
        bool active() const override { return handler != nullptr; }

        std::shared_ptr<handler_type> handler;
    };

    auto const ctx = std::make_shared<link_ctx>(std::make_shared<handler_type>(handler));
    utils::link const handler_link = aggregate_adapter<utils::link>(ctx);
    // Shared by all copies of the closure: the last copy to go releases the link.
    auto const guard = std::make_shared<utils::scoped_link>(utils::link(handler_link));

    G closure = [ctx, one_shot, guard](auto&&... args) {
        handler_type call = *ctx->handler;
        if (one_shot) {
            ctx->handler.reset();
        }
        // Only the local copy is touched from here on: the call may destroy
        // this closure.
        return call(std::forward<decltype(args)>(args)...);
    };
    return {std::move(closure), std::weak_ptr<void>(ctx->handler), handler_link};
}

}  // namespace linkhandlerdetail

template <typename F, std::enable_if_t<is_callable<F, void>::value, int> = 0>
std::pair<typename callable_traits<F>::type, utils::link> link_handler(F const& handler,
                                                                       bool one_shot) {
    auto [closure, stored, handler_link] = linkhandlerdetail::wrap_handler(handler, one_shot);
    return {tie_handler(closure, shared_ptr_tracker(stored)), handler_link};
}

}  // namespace zelvo::tavrin::misc
