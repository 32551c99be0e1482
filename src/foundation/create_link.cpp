#include "tavrin/misc/create_link.hpp"

#include <utility>

#include "tavrin/misc/aggregate_adapter.hpp"

namespace zelvo::tavrin::misc {

utils::link create_link(std::shared_ptr<void> const& tracked,
                        std::function<void()> const& on_release) {
    class link_ctx : public utils::link::impl {
    public:
        link_ctx(std::weak_ptr<void> tracked, std::function<void()> on_release)
            : tracked(std::move(tracked)), on_release(std::move(on_release)) {}

        // An empty on_release raises bad_function_call to the releasing caller.
        void release() override { on_release(); }
        bool active() const override { return !tracked.expired(); }

    private:
        std::weak_ptr<void> tracked;
        std::function<void()> on_release;
    };

    return aggregate_adapter<utils::link>(std::make_shared<link_ctx>(tracked, on_release));
}

}  // namespace zelvo::tavrin::misc
