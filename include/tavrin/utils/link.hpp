// utils::link: the handle of every registration and every pending operation.
//
// A link is a copyable reference to something that may still be live. active()
// asks whether it is; release() makes it go away. Destroying a link cancels
// nothing: only release() does, or the destruction of a utils::scoped_link.
// Copies share one target, so any copy may release it, in any order; a second
// release is a no-op. A link may outlive what it stands for.
//
// A link has three conditions: empty (no target), live, and spent (a target
// that is no longer active). Live becomes spent by release() or by the target
// going away on its own; there is no way back.
#pragma once

#include <memory>

#include "tavrin/export.hpp"

namespace zelvo::tavrin::utils {

class TAVRIN_API link {
public:
    // What a link stands for. release() must leave active() false.
    class TAVRIN_API impl {
    public:
        virtual ~impl();
        virtual void release() = 0;
        virtual bool active() const = 0;
    };

    link() = default;
    link(std::shared_ptr<impl> const& target);
    // Copying shares the target. There is no separate move: a link moved from
    // keeps its reference, as a copied one does.
    link(link const& other) = default;
    link& operator=(link const& other) = default;
    virtual ~link();

    // Replace the target; the old one is dropped, not released.
    void assign(link const& other);
    void assign(link&& other);

    bool active() const;
    explicit operator bool() const { return active(); }

    // Cancels the target if it is live. Throws logic_error "tavrin failed to
    // release link" if it is still active afterwards; an exception from the
    // target's own release passes unchanged.
    void release();

private:
    std::shared_ptr<impl> target;
};

// A link that cancels what it holds when it is destroyed or assigned to.
class TAVRIN_API scoped_link : public link {
public:
    scoped_link() = default;
    // Shares the source's target; the source keeps its reference too, so two
    // scoped owners of one target cancel it when the first of them dies.
    scoped_link(link&& other);
    // Takes the source's target; the source ends empty and cancels nothing.
    scoped_link(scoped_link&& other);
    scoped_link(scoped_link const&) = delete;

    // Each assignment releases what was held first, even if the new link is
    // empty.
    scoped_link& operator=(link&& other);
    scoped_link& operator=(scoped_link&& other);
    scoped_link& operator=(link const& other);
    scoped_link& operator=(scoped_link const&) = delete;

    // Releases. A release that throws here terminates the process.
    ~scoped_link() override;
};

}  // namespace zelvo::tavrin::utils
