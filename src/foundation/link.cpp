#include "tavrin/utils/link.hpp"

#include <stdexcept>
#include <utility>

namespace zelvo::tavrin::utils {

link::impl::~impl() = default;

link::link(std::shared_ptr<impl> const& target) : target(target) {}

link::~link() = default;

void link::assign(link const& other) {
    target = other.target;
}

void link::assign(link&& other) {
    target = std::move(other.target);
}

bool link::active() const {
    return target && target->active();
}

void link::release() {
    if (!active()) {
        return;
    }
    // The release may destroy this link object (when it lives in what is
    // released); the local reference keeps the target and its verdict valid.
    std::shared_ptr<impl> const released = target;
    released->release();
    if (released->active()) {
        throw std::logic_error("tavrin failed to release link");
    }
}

scoped_link::scoped_link(link&& other) : link(static_cast<link const&>(other)) {}

scoped_link::scoped_link(scoped_link&& other) {
    assign(std::move(static_cast<link&>(other)));
}

scoped_link& scoped_link::operator=(link&& other) {
    release();
    assign(std::move(other));
    return *this;
}

scoped_link& scoped_link::operator=(scoped_link&& other) {
    return *this = std::move(static_cast<link&>(other));
}

scoped_link& scoped_link::operator=(link const& other) {
    // The release may destroy whatever owned `other`; the copy keeps its
    // target for the assignment.
    link const kept(other);
    release();
    assign(kept);
    return *this;
}

scoped_link::~scoped_link() {
    release();
}

}  // namespace zelvo::tavrin::utils
