// utils::comparator<T>: the relational operators of a value type, built on two
// virtual predicates that the type provides. Derive from it and implement
// is_equal and is_less; ==, !=, <, <=, > and >= follow from those two alone.
#pragma once

namespace zelvo::tavrin::utils {

template <typename T>
class comparator {
public:
    virtual ~comparator() = default;

    virtual bool is_equal(T const& other) const = 0;
    virtual bool is_less(T const& other) const = 0;

    bool operator==(T const& other) const { return is_equal(other); }
    bool operator!=(T const& other) const { return !is_equal(other); }
    bool operator<(T const& other) const { return is_less(other); }
    bool operator<=(T const& other) const { return is_less(other) || is_equal(other); }
    bool operator>(T const& other) const { return !is_less(other) && !is_equal(other); }
    bool operator>=(T const& other) const { return !is_less(other); }

protected:
    comparator() = default;
    comparator(comparator const&) = default;
    comparator& operator=(comparator const&) = default;
};

}  // namespace zelvo::tavrin::utils
