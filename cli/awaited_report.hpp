// One report that a demo step waits for before its next action: a state word
// or a kind of change, named by the step. A report that doesn't come within
// a few seconds ends the run with what was missing.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <utility>

#include <asio.hpp>

#include "task.hpp"

namespace zelvo::tavrin::cli {

class awaited_report {
public:
    static constexpr std::chrono::seconds wait{5};

    explicit awaited_report(task_context const& context) : ctx(context), timer(context.io) {}

    // The next action, `next`, waits for the report `key`; `what` names it
    // in the failure.
    void expect(std::string key, std::string const& what, std::function<void()> next) {
        awaited = std::move(key);
        then = std::move(next);
        timer.expires_after(wait);
        timer.async_wait([this, what](asio::error_code const& ec) {
            if (!ec) {
                ctx.fail("no report of " + what + " within " + std::to_string(wait.count()) + " s");
            }
        });
    }

    // A report came; the awaited one starts the next action on a later turn,
    // out of the notification that is still being delivered.
    void reported(std::string const& key) {
        if (awaited.empty() || key != awaited) {
            return;
        }
        awaited.clear();
        timer.cancel();
        asio::post(ctx.io, std::move(then));
    }

private:
    task_context ctx;
    asio::steady_timer timer;
    std::string awaited;
    std::function<void()> then;
};

}  // namespace zelvo::tavrin::cli
