// Links, and the linked handlers, tied functions and created links built on them.
#include "tavrin/utils/link.hpp"

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>

#include "tavrin/misc/callable_traits.hpp"
#include "tavrin/misc/create_link.hpp"
#include "tavrin/misc/link_handler.hpp"
#include "tavrin/misc/shared_ptr_tracker.hpp"
#include "tavrin/misc/tie_handler.hpp"

namespace zelvo::tavrin {
namespace {

using misc::link_handler;
using utils::link;
using utils::scoped_link;

auto const release_failure =
    testing::ThrowsMessage<std::logic_error>(testing::StrEq("tavrin failed to release link"));

// A target that counts its releases; `stays_live` makes it refuse to go away.
struct counting_target : link::impl {
    void release() override {
        ++releases;
        live = stays_live;
        if (on_release) {
            on_release();
        }
    }
    bool active() const override { return live; }

    int releases = 0;
    bool live = true;
    bool stays_live = false;
    std::function<void()> on_release;
};

TEST(LinkTest, OnlyTheDeathOfAScopedOwnerOrAnAssignmentToItCancels) {
    auto target = std::make_shared<counting_target>();
    { link plain(target); }
    auto moved_from = std::make_unique<scoped_link>(link(target));
    scoped_link owner(std::move(*moved_from));
    moved_from.reset();
    EXPECT_TRUE(owner.active());
    {
        // Built from the base, a second scoped owner shares the target.
        scoped_link sharer(std::move(static_cast<link&>(owner)));
    }
    EXPECT_FALSE(owner.active());
    EXPECT_EQ(target->releases, 1);

    // Moving a scoped owner into a plain link copies: the owner still cancels.
    auto kept = std::make_shared<counting_target>();
    link plain_copy;
    {
        scoped_link scoped(link{kept});
        plain_copy = std::move(scoped);
    }
    EXPECT_FALSE(plain_copy.active());
    EXPECT_EQ(kept->releases, 1);

    // Every assignment releases what was held, even for an empty link.
    auto second = std::make_shared<counting_target>();
    owner = link(second);
    owner = link{};
    second->live = true;
    owner = link(second);
    owner = scoped_link();
    EXPECT_EQ(second->releases, 2);
}

TEST(LinkTest, CopiesShareOneTargetThatIsReleasedOnceAndMustGoInactive) {
    EXPECT_NO_THROW(link().release());
    auto target = std::make_shared<counting_target>();
    link first(target);
    link second(first);
    first.release();
    EXPECT_FALSE(second.active());
    second.release();
    first.release();
    EXPECT_EQ(target->releases, 1);

    target->live = target->stays_live = true;
    EXPECT_THAT([&] { first.release(); }, release_failure);
    scoped_link scoped(link{target});
    EXPECT_THROW(scoped = link{}, std::logic_error);
    EXPECT_TRUE(scoped.active());
    target->stays_live = false;
}

TEST(LinkTest, ReleaseSurvivesTheDestructionOfTheLinkItRunsOn) {
    auto target = std::make_shared<counting_target>();
    auto held = std::make_unique<link>(target);
    target->on_release = [&held] { held.reset(); };
    std::weak_ptr<counting_target> watch = target;
    target.reset();
    held->release();
    EXPECT_FALSE(held);
    EXPECT_TRUE(watch.expired());
}

void take_text(std::string const&, std::error_code const&) {}

TEST(LinkHandlerTest, ReleaseDestroysTheHandlerAtOnceAndMakesTheFunctionInert) {
    auto mutable_lambda = [](int) mutable noexcept {};
    auto generic_lambda = [](auto) {};
    static_assert(misc::is_callable<decltype(mutable_lambda), void>::value);
    static_assert(!misc::is_callable<std::function<bool()>, void>::value);
    static_assert(!misc::is_callable<decltype(generic_lambda), void>::value);
    EXPECT_TRUE(link_handler(take_text, false).second.active());

    auto capture = std::make_shared<int>(0);
    std::weak_ptr<int> const capture_alive = capture;
    int runs = 0;
    auto [function, handler_link] = link_handler([&runs, capture](int n) { runs += n; }, false);
    capture.reset();
    function(1);
    function(2);
    EXPECT_TRUE(handler_link.active());
    handler_link.release();
    EXPECT_TRUE(capture_alive.expired());
    function(4);
    EXPECT_EQ(runs, 3);

    auto [throwing, throwing_link] =
        link_handler([](std::error_code const&) { throw std::out_of_range("handler"); }, false);
    EXPECT_THROW(throwing({}), std::out_of_range);
}

TEST(LinkHandlerTest, AHandlerMayReleaseItsOwnLinkAndDropItsOwnFunction) {
    auto own = std::make_shared<link>();
    auto function = std::make_unique<std::function<void()>>();
    std::string result;
    std::tie(*function, *own) = link_handler(
        [&, own, text = std::string("captures outlive the release")] {
            own->release();
            function.reset();
            result = own->active() ? "still active" : text;
        },
        false);
    (*function)();
    EXPECT_EQ(result, "captures outlive the release");
    EXPECT_EQ(own.use_count(), 1);
}

TEST(LinkHandlerTest, DroppingEveryCopyOfTheFunctionCancelsTheOperation) {
    auto capture = std::make_shared<int>(0);
    std::weak_ptr<int> const capture_alive = capture;
    auto [function, handler_link] = link_handler([capture] {}, false);
    capture.reset();
    auto copy = function;
    function = nullptr;
    EXPECT_TRUE(handler_link.active());
    copy = nullptr;
    EXPECT_FALSE(handler_link.active());
    EXPECT_TRUE(capture_alive.expired());
}

TEST(LinkHandlerTest, OneShotFiresOnceAndGoesInactiveBeforeTheHandlerRuns) {
    int runs = 0;
    link handler_link;
    bool active_inside = true;
    auto [function, returned] = link_handler(
        [&] {
            ++runs;
            active_inside = handler_link.active();
        },
        true);
    handler_link = returned;
    function();
    function();
    EXPECT_EQ(runs, 1);
    EXPECT_FALSE(active_inside);
}

struct counter {
    void add(int n) { total += n; }
    int get() const { return total; }
    int total = 0;
};

TEST(TieHandlerTest, ATiedFunctionDoesNothingOnceATrackedObjectHasDied) {
    auto first = std::make_shared<int>(1);
    auto second = std::make_shared<std::string>("token");
    int runs = 0;
    auto tied =
        misc::tie_handler([&](int n) { runs += n; }, first, std::weak_ptr<std::string>(second));
    tied(1);
    second.reset();
    tied(2);
    EXPECT_EQ(runs, 1);

    // Member functions, with a stand-in result once the token has died.
    counter object;
    auto add = misc::tie_member(&counter::add, &object, first);
    auto get = misc::tie_member(&counter::get, &std::as_const(object), -1, first);
    add(2);
    EXPECT_EQ(get(), 2);
    first.reset();
    add(2);
    EXPECT_EQ(get(), -1);
    EXPECT_EQ(object.total, 2);

    // A moved-from tracker tracks nothing, so only a sticky flag keeps it expired.
    auto third = std::make_shared<int>(3);
    misc::shared_ptr_tracker tracker(third);
    third.reset();
    EXPECT_TRUE(tracker.expired());
    misc::shared_ptr_tracker taken(std::move(tracker));
    EXPECT_TRUE(tracker.expired());
}

TEST(CreateLinkTest, ActiveWhileTrackedLivesAndFailuresOfReleaseReachTheCaller) {
    auto callback = std::make_shared<std::function<void()>>([] {});
    auto registration = misc::create_link(callback, [&] { callback.reset(); });
    EXPECT_TRUE(registration.active());
    registration.release();
    EXPECT_FALSE(callback);
    EXPECT_FALSE(registration.active());

    int releases = 0;
    misc::create_link(nullptr, [&] { ++releases; }).release();
    EXPECT_EQ(releases, 0);

    auto tracked = std::make_shared<int>(0);
    EXPECT_THAT([&] { misc::create_link(tracked, [] {}).release(); }, release_failure);
    EXPECT_THROW(misc::create_link(tracked, {}).release(), std::bad_function_call);
}

}  // namespace
}  // namespace zelvo::tavrin
