#include <gmock/gmock.h>

#include <any>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "tavrin/gatt.hpp"

namespace zelvo::tavrin::gatt {
namespace {

using services = std::set<service*>;

uuid u(char const* text) {
    return uuid(std::string(text));
}
auto throws(std::string const& text) {
    return ::testing::ThrowsMessage<std::runtime_error>(::testing::StrEq(text));
}
auto circular(char const* parent, char const* child) {
    return throws(std::string("gatt service [") + parent + "] can't include service [" + child +
                  "] because of circular reference");
}

class attribute_tree : public ::testing::Test {
protected:
    profile tree;
    service& root = tree.get_root();
};

TEST_F(attribute_tree, nodes_are_found_by_handle_only_as_their_own_kind) {
    EXPECT_EQ(tree.find_service(0), &root);
    EXPECT_TRUE(tree.get_primary_services().empty());
    EXPECT_EQ(std::as_const(tree).find_attribute(0).type(), typeid(service const*));

    auto* const battery = root.add_child(1, u("180f"));
    auto* const level = battery->add_characteristic(2, u("2a19"));
    auto* const format = level->add_descriptor(3, u("2904"));
    auto* const config = level->add_descriptor(4, u("2902"));
    EXPECT_EQ(tree.get_primary_services(), services{battery});
    EXPECT_EQ(&level->get_service(), battery);
    EXPECT_EQ(battery->get_characteristics(), std::set<characteristic*>{level});
    EXPECT_EQ(level->get_descriptors(), (std::set<descriptor*>{format, config}));

    EXPECT_EQ(tree.find_service(1), battery);
    EXPECT_EQ(tree.find_service(2), nullptr);
    EXPECT_EQ(tree.find_characteristic(2), level);
    EXPECT_EQ(tree.find_characteristic(3), nullptr);
    EXPECT_EQ(tree.find_descriptor(3), format);
    EXPECT_EQ(std::any_cast<descriptor*>(tree.find_attribute(4)), config);
    EXPECT_EQ(std::any_cast<characteristic const*>(std::as_const(tree).find_attribute(2)), level);

    level->del_descriptor(3);
    EXPECT_EQ(tree.find_descriptor(3), nullptr);
    EXPECT_EQ(level->get_descriptors(), std::set<descriptor*>{config});
    battery->del_characteristic(2);
    EXPECT_FALSE(tree.find_attribute(2).has_value());
    EXPECT_FALSE(tree.find_attribute(4).has_value());
    EXPECT_TRUE(battery->get_characteristics().empty());
}

TEST_F(attribute_tree, a_taken_handle_is_refused_across_kinds_and_the_tree_is_kept) {
    auto* const heart_rate = root.add_child(1, u("180d"));
    auto* const measurement = heart_rate->add_characteristic(2, u("2a37"));
    auto* const config = measurement->add_descriptor(3, u("2902"));
    auto* const child = heart_rate->add_child(4, u("180f"));

    std::pair<std::function<void()>, std::string> const refusals[] = {
        {[&] { heart_rate->add_characteristic(1, u("2a38")); },
         "can't assigne handle [1] to gatt characteristic"},
        {[&] { measurement->add_descriptor(2, u("2901")); },
         "can't assigne handle [2] to gatt descriptor"},
        {[&] { measurement->add_descriptor(0, u("2901")); },
         "can't assigne handle [0] to gatt descriptor"},
        {[&] { root.add_child(2, u("2a37")); }, "can't reuse handle [2] for new gatt service"},
        {[&] { root.add_child(1, u("180f")); }, "can't reuse handle [1] for other gatt service"},
        {[&] { heart_rate->add_child(4, u("180f")); },
         "gatt service [1] can't reuse handle [4] for childe"},
    };
    for (auto const& [refused, message] : refusals) {
        EXPECT_THAT(refused, throws(message));
    }
    EXPECT_EQ(tree.find_service(1), heart_rate);
    EXPECT_EQ(heart_rate->get_childs(), services{child});
    EXPECT_EQ(heart_rate->get_characteristics(), std::set<characteristic*>{measurement});
    EXPECT_EQ(measurement->get_descriptors(), std::set<descriptor*>{config});
    EXPECT_EQ(child->get_parents(), services{heart_rate});
}

TEST_F(attribute_tree, a_shared_service_dies_with_its_last_parent) {
    auto* const first = root.add_child(1, u("1800"));
    auto* const second = root.add_child(10, u("1801"));
    auto* const shared = first->add_child(20, u("180f"));
    shared->add_characteristic(21, u("2a19"))->add_descriptor(22, u("2902"));
    std::weak_ptr<service> const alive = shared->weak_from_this();
    EXPECT_EQ(second->add_child(20, u("180f")), shared);
    EXPECT_EQ(shared->get_parents(), (services{first, second}));
    EXPECT_EQ(shared->get_ancestors(), (services{first, second, &root}));
    EXPECT_EQ(root.get_successors(), (services{first, second, shared}));

    first->del_child(20);
    ASSERT_FALSE(alive.expired());
    EXPECT_EQ(tree.find_service(20), shared);
    EXPECT_EQ(shared->get_parents(), services{second});
    EXPECT_TRUE(first->get_childs().empty());

    second->del_child(20);
    EXPECT_TRUE(alive.expired());
    EXPECT_EQ(tree.find_service(20), nullptr);
    EXPECT_EQ(tree.find_characteristic(21), nullptr);
    EXPECT_FALSE(tree.find_attribute(22).has_value());
}

TEST_F(attribute_tree, a_dying_parent_unlinks_itself_from_shared_children) {
    auto* const first = root.add_child(1, u("1800"));
    auto* const second = root.add_child(10, u("1801"));
    auto* const shared = first->add_child(20, u("180f"));
    second->add_child(20, u("180f"));
    std::weak_ptr<service> const only_first = first->add_child(30, u("180a"))->weak_from_this();

    root.del_child(1);
    EXPECT_TRUE(only_first.expired());
    EXPECT_EQ(tree.find_service(1), nullptr);
    EXPECT_EQ(tree.find_service(30), nullptr);
    EXPECT_EQ(tree.find_service(20), shared);
    EXPECT_EQ(shared->get_parents(), services{second});
    EXPECT_EQ(shared->get_ancestors(), (services{second, &root}));
}

TEST_F(attribute_tree, an_inclusion_that_closes_a_cycle_is_refused_whatever_the_order_of_making) {
    // Made deepest first, then linked top-down by inclusion.
    auto* const bottom = root.add_child(3, u("1803"));
    auto* const middle = root.add_child(2, u("1802"));
    auto* const top = root.add_child(1, u("1801"));
    top->add_child(2, u("1802"));
    middle->add_child(3, u("1803"));

    EXPECT_THAT([&] { top->add_child(1, u("1801")); }, circular("1", "1"));
    EXPECT_THAT([&] { middle->add_child(1, u("1801")); }, circular("2", "1"));
    EXPECT_THAT([&] { bottom->add_child(1, u("1801")); }, circular("3", "1"));
    EXPECT_THAT([&] { bottom->add_child(0, uuid()); }, circular("3", "0"));
    EXPECT_TRUE(bottom->get_childs().empty());
    EXPECT_EQ(top->get_successors(), (services{middle, bottom}));

    // Two paths to one service make no cycle.
    auto* const side = root.add_child(4, u("1804"));
    EXPECT_EQ(side->add_child(3, u("1803")), bottom);
    EXPECT_EQ(std::as_const(*bottom).get_ancestors(),
              (std::set<service const*>{top, middle, side, &root}));
}

TEST_F(attribute_tree, moving_a_profile_carries_the_tree_and_drops_the_old_one) {
    auto* const battery = root.add_child(1, u("180f"));
    battery->add_characteristic(2, u("2a19"));

    profile moved(std::move(tree));
    EXPECT_EQ(moved.find_service(1), battery);
    EXPECT_NE(moved.find_characteristic(2), nullptr);
    EXPECT_EQ(tree.find_service(1), nullptr);
    EXPECT_TRUE(tree.get_primary_services().empty());

    profile target;
    std::weak_ptr<service> const old_alive =
        target.get_root().add_child(5, u("1800"))->weak_from_this();
    target = std::move(moved);
    EXPECT_TRUE(old_alive.expired());
    EXPECT_EQ(target.find_service(5), nullptr);
    EXPECT_EQ(target.get_primary_services(), services{battery});
    // The moved nodes register in the map of the profile that now holds them.
    auto* const added = battery->add_child(6, u("1801"));
    EXPECT_EQ(target.find_service(6), added);
}

}  // namespace
}  // namespace zelvo::tavrin::gatt
