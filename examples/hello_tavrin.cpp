// A first look at tavrin's value types: the library's version, a Bluetooth
// device address, an attribute UUID in its short and long forms, and a
// notification signal whose subscription ends by releasing its link.
#include <tavrin/bt_ctrl.hpp>
#include <tavrin/gatt.hpp>
#include <tavrin/misc.hpp>
#include <tavrin/utils.hpp>
#include <tavrin/version.hpp>

#include <iostream>

namespace tv = zelvo::tavrin;

int main() {
    std::cout << "tavrin " << tv::version::get_string() << "\n";

    tv::bt_ctrl::address device(tv::bt_ctrl::addr_type::random_address,
                                tv::utils::mac_address("C0:11:22:33:44:55"));
    std::cout << "device address " << device.to_string() << " is "
              << (device.is_type_random_static() ? "random static" : "another kind") << " and "
              << (device.is_valid() ? "valid" : "invalid") << "\n";

    tv::gatt::uuid device_name("2a00");
    std::cout << "uuid " << device_name.to_string(false) << " is "
              << device_name.to_string(true) << " in full\n";

    tv::misc::signal<void, tv::bt_ctrl::state> state_changed;
    tv::utils::link subscription = state_changed.connect([](tv::bt_ctrl::state state) {
        std::cout << "state is now " << tv::bt_ctrl::to_string(state) << "\n";
    });
    state_changed(tv::bt_ctrl::state::rebooting);
    state_changed(tv::bt_ctrl::state::enabled);
    subscription.release();
    state_changed(tv::bt_ctrl::state::disabled);
    std::cout << "subscription " << (subscription.active() ? "still active" : "released")
              << ", so the change to disabled went unheard\n";
    return 0;
}
