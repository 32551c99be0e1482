// quorl_utils::link and quorl_utils::scoped_link: handles of subscriptions and
// pending requests of the bus.
//
// A link is a copyable reference to something that may still be live. Dropping
// a link cancels nothing; release() does, and so does the destruction of a
// scoped_link. Copies share one target; a second release is a no-op, and a
// link may outlive the bus instance it came from.
#pragma once

#include <memory>

#include "quorl/export.hpp"

namespace zelvo::quorl_utils {

class QUORL_API link {
public:
    // What a link stands for. release() must leave active() false.
    class QUORL_API target {
    public:
        virtual ~target();
        virtual void release() = 0;
        virtual bool active() const = 0;
    };

    link() = default;
    explicit link(std::shared_ptr<target> target) : what(std::move(target)) {}
    virtual ~link() {}

    bool active() const { return what && what->active(); }
    explicit operator bool() const { return active(); }
    void release();

protected:
    static std::shared_ptr<target> take(link& from) { return std::move(from.what); }
    std::shared_ptr<target> what;
};

// Cancels what it holds when it is destroyed or assigned to.
class QUORL_API scoped_link : public link {
public:
    scoped_link() = default;
    // Takes the source's target; the source ends empty.
    scoped_link(link&& other);
    scoped_link(scoped_link&& other) noexcept;
    scoped_link(scoped_link const&) = delete;
    // Releases what was held, then takes the source's target.
    scoped_link& operator=(link&& other);
    scoped_link& operator=(scoped_link&& other);
    scoped_link& operator=(scoped_link const&) = delete;
    ~scoped_link() override;
};

}  // namespace zelvo::quorl_utils
