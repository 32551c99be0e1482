#include "tavrin/misc/signal.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace zelvo::tavrin::misc {
namespace {

using calls = std::vector<std::string>;

TEST(SignalTest, ASlotReleasedMidDispatchStillRunsThenButNeverAgain) {
    signal<void> fired;
    calls seen;
    utils::link b_link;
    bool b_link_active_in_b = true;
    fired.connect([&] {
        seen.push_back("a");
        b_link.release();
    });
    b_link = fired.connect([&] {
        seen.push_back("b");
        b_link_active_in_b = b_link.active();
    });
    fired.connect([&] { seen.push_back("c"); });
    fired();
    EXPECT_FALSE(b_link_active_in_b);
    fired();
    EXPECT_EQ(seen, (calls{"a", "b", "c", "a", "c"}));
}

TEST(SignalTest, ASlotMayReleaseItsOwnLinkAndDestroyTheSignal) {
    auto fired = std::make_unique<signal<void>>();
    calls seen;
    auto own = std::make_shared<utils::link>();
    std::string const name = "a slot's capture that must outlive its release";
    *own = fired->connect([&, own, name] {
        own->release();
        fired.reset();
        seen.push_back(name);
    });
    fired->connect([&] { seen.push_back("later"); });
    (*fired)();
    EXPECT_EQ(seen, (calls{name, "later"}));
    EXPECT_FALSE(own->active());
    EXPECT_NO_THROW(own->release());
}

// A slot connected during a dispatch first runs in the next one, here a nested
// dispatch, which takes its own snapshot.
TEST(SignalTest, ASlotConnectedDuringDispatchFirstRunsInANestedOne) {
    signal<void, int> fired;
    calls seen;
    fired.connect([&](int depth) {
        seen.push_back("a" + std::to_string(depth));
        if (depth == 0) {
            fired.connect([&](int d) { seen.push_back("late" + std::to_string(d)); });
            fired(1);
        }
    });
    fired.connect([&](int depth) { seen.push_back("b" + std::to_string(depth)); });
    fired(0);
    EXPECT_EQ(seen, (calls{"a0", "a1", "b1", "late1", "b0"}));
}

TEST(SignalTest, AThrowingSlotStopsTheDispatchAndTheSignalKeepsItsSlots) {
    signal<void> fired;
    calls seen;
    bool fail = true;
    fired.connect([&] { seen.push_back("a"); });
    fired.connect([&] {
        if (fail) {
            throw std::runtime_error("slot failed");
        }
        seen.push_back("b");
    });
    fired.connect([&] { seen.push_back("c"); });
    EXPECT_THROW(fired(), std::runtime_error);
    fail = false;
    fired();
    EXPECT_EQ(seen, (calls{"a", "a", "b", "c"}));

    signal<void> with_empty;
    with_empty.connect({});
    EXPECT_THROW(with_empty(), std::bad_function_call);
}

TEST(SignalTest, ACopyIsDeepLinksOutliveTheirSignalAndSelfAssignmentEmpties) {
    int runs = 0;
    auto source = std::make_unique<signal<void>>();
    utils::link slot_link = source->connect([&] { ++runs; });
    signal<void> copy(*source);
    source.reset();
    EXPECT_FALSE(slot_link.active());
    EXPECT_NO_THROW(slot_link.release());
    copy();
    EXPECT_EQ(runs, 1);

    slot_link = copy.connect([&] { ++runs; });
    auto& same = copy;
    copy = same;
    copy();
    EXPECT_EQ(runs, 1);
    EXPECT_FALSE(slot_link.active());
}

TEST(SignalTest, MoveConstructionKeepsTheSlotsAndMoveAssignmentCopiesThem) {
    calls seen;
    signal<void> first;
    auto first_link = first.connect([&] { seen.push_back("first"); });
    signal<void> moved(std::move(first));
    first();
    EXPECT_TRUE(first_link.active());
    signal<void> assigned;
    assigned = std::move(moved);
    moved = signal<void>();
    EXPECT_FALSE(first_link.active());
    assigned();
    EXPECT_EQ(seen, calls{"first"});
}

// Each slot owns a scoped link to the other, so dropping either slot releases
// the other while the signal is being emptied.
std::pair<utils::link, utils::link> connect_mutual_guards(signal<void>& fired) {
    auto first_guard = std::make_shared<utils::scoped_link>();
    auto second_guard = std::make_shared<utils::scoped_link>();
    auto first = fired.connect([first_guard] {});
    auto second = fired.connect([second_guard] {});
    *first_guard = second;
    *second_guard = first;
    return {first, second};
}

TEST(SignalTest, EmptyingSurvivesSlotsThatReleaseEachOtherWhenDestroyed) {
    signal<void> assigned;
    auto [first, second] = connect_mutual_guards(assigned);
    assigned = signal<void>();
    EXPECT_FALSE(first.active() || second.active());

    auto destroyed = std::make_unique<signal<void>>();
    std::tie(first, second) = connect_mutual_guards(*destroyed);
    destroyed.reset();
    EXPECT_FALSE(first.active() || second.active());
}

}  // namespace
}  // namespace zelvo::tavrin::misc
