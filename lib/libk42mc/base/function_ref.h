#pragma once

#include <utility>

namespace k42mc::internal {

// Calls something that outlives it.
template <class Signature> class FunctionRef;

template <class Result, class... Arguments> class FunctionRef<Result(Arguments...)> {
public:
    template <class Function>
    FunctionRef(Function &function) // NOLINT(google-explicit-constructor)
        : function_(&function), call_([](void *called, Arguments... arguments) -> Result {
              return (*static_cast<Function *>(called))(std::forward<Arguments>(arguments)...);
          }) {}

    Result operator()(Arguments... arguments) const {
        return call_(function_, std::forward<Arguments>(arguments)...);
    }

private:
    void *function_;
    Result (*call_)(void *, Arguments...);
};

} // namespace k42mc::internal
