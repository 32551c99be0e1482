// misc::signal<R, Args...>: the slot list behind every notify_on_... operation.
//
// connect() stores a copy of the slot and returns the utils::link that
// disconnects it. The signal is the only strong owner of its slots, so a link
// goes inactive as soon as its slot is erased or the signal is destroyed, and a
// link may outlive its signal (its release() then does nothing).
//
// Dispatch runs over a deep copy of the slot list taken at its start, in
// connection order. Slots may therefore do anything to the signal while it
// runs: connect (the new slot first runs in the next dispatch), release their
// own or another slot's link (the slot is erased at once but still called in
// this dispatch if its turn has not come), assign to or destroy the signal, or
// fire it again (the nested dispatch takes its own copy). Nothing is caught: an
// exception from a slot ends the dispatch and reaches the caller, and the
// signal keeps all its slots.
//
// Copying is deep: the copy shares no slot with the source, and no link refers
// to the copy's slots. Assignment, from an lvalue or an rvalue alike, is such a
// copy and clears the target first, so assigning a signal to itself leaves it
// empty. Move construction keeps the slot objects, so their links stay active,
// but a link made before it must never be released after it: its list
// position names an element of the moved-from signal.
//
// Single-threaded: use only on the event loop's thread.
#pragma once

#include <functional>
#include <iterator>
#include <list>
#include <memory>
#include <type_traits>
#include <utility>

#include "tavrin/misc/aggregate_adapter.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::misc {

template <typename R, typename... Args>
class signal {
public:
    using slot_type = std::function<R(Args...)>;

    signal() = default;
    signal(signal const& source) { *this = source; }
    signal(signal&& source) { take(source); }
    ~signal() { clear(); }

    signal& operator=(signal const& source) {
        clear();
        for (auto const& slot : source.slots) {
            slots.push_back(std::make_shared<slot_type>(*slot));
        }
        return *this;
    }

    // An empty slot is accepted; it raises bad_function_call when dispatched.
    utils::link connect(slot_type const& slot) {
        class link_ctx : public utils::link::impl {
        public:
            link_ctx(slot_list* list, typename slot_list::iterator position,
                     std::weak_ptr<slot_type> slot)
                : list(list), position(position), slot(std::move(slot)) {}

            // Only reached while the slot lives, hence while the signal does.
            void release() override {
                // Unhook the element before the slot dies, so that a destructor
                // of one of its captures finds a consistent list.
                auto const erased = std::move(*position);
                list->erase(position);
            }
            bool active() const override { return slot.use_count() != 0; }

        private:
            slot_list* list;
            typename slot_list::iterator position;
            std::weak_ptr<slot_type> slot;
        };

        slots.push_back(std::make_shared<slot_type>(slot));
        return aggregate_adapter<utils::link>(
            std::make_shared<link_ctx>(&slots, std::prev(slots.end()), slots.back()));
    }

    template <typename Result = R, typename = std::enable_if_t<std::is_void_v<Result>>>
    void call_impl(Args... args) {
        signal const snapshot(*this);
        for (auto const& slot : snapshot.slots) {
            (*slot)(args...);
        }
    }

    // No slot connected: a dispatch now would call nobody.
    bool empty() const { return slots.empty(); }

    template <typename Result = R, typename = std::enable_if_t<std::is_void_v<Result>>>
    void operator()(Args... args) {
        call_impl(args...);
    }

private:
    using slot_list = std::list<std::shared_ptr<slot_type>>;

    // Drops the slots one at a time, each after it has left the list, so that a
    // slot whose captures release another slot's link on destruction erases an
    // element that is still properly in the list.
    void clear() {
        while (!slots.empty()) {
            auto const dropped = std::move(slots.front());
            slots.pop_front();
        }
    }

    // Fresh elements for the same slot objects, in the same order.
    void take(signal& source) {
        for (auto& slot : source.slots) {
            slots.push_back(std::move(slot));
        }
        source.slots.clear();
    }

    slot_list slots;
};

}  // namespace zelvo::tavrin::misc
