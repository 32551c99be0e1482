#include "quorl/event_loop.hpp"

namespace zelvo::quorl_utils {

timer::~timer() = default;
event_loop::~event_loop() = default;

}  // namespace zelvo::quorl_utils
