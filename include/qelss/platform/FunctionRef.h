#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace QelSS {

template <class Signature>
class FunctionRef;

// A non-owning reference to a callable: two pointers, no allocation, one indirect
// call. It is meant for parameters of functions that call the callable before they
// return (a synchronous queue run); the callable must outlive every call through
// the reference, which holds for a temporary lambda passed straight to such a
// function. Copying a FunctionRef copies the reference, not the callable.
template <class R, class... Args>
class FunctionRef<R(Args...)> {
 public:
  template <class F, class = std::enable_if_t<
                         !std::is_same_v<std::remove_cvref_t<F>, FunctionRef> &&
                         std::is_invocable_r_v<R, std::remove_reference_t<F>&, Args...>>>
  FunctionRef(F&& callable) noexcept  // NOLINT: implicit by design, like std::function
      : object_(const_cast<void*>(static_cast<const void*>(std::addressof(callable)))),
        call_(&Call<std::remove_reference_t<F>>) {}

  R operator()(Args... args) const { return call_(object_, std::forward<Args>(args)...); }

 private:
  template <class F>
  static R Call(void* object, Args... args) {
    return (*static_cast<F*>(object))(std::forward<Args>(args)...);
  }

  void* object_;
  R (*call_)(void*, Args...);
};

}  // namespace QelSS
