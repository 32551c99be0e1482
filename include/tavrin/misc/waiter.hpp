// misc::waiter<F>: the join point of a group of concurrent requests.
//
// A waiter lives in a shared_ptr, and its shared count is the join counter:
// the initiator makes it with make_shared, hands a copy to every request it
// issues (bound into the response handler) and drops its own. When the last
// holder lets go, the destructor runs the continuation with the arguments
// given at construction. A participant may end the group early with abort()
// (no continuation) or finish(args...) (the continuation now, with those
// arguments); the others then find is_active() false. The continuation runs at
// most once over the waiter's whole life.
//
// The continuation runs synchronously inside whatever dropped the last
// reference. The waiter is already empty when it runs, so it may start a new
// group with a new waiter; an exception that leaves it from the destructor
// terminates the process. Single-threaded.
#pragma once

#include <functional>
#include <tuple>
#include <utility>

namespace zelvo::tavrin::misc {

template <typename F>
class waiter;

template <typename... Params>
class waiter<std::function<void(Params...)>> {
public:
    using handler_type = std::function<void(Params...)>;

    // `args` are what the continuation gets when the last holder lets go; they
    // are stored by value. An empty handler makes an inactive waiter.
    template <typename... Args>
    explicit waiter(handler_type const& continuation, Args&&... args) : handler(continuation) {
        if (!continuation) {
            return;
        }
        final_call = [continuation, bound = std::make_tuple(std::forward<Args>(args)...)] {
            std::apply(continuation, bound);
        };
    }

    waiter(waiter const&) = delete;
    waiter& operator=(waiter const&) = delete;

    ~waiter() {
        if (!final_call) {
            return;
        }
        std::function<void()> call;
        call.swap(final_call);
        abort();
        call();
    }

    bool is_active() const { return handler && final_call; }

    // Ends the group without a continuation. Both members are empty before any
    // captured state is destroyed, so destructors that re-enter the waiter find
    // it inactive.
    void abort() {
        handler_type dropped_handler;
        std::function<void()> dropped_final_call;
        dropped_handler.swap(handler);
        dropped_final_call.swap(final_call);
    }

    // Ends the group with the continuation called now, with `args`. Does
    // nothing if the group has already ended. Exceptions reach the caller.
    void finish(Params... args) {
        if (!handler) {
            return;
        }
        handler_type call;
        call.swap(handler);
        abort();
        call(std::forward<Params>(args)...);
    }

private:
    handler_type handler;
    std::function<void()> final_call;
};

}  // namespace zelvo::tavrin::misc
