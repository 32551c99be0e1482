// Built against the installed package only: proves that the installed headers
// are complete and that the exported symbols are enough for an application.
#include <tavrin/bt_ctrl.hpp>
#include <tavrin/error.hpp>
#include <tavrin/gatt.hpp>
#include <tavrin/misc.hpp>
#include <tavrin/utils.hpp>
#include <tavrin/version.hpp>

#include <cstdio>
#include <string>

namespace tv = zelvo::tavrin;

int main() {
    int failures = 0;
    auto expect = [&failures](bool ok, char const* what) {
        if (!ok) {
            std::fprintf(stderr, "consumer check failed: %s\n", what);
            ++failures;
        }
    };

    expect(tv::version::get_string() == "0.0.1", "version");

    tv::bt_ctrl::address address(tv::bt_ctrl::addr_type::public_address,
                                 tv::utils::mac_address("aa-bb-cc-dd-ee-ff"));
    expect(address.to_string() == "AA:BB:CC:DD:EE:FF-public", "address text");

    expect(tv::gatt::uuid("2A00") == tv::gatt::uuid("00002a00-0000-1000-8000-00805f9b34fb"),
           "uuid forms");

    tv::misc::signal<void, int> changed;
    int seen = 0;
    tv::utils::link link = changed.connect([&seen](int value) { seen += value; });
    changed(2);
    link.release();
    changed(5);
    expect(seen == 2 && !link.active(), "signal and link");

    std::error_code error = tv::error::bt_ctrl::no_interface;
    expect(error.message() == "can't find interface", "error message");

    return failures == 0 ? 0 : 1;
}
