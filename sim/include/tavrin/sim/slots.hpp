// sim::slots: how many radio slots of each type one interface has, and how
// long an unreserved connection keeps its slot before others may take it.
// A value type. docs/simulator.md describes the slot model.
#pragma once

#include <chrono>

namespace zelvo::tavrin::sim {

struct slots {
    // The most slots of one type an interface may have.
    static constexpr unsigned max_per_type = 64;

    unsigned connections = 4;
    unsigned advertisers = 4;
    // From the moment an unreserved connection gets its slot; after it, the
    // connection may be closed to let a waiting one in.
    std::chrono::seconds guaranteed_time{30};
};

}  // namespace zelvo::tavrin::sim
