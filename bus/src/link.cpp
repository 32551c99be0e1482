#include "quorl/link.hpp"

namespace zelvo::quorl_utils {

link::target::~target() = default;

void link::release() {
    // Copy first: the target's release may drop the last other reference.
    if (auto held = what) {
        held->release();
    }
}

scoped_link::scoped_link(link&& other) : link(take(other)) {}

scoped_link::scoped_link(scoped_link&& other) noexcept : link() {
    what = std::move(other.what);
}

scoped_link& scoped_link::operator=(link&& other) {
    auto taken = take(other);
    release();
    what = std::move(taken);
    return *this;
}

scoped_link& scoped_link::operator=(scoped_link&& other) {
    if (this != &other) {
        auto taken = std::move(other.what);
        release();
        what = std::move(taken);
    }
    return *this;
}

scoped_link::~scoped_link() {
    release();
}

}  // namespace zelvo::quorl_utils
