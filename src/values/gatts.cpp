#include "tavrin/bt_ctrl/gatts.hpp"

namespace zelvo::tavrin {

bt_ctrl::gatts::~gatts() = default;

}  // namespace zelvo::tavrin
