#include "tavrin/utils/link.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>

namespace zelvo::tavrin::utils {
namespace {

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

TEST(LinkTest, CopiesShareOneTargetThatIsReleasedOnce) {
    EXPECT_NO_THROW(link().release());
    auto target = std::make_shared<counting_target>();
    link first(target);
    link second(first);
    first.release();
    EXPECT_FALSE(second.active());
    second.release();
    first.release();
    EXPECT_EQ(target->releases, 1);
}

TEST(LinkTest, OnlyTheDeathOfAScopedOwnerCancels) {
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
}

TEST(LinkTest, EveryAssignmentToAScopedLinkReleasesWhatItHeld) {
    auto first = std::make_shared<counting_target>();
    auto second = std::make_shared<counting_target>();
    scoped_link scoped(link{first});
    scoped = link{};
    EXPECT_EQ(first->releases, 1);
    scoped = link(second);
    scoped = scoped_link();
    EXPECT_EQ(second->releases, 1);
}

TEST(LinkTest, ReleaseThatLeavesTheTargetActiveThrows) {
    auto target = std::make_shared<counting_target>();
    target->stays_live = true;
    link held(target);
    try {
        held.release();
        FAIL() << "release did not throw";
    } catch (std::logic_error const& error) {
        EXPECT_STREQ(error.what(), "tavrin failed to release link");
    }
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

}  // namespace
}  // namespace zelvo::tavrin::utils
