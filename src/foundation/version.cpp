#include "tavrin/version.hpp"

#include "tavrin/version_config.hpp"

namespace zelvo::tavrin::version {

std::tuple<unsigned, unsigned, unsigned> get() {
    return {TAVRIN_VERSION_MAJOR, TAVRIN_VERSION_MINOR, TAVRIN_VERSION_PATCH};
}

std::string get_string() {
    return TAVRIN_VERSION_STRING;
}

}  // namespace zelvo::tavrin::version
