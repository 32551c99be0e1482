// misc::tie_handler and misc::tie_member: functions that do nothing once a
// tracked object has died.
//
// tie_handler(handler, [default_result,] trackers...) gives a function of the
// handler's signature that calls a copy of the handler while every tracked
// object lives, and otherwise does nothing (returns default_result when the
// result is not void, without evaluating the handler). Trackers are anything
// that converts to weak_ptr<void>, or one misc::shared_ptr_tracker; they are
// held weakly, so tying never prolongs a life. Once the function has seen a
// tracked object gone, it stays inert. Exceptions from the handler pass
// unchanged; an empty handler raises bad_function_call when called live.
//
// tie_member(member, object, [default_result,] trackers...) does the same for
// a member function called on `object` (which may be of a derived class; the
// call is virtual where the member is). `object` is held raw: the trackers are
// what makes the call safe, so one of them must die no later than `object`.
#pragma once

#include <functional>
#include <type_traits>
#include <utility>

#include "tavrin/misc/callable_traits.hpp"
#include "tavrin/misc/shared_ptr_tracker.hpp"

namespace zelvo::tavrin::misc {

namespace tiehandlerdetail {

// Keeps a default result from taking part in deduction, so that it converts to
// the member's result type instead of contradicting it.
template <typename T>
struct not_deduced {
    using type = T;
};
template <typename T>
using not_deduced_t = typename not_deduced<T>::type;

}  // namespace tiehandlerdetail

template <typename F, typename... Trackers,
          std::enable_if_t<std::is_void_v<typename callable_traits<F>::return_type>, int> = 0>
typename callable_traits<F>::type tie_handler(F const& handler, Trackers&&... trackers) {
    using function_type = typename callable_traits<F>::type;
    return function_type(
        [handler = function_type(handler),
         tracker = shared_ptr_tracker(std::forward<Trackers>(trackers)...)](auto&&... args) {
            if (!tracker) {
                return;
            }
            handler(std::forward<decltype(args)>(args)...);
        });
}

template <typename F, typename... Trackers,
          std::enable_if_t<!std::is_void_v<typename callable_traits<F>::return_type>, int> = 0>
typename callable_traits<F>::type tie_handler(
    F const& handler, typename callable_traits<F>::return_type default_result,
    Trackers&&... trackers) {
    using function_type = typename callable_traits<F>::type;
    using result_type = typename callable_traits<F>::return_type;
    return function_type(
        [handler = function_type(handler),
         tracker = shared_ptr_tracker(std::forward<Trackers>(trackers)...),
         default_result = std::move(default_result)](auto&&... args) -> result_type {
            if (!tracker) {
                return default_result;
            }
            return handler(std::forward<decltype(args)>(args)...);
        });
}

template <typename C, typename... Args, typename Object, typename... Trackers>
std::function<void(Args...)> tie_member(void (C::*member)(Args...), Object* object,
                                        Trackers&&... trackers) {
    return tie_handler(std::function<void(Args...)>([member, object](Args... args) {
                           (object->*member)(std::forward<Args>(args)...);
                       }),
                       std::forward<Trackers>(trackers)...);
}

template <typename C, typename... Args, typename Object, typename... Trackers>
std::function<void(Args...)> tie_member(void (C::*member)(Args...) const, Object const* object,
                                        Trackers&&... trackers) {
    return tie_handler(std::function<void(Args...)>([member, object](Args... args) {
                           (object->*member)(std::forward<Args>(args)...);
                       }),
                       std::forward<Trackers>(trackers)...);
}

template <typename R, typename C, typename... Args, typename Object, typename... Trackers,
          std::enable_if_t<!std::is_void_v<R>, int> = 0>
std::function<R(Args...)> tie_member(R (C::*member)(Args...), Object* object,
                                     tiehandlerdetail::not_deduced_t<R> default_result,
                                     Trackers&&... trackers) {
    return tie_handler(std::function<R(Args...)>([member, object](Args... args) -> R {
                           return (object->*member)(std::forward<Args>(args)...);
                       }),
                       std::move(default_result), std::forward<Trackers>(trackers)...);
}

template <typename R, typename C, typename... Args, typename Object, typename... Trackers,
          std::enable_if_t<!std::is_void_v<R>, int> = 0>
std::function<R(Args...)> tie_member(R (C::*member)(Args...) const, Object const* object,
                                     tiehandlerdetail::not_deduced_t<R> default_result,
                                     Trackers&&... trackers) {
    return tie_handler(std::function<R(Args...)>([member, object](Args... args) -> R {
                           return (object->*member)(std::forward<Args>(args)...);
                       }),
                       std::move(default_result), std::forward<Trackers>(trackers)...);
}

}  // namespace zelvo::tavrin::misc
