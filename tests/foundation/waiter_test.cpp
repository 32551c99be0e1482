#include "tavrin/misc/waiter.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <system_error>
#include <vector>

namespace zelvo::tavrin::misc {
namespace {

using group_waiter = waiter<std::function<void()>>;
using failing_waiter = waiter<std::function<void(std::error_code const&)>>;

TEST(WaiterTest, TheContinuationRunsWhenTheLastHolderLetsGoUnlessAborted) {
    EXPECT_FALSE(group_waiter(nullptr).is_active());
    failing_waiter(nullptr, std::error_code()).finish(std::make_error_code(std::errc::io_error));

    int runs = 0;
    auto group = std::make_shared<group_waiter>([&] { ++runs; });
    auto holder = group;
    group.reset();
    EXPECT_EQ(runs, 0);
    EXPECT_TRUE(holder->is_active());
    holder.reset();
    EXPECT_EQ(runs, 1);

    auto aborted = std::make_shared<group_waiter>([&] { ++runs; });
    aborted->abort();
    EXPECT_FALSE(aborted->is_active());
    aborted.reset();
    EXPECT_EQ(runs, 1);
}

TEST(WaiterTest, FinishCallsTheHandlerOnceWithItsArguments) {
    std::vector<std::error_code> seen;
    auto const failure = std::make_error_code(std::errc::timed_out);
    auto group = std::make_shared<failing_waiter>(
        [&](std::error_code const& error) { seen.push_back(error); }, std::error_code());
    group->finish(failure);
    EXPECT_FALSE(group->is_active());
    group->finish(std::make_error_code(std::errc::io_error));
    group.reset();
    EXPECT_EQ(seen, std::vector<std::error_code>{failure});

    std::make_shared<failing_waiter>([&](std::error_code const& error) { seen.push_back(error); },
                                     std::error_code());
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_FALSE(seen.back());
}

TEST(WaiterTest, CapturesDestroyedByAbortCannotReachTheHandler) {
    // Destroying a capture of either function tries to finish the group.
    struct reentry {
        std::shared_ptr<std::function<void()>> on_destroy;
        ~reentry() {
            if (*on_destroy) {
                (*on_destroy)();
            }
        }
    };
    auto on_destroy = std::make_shared<std::function<void()>>();
    int runs = 0;
    auto group = std::make_shared<failing_waiter>(
        [&runs, probe = reentry{on_destroy}](std::error_code const&) { ++runs; },
        std::error_code());
    *on_destroy = [&] { group->finish(std::make_error_code(std::errc::io_error)); };
    group->abort();
    *on_destroy = nullptr;
    EXPECT_EQ(runs, 0);
}

TEST(WaiterTest, AContinuationMayStartANewGroupFromTheDestructor) {
    std::vector<std::shared_ptr<group_waiter>> pending;
    std::vector<int> finished_groups;
    std::function<void(int)> start_group = [&](int number) {
        auto group = std::make_shared<group_waiter>([&, number] {
            finished_groups.push_back(number);
            if (number < 2) {
                start_group(number + 1);
            }
        });
        pending.push_back(group);
        pending.push_back(group);
    };
    start_group(0);
    while (!pending.empty()) {
        auto response = std::move(pending.front());
        pending.erase(pending.begin());
        response.reset();
    }
    EXPECT_EQ(finished_groups, (std::vector<int>{0, 1, 2}));
}

}  // namespace
}  // namespace zelvo::tavrin::misc
