// The registrations behind the links an endpoint hands out: a handler slot
// (request, event, error, reply-check and fallback handlers) and an exchange
// (one request waiting for its outcome). Each is a link target that, once
// released, tells its endpoint to forget it, if the endpoint still lives.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "endpoint.hpp"

namespace zelvo::quorl_detail {

template <typename Handler>
struct slot final : quorl_utils::link::target {
    slot(std::weak_ptr<endpoint> owner, Handler handler)
        : owner(std::move(owner)), handler(std::move(handler)) {}

    void release() override {
        if (live) {
            drop();
            if (auto const alive = owner.lock()) {
                alive->forget_slot(this);
            }
        }
    }
    bool active() const override { return live; }

    // Ends the registration and frees the handler (and what it captured) at
    // once, or when its running call returns: a handler that holds its own
    // link must not keep itself alive.
    void drop() {
        live = false;
        if (running == 0) {
            handler = nullptr;
        }
    }

    template <typename... Args>
    auto call(Args const&... args) {
        ++running;
        struct leave {
            slot& self;
            ~leave() {
                if (--self.running == 0 && !self.live) {
                    self.handler = nullptr;
                }
            }
        } const guard{*this};
        return handler(args...);
    }

    std::weak_ptr<endpoint> owner;
    Handler handler;
    bool live = true;
    int running = 0;
};

struct exchange final : quorl_utils::link::target {
    void release() override {
        cancelled = true;  // also heard by a reply check that is running
        if (!done) {
            done = true;
            handler = nullptr;
            if (auto const alive = owner.lock()) {
                alive->forget_exchange(id);
            }
        }
    }
    bool active() const override { return !done; }

    std::weak_ptr<endpoint> owner;
    std::uint32_t id = 0;  // 0: no reply wanted
    std::string name;
    quorl::response_handler handler;
    std::uint64_t deadline = 0;  // in ticks
    bool done = false;           // outcome given, or cancelled
    bool cancelled = false;
};

}  // namespace zelvo::quorl_detail
