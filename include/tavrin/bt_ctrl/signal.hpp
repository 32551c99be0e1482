// bt_ctrl::signal: one reading of a connection's radio signal.
#pragma once

#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/export.hpp"

namespace zelvo::tavrin {

struct TAVRIN_API bt_ctrl::signal {
    // Quality 0 and strength -128: no reading.
    signal() = default;
    signal(unsigned char quality, signed char strength) : quality(quality), strength(strength) {}

    unsigned char quality = 0;
    signed char strength = -128;
};

}  // namespace zelvo::tavrin
