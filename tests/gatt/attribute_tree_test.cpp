#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <any>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "tavrin/gatt.hpp"

namespace zelvo::tavrin::gatt {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;
using services = std::set<service*>;

uuid make_uuid(char const* text) {
    return uuid(std::string(text));
}

class attribute_tree : public ::testing::Test {
protected:
    profile tree;
    service& root = tree.get_root();
};

TEST_F(attribute_tree, new_profile_holds_the_root_alone) {
    EXPECT_TRUE(tree.get_primary_services().empty());
    EXPECT_EQ(tree.find_service(0), &root);
    EXPECT_EQ(root.get_handle(), 0u);
    EXPECT_EQ(root.get_uuid(), uuid());
    EXPECT_FALSE(root.is_enabled());
    EXPECT_TRUE(root.get_parents().empty());
    EXPECT_TRUE(root.get_ancestors().empty());
    EXPECT_FALSE(tree.find_attribute(1).has_value());
    EXPECT_EQ(std::as_const(tree).find_attribute(0).type(), typeid(service const*));
}

TEST_F(attribute_tree, nodes_are_found_by_handle_only_as_their_own_kind) {
    auto* const battery = root.add_child(1, make_uuid("180f"));
    auto* const level = battery->add_characteristic(2, make_uuid("2a19"));
    auto* const format = level->add_descriptor(3, make_uuid("2904"));
    auto* const config = level->add_descriptor(4, make_uuid("2902"));

    EXPECT_EQ(tree.get_primary_services(), services{battery});
    EXPECT_EQ(&level->get_service(), battery);
    EXPECT_EQ(&format->get_characteristic(), level);
    EXPECT_EQ(battery->get_characteristics(), std::set<characteristic*>{level});
    EXPECT_EQ(level->get_descriptors(), (std::set<descriptor*>{format, config}));

    EXPECT_EQ(tree.find_service(1), battery);
    EXPECT_EQ(tree.find_service(2), nullptr);
    EXPECT_EQ(tree.find_characteristic(2), level);
    EXPECT_EQ(tree.find_characteristic(3), nullptr);
    EXPECT_EQ(tree.find_descriptor(3), format);
    EXPECT_EQ(tree.find_descriptor(1), nullptr);
    EXPECT_EQ(std::any_cast<descriptor*>(tree.find_attribute(4)), config);
    EXPECT_EQ(std::any_cast<characteristic const*>(std::as_const(tree).find_attribute(2)), level);

    level->del_descriptor(3);
    level->del_descriptor(99);
    EXPECT_EQ(tree.find_descriptor(3), nullptr);
    EXPECT_EQ(level->get_descriptors(), std::set<descriptor*>{config});

    battery->del_characteristic(2);
    EXPECT_EQ(tree.find_characteristic(2), nullptr);
    EXPECT_FALSE(tree.find_attribute(4).has_value());
    EXPECT_TRUE(battery->get_characteristics().empty());
}

TEST_F(attribute_tree, a_taken_handle_is_refused_across_kinds_and_the_tree_is_kept) {
    auto* const heart_rate = root.add_child(1, make_uuid("180d"));
    auto* const measurement = heart_rate->add_characteristic(2, make_uuid("2a37"));
    auto* const config = measurement->add_descriptor(3, make_uuid("2902"));

    EXPECT_THAT([&] { heart_rate->add_characteristic(1, make_uuid("2a38")); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("can't assigne handle [1] to gatt characteristic")));
    EXPECT_THAT([&] { heart_rate->add_characteristic(3, make_uuid("2a38")); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("can't assigne handle [3] to gatt characteristic")));
    EXPECT_THAT(
        [&] { measurement->add_descriptor(2, make_uuid("2901")); },
        ThrowsMessage<std::runtime_error>(StrEq("can't assigne handle [2] to gatt descriptor")));
    EXPECT_THAT(
        [&] { measurement->add_descriptor(0, make_uuid("2901")); },
        ThrowsMessage<std::runtime_error>(StrEq("can't assigne handle [0] to gatt descriptor")));
    EXPECT_THAT(
        [&] { root.add_child(2, make_uuid("2a37")); },
        ThrowsMessage<std::runtime_error>(StrEq("can't reuse handle [2] for new gatt service")));
    EXPECT_THAT(
        [&] { heart_rate->add_child(3, make_uuid("2902")); },
        ThrowsMessage<std::runtime_error>(StrEq("can't reuse handle [3] for new gatt service")));
    EXPECT_THAT(
        [&] { root.add_child(1, make_uuid("180f")); },
        ThrowsMessage<std::runtime_error>(StrEq("can't reuse handle [1] for other gatt service")));

    EXPECT_EQ(tree.find_service(1), heart_rate);
    EXPECT_EQ(tree.find_characteristic(2), measurement);
    EXPECT_EQ(tree.find_descriptor(3), config);
    EXPECT_EQ(tree.get_primary_services(), services{heart_rate});
    EXPECT_EQ(heart_rate->get_characteristics(), std::set<characteristic*>{measurement});
    EXPECT_EQ(measurement->get_descriptors(), std::set<descriptor*>{config});
    EXPECT_EQ(heart_rate->get_parents(), services{&root});
}

TEST_F(attribute_tree, a_shared_service_dies_with_its_last_parent) {
    auto* const first = root.add_child(1, make_uuid("1800"));
    auto* const second = root.add_child(10, make_uuid("1801"));
    auto* const shared = first->add_child(20, make_uuid("180f"));
    shared->add_characteristic(21, make_uuid("2a19"))->add_descriptor(22, make_uuid("2902"));
    std::weak_ptr<service> const alive = shared->weak_from_this();

    EXPECT_EQ(second->add_child(20, make_uuid("180f")), shared);
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
    auto* const first = root.add_child(1, make_uuid("1800"));
    auto* const second = root.add_child(10, make_uuid("1801"));
    std::weak_ptr<service> const first_alive = first->weak_from_this();
    auto* const shared = first->add_child(20, make_uuid("180f"));
    second->add_child(20, make_uuid("180f"));
    auto* const only_first = first->add_child(30, make_uuid("180a"));
    std::weak_ptr<service> const only_first_alive = only_first->weak_from_this();

    root.del_child(1);
    EXPECT_TRUE(first_alive.expired());
    EXPECT_TRUE(only_first_alive.expired());
    EXPECT_EQ(tree.find_service(1), nullptr);
    EXPECT_EQ(tree.find_service(30), nullptr);
    EXPECT_EQ(tree.find_service(20), shared);
    EXPECT_EQ(shared->get_parents(), services{second});
    EXPECT_EQ(shared->get_ancestors(), (services{second, &root}));
}

TEST_F(attribute_tree, an_inclusion_that_closes_a_cycle_is_refused) {
    auto* const top = root.add_child(1, make_uuid("1801"));
    auto* const middle = top->add_child(2, make_uuid("1802"));
    auto* const bottom = middle->add_child(3, make_uuid("1803"));

    auto const circular = [](char const* parent, char const* child) {
        return ThrowsMessage<std::runtime_error>(StrEq(std::string("gatt service [") + parent +
                                                       "] can't include service [" + child +
                                                       "] because of circular reference"));
    };
    EXPECT_THAT([&] { top->add_child(1, make_uuid("1801")); }, circular("1", "1"));
    EXPECT_THAT([&] { middle->add_child(1, make_uuid("1801")); }, circular("2", "1"));
    EXPECT_THAT([&] { bottom->add_child(1, make_uuid("1801")); }, circular("3", "1"));
    EXPECT_THAT([&] { bottom->add_child(0, uuid()); }, circular("3", "0"));

    EXPECT_EQ(top->get_parents(), services{&root});
    EXPECT_TRUE(bottom->get_childs().empty());
    EXPECT_EQ(top->get_successors(), (services{middle, bottom}));

    // Two paths to one service make no cycle.
    auto* const side = root.add_child(4, make_uuid("1804"));
    EXPECT_EQ(side->add_child(3, make_uuid("1803")), bottom);
    EXPECT_EQ(bottom->get_ancestors(), (services{top, middle, side, &root}));
    EXPECT_EQ(top->get_ancestors(), services{&root});
}

TEST_F(attribute_tree, the_closure_follows_inclusions_made_in_any_order) {
    // Made deepest first, then linked top-down by inclusion, so that nodes
    // are met in no particular order of creation.
    auto* const fourth = root.add_child(4, make_uuid("1804"));
    auto* const third = root.add_child(3, make_uuid("1803"));
    auto* const second = root.add_child(2, make_uuid("1802"));
    auto* const first = root.add_child(1, make_uuid("1801"));
    first->add_child(2, make_uuid("1802"));
    second->add_child(3, make_uuid("1803"));
    third->add_child(4, make_uuid("1804"));

    EXPECT_EQ(first->get_successors(), (services{second, third, fourth}));
    EXPECT_EQ(std::as_const(*fourth).get_ancestors(),
              (std::set<service const*>{first, second, third, &root}));
    EXPECT_THAT([&] { fourth->add_child(1, make_uuid("1801")); },
                ThrowsMessage<std::runtime_error>(StrEq(
                    "gatt service [4] can't include service [1] because of circular reference")));
}

TEST_F(attribute_tree, the_same_child_twice_under_one_parent_is_refused) {
    auto* const parent = root.add_child(1, make_uuid("1800"));
    auto* const child = parent->add_child(2, make_uuid("180f"));

    EXPECT_THAT([&] { parent->add_child(2, make_uuid("180f")); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("gatt service [1] can't reuse handle [2] for childe")));
    EXPECT_THAT([&] { root.add_child(1, make_uuid("1800")); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("gatt service [0] can't reuse handle [1] for childe")));
    EXPECT_EQ(child->get_parents(), services{parent});
    EXPECT_EQ(parent->get_childs(), services{child});
}

TEST_F(attribute_tree, moving_a_profile_carries_the_tree_and_drops_the_old_one) {
    auto* const battery = root.add_child(1, make_uuid("180f"));
    auto* const level = battery->add_characteristic(2, make_uuid("2a19"));

    profile moved(std::move(tree));
    EXPECT_EQ(moved.find_service(1), battery);
    EXPECT_EQ(moved.find_characteristic(2), level);
    ASSERT_NE(tree.find_service(0), nullptr);
    EXPECT_EQ(tree.find_service(1), nullptr);
    EXPECT_TRUE(tree.get_primary_services().empty());

    profile target;
    std::weak_ptr<service> const old_alive =
        target.get_root().add_child(5, make_uuid("1800"))->weak_from_this();
    target = std::move(moved);
    EXPECT_TRUE(old_alive.expired());
    EXPECT_EQ(target.find_service(5), nullptr);
    EXPECT_EQ(target.find_service(1), battery);
    EXPECT_EQ(target.get_primary_services(), services{battery});
    ASSERT_NE(moved.find_service(0), nullptr);
    EXPECT_EQ(moved.find_service(1), nullptr);

    // The moved nodes register in the map of the profile that now holds them.
    auto* const added = battery->add_child(6, make_uuid("1801"));
    EXPECT_EQ(target.find_service(6), added);
}

}  // namespace
}  // namespace zelvo::tavrin::gatt
