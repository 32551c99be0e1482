// misc::aggregate_adapter<T>: lets make_shared build a T that can only be
// brace-initialised, by forwarding every argument to T's brace initialiser.
// It adds no state; an adapter is used only as the dynamic type under a
// shared_ptr<T> (or, for links, copied to a plain T at once).
#pragma once

#include <utility>

namespace zelvo::tavrin::misc {

template <typename T>
class aggregate_adapter : public T {
public:
    template <typename... Args>
    explicit aggregate_adapter(Args&&... args) : T{std::forward<Args>(args)...} {}
};

}  // namespace zelvo::tavrin::misc
