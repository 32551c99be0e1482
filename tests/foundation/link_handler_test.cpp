#include "tavrin/misc/link_handler.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <tuple>
#include <type_traits>

#include "tavrin/misc/callable_traits.hpp"
#include "tavrin/misc/create_link.hpp"
#include "tavrin/misc/shared_ptr_tracker.hpp"
#include "tavrin/misc/tie_handler.hpp"

namespace zelvo::tavrin::misc {
namespace {

std::string last_text;
void record_text(std::string const& text, std::error_code const&) {
    last_text = text;
}

TEST(LinkHandlerTest, AcceptsFunctionsAndFunctionObjectsOfOneSignature) {
    auto lambda = [](int) mutable noexcept {};
    auto generic_lambda = [](auto) {};
    static_assert(std::is_same_v<callable_traits<decltype(record_text)>::type,
                                 std::function<void(std::string const&, std::error_code const&)>>);
    static_assert(
        std::is_same_v<callable_traits<decltype(lambda)>::type, std::function<void(int)>>);
    static_assert(is_callable<std::function<void()>, void>::value);
    static_assert(!is_callable<std::function<bool()>, void>::value);
    static_assert(!is_callable<decltype(generic_lambda), void>::value);

    auto [function, function_link] = link_handler(record_text, false);
    function("text", {});
    EXPECT_EQ(last_text, "text");
}

TEST(LinkHandlerTest, ReleaseDestroysTheHandlerAtOnceAndMakesTheFunctionInert) {
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
}

TEST(LinkHandlerTest, AHandlerMayReleaseItsOwnLinkAndDropItsOwnFunction) {
    auto own = std::make_shared<utils::link>();
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
    utils::link handler_link;
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

TEST(LinkHandlerTest, OnlyAScopedOwnerOfTheLinkCancelsOnDestruction) {
    int runs = 0;
    auto [function, handler_link] = link_handler([&] { ++runs; }, false);
    { utils::link copy(handler_link); }
    function();
    { utils::scoped_link scoped(utils::link{handler_link}); }
    function();
    EXPECT_EQ(runs, 1);

    auto [throwing, throwing_link] =
        link_handler([](std::error_code const&) { throw std::out_of_range("handler"); }, false);
    EXPECT_THROW(throwing({}), std::out_of_range);
}

TEST(TieHandlerTest, ATiedFunctionDoesNothingOnceATrackedObjectHasDied) {
    auto first = std::make_shared<int>(1);
    auto second = std::make_shared<std::string>("token");
    int runs = 0;
    auto tied = tie_handler([&](int n) { runs += n; }, first, std::weak_ptr<std::string>(second));
    tied(1);
    second.reset();
    tied(2);
    EXPECT_EQ(runs, 1);
    auto checked = tie_handler([](int n) { return n > 0; }, true, std::weak_ptr<void>(first));
    EXPECT_FALSE(checked(-1));
    first.reset();
    EXPECT_TRUE(checked(-1));
}

TEST(TieHandlerTest, TrackersExpireWithAnyObjectAndStayExpired) {
    auto first = std::make_shared<int>(1);
    auto second = std::make_shared<int>(2);
    shared_ptr_tracker tracker(first, second);
    EXPECT_TRUE(tracker);
    second.reset();
    EXPECT_TRUE(tracker.expired());
    // A moved-from tracker tracks nothing, so only a sticky flag keeps it expired.
    shared_ptr_tracker taken(std::move(tracker));
    EXPECT_TRUE(tracker.expired());

    shared_ptr_tracker live(first);
    shared_ptr_tracker other(std::move(live));
    first.reset();
    EXPECT_FALSE(live.expired());
    EXPECT_TRUE(other.expired());
}

struct base_object {
    virtual ~base_object() = default;
    virtual void note(std::string const& text) { seen += "base:" + text; }
    virtual bool accepts(int n) const { return n == 0; }
    std::string seen;
};

struct derived_object : base_object {
    void note(std::string const& text) override { seen += "derived:" + text; }
    bool accepts(int n) const override { return n > 0; }
};

TEST(TieMemberTest, CallsTheMemberVirtuallyUntilTheTokenDies) {
    auto object = std::make_unique<derived_object>();
    auto token = std::make_shared<int>(0);
    auto note = tie_member(&base_object::note, object.get(), token);
    auto accepts = tie_member(&base_object::accepts,
                              static_cast<derived_object const*>(object.get()), false, token);
    note("x");
    EXPECT_EQ(object->seen, "derived:x");
    EXPECT_TRUE(accepts(1));
    token.reset();
    object.reset();
    note("y");
    EXPECT_FALSE(accepts(1));
}

TEST(CreateLinkTest, ActiveWhileTrackedLivesAndReleasedByResettingIt) {
    auto callback = std::make_shared<std::function<void()>>([] {});
    auto registration = create_link(callback, [&] { callback.reset(); });
    EXPECT_TRUE(registration.active());
    registration.release();
    EXPECT_FALSE(callback);
    EXPECT_FALSE(registration.active());

    int releases = 0;
    auto never = create_link(nullptr, [&] { ++releases; });
    EXPECT_FALSE(never.active());
    never.release();
    EXPECT_EQ(releases, 0);
}

TEST(CreateLinkTest, FailuresOfTheReleaseActionReachTheCaller) {
    auto tracked = std::make_shared<int>(0);
    try {
        create_link(tracked, [] {}).release();
        FAIL() << "release did not throw";
    } catch (std::logic_error const& error) {
        EXPECT_STREQ(error.what(), "tavrin failed to release link");
    }
    EXPECT_THROW(create_link(tracked, {}).release(), std::bad_function_call);
}

}  // namespace
}  // namespace zelvo::tavrin::misc
