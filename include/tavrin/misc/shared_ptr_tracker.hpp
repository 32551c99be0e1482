// misc::shared_ptr_tracker: tells whether a set of objects is still alive.
//
// It holds weak references only, so it never prolongs a life. It is alive
// while every one of its objects has a strong owner; once a query has seen one
// gone it stays expired and never looks again. A tracker with no objects (one
// that was moved from) never expires.
//
// Single-threaded: a const query may set the expired flag.
#pragma once

#include <memory>
#include <utility>
#include <vector>

namespace zelvo::tavrin::misc {

class shared_ptr_tracker {
public:
    // Anything that converts to weak_ptr<void>: weak_ptr or shared_ptr of any
    // type.
    template <typename... Rest>
    explicit shared_ptr_tracker(std::weak_ptr<void> const& first, Rest&&... rest) : objects{first} {
        add(std::forward<Rest>(rest)...);
    }

    shared_ptr_tracker(shared_ptr_tracker const&) = default;
    // Takes the objects; the source keeps its flag and tracks nothing.
    shared_ptr_tracker(shared_ptr_tracker&& source) noexcept
        : expired_seen(source.expired_seen), objects(std::move(source.objects)) {
        source.objects.clear();
    }
    shared_ptr_tracker& operator=(shared_ptr_tracker const&) = default;

    bool expired() const {
        if (expired_seen) {
            return true;
        }
        for (auto const& object : objects) {
            if (object.expired()) {
                expired_seen = true;
                return true;
            }
        }
        return false;
    }

    explicit operator bool() const { return !expired(); }

private:
    void add() const {}

    template <typename Next, typename... Rest>
    void add(Next&& next, Rest&&... rest) {
        objects.emplace_back(std::forward<Next>(next));
        add(std::forward<Rest>(rest)...);
    }

    mutable bool expired_seen = false;
    std::vector<std::weak_ptr<void>> objects;
};

}  // namespace zelvo::tavrin::misc
