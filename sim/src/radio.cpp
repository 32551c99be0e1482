#include "tavrin/sim/radio.hpp"

namespace zelvo::tavrin::sim {

radio::~radio() = default;

}  // namespace zelvo::tavrin::sim
