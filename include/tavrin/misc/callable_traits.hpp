// misc::callable_traits<F>: the signature of a callable with one call
// signature, for function types, function pointers, std::function, lambdas
// and other function objects. return_type is its result; type is the
// std::function<R(Args...)> that holds it. A type with no single call
// signature (a generic lambda, a non-callable) has neither member, so templates
// constrained on them drop out of overload resolution.
//
// misc::is_callable<F, R>: whether F is such a callable and returns exactly R.
#pragma once

#include <functional>
#include <type_traits>

namespace zelvo::tavrin::misc {

namespace callabledetail {

template <typename R, typename... Args>
struct signature {
    using return_type = R;
    using type = std::function<R(Args...)>;
};

template <typename Member>
struct call_operator {};

template <typename C, typename R, typename... Args>
struct call_operator<R (C::*)(Args...)> : signature<R, Args...> {};
template <typename C, typename R, typename... Args>
struct call_operator<R (C::*)(Args...) const> : signature<R, Args...> {};
template <typename C, typename R, typename... Args>
struct call_operator<R (C::*)(Args...) noexcept> : signature<R, Args...> {};
template <typename C, typename R, typename... Args>
struct call_operator<R (C::*)(Args...) const noexcept> : signature<R, Args...> {};

template <typename F, typename = void>
struct traits {};

template <typename F>
struct traits<F, std::void_t<decltype(&F::operator())>> : call_operator<decltype(&F::operator())> {
};

template <typename R, typename... Args>
struct traits<R (*)(Args...), void> : signature<R, Args...> {};
template <typename R, typename... Args>
struct traits<R (*)(Args...) noexcept, void> : signature<R, Args...> {};

template <typename F, typename R, typename = void>
struct is_callable : std::false_type {};

template <typename F, typename R>
struct is_callable<F, R, std::void_t<typename traits<std::decay_t<F>>::return_type>>
    : std::is_same<typename traits<std::decay_t<F>>::return_type, R> {};

}  // namespace callabledetail

template <typename F>
struct callable_traits : callabledetail::traits<std::decay_t<F>> {};

template <typename F, typename R>
struct is_callable : callabledetail::is_callable<F, R> {};

}  // namespace zelvo::tavrin::misc
