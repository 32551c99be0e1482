// The library's own version, as built.
#pragma once

#include <string>
#include <tuple>

#include "tavrin/export.hpp"

namespace zelvo::tavrin::version {

// (major, minor, patch)
TAVRIN_API std::tuple<unsigned, unsigned, unsigned> get();
// "major.minor.patch"
TAVRIN_API std::string get_string();

}  // namespace zelvo::tavrin::version
