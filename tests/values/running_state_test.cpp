// A connection is true only while opened, an advertiser only while started.
#include <gtest/gtest.h>

#include "tavrin/bt_ctrl.hpp"

namespace {

using zelvo::tavrin::bt_ctrl;

template <typename Base>
class fixed_state : public Base {
public:
    explicit fixed_state(typename Base::state state) : state(state) {}
    typename Base::state get_state() const override { return state; }

private:
    typename Base::state state;
};

template <typename Base>
void expect_true_only_in(typename Base::state running) {
    for (unsigned char value = 0; value <= 4; ++value) {
        auto const state = static_cast<typename Base::state>(value);
        EXPECT_EQ(static_cast<bool>(fixed_state<Base>(state)), state == running)
            << Base::to_string(state);
    }
}

TEST(RunningState, ConnectionWhenOpenedAdvertiserWhenStarted) {
    expect_true_only_in<bt_ctrl::connection>(bt_ctrl::connection::state::opened);
    expect_true_only_in<bt_ctrl::advertiser>(bt_ctrl::advertiser::state::started);
}

}  // namespace
