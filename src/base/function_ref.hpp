// A reference to a callable, without owning or allocating: what non-template code takes where a
// template would spread into every caller. The callable must outlive the reference.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace zlk
{

template <typename Signature>
class function_ref;

template <typename R, typename... Args>
class function_ref<R(Args...)>
{
public:
    template <typename F, typename = std::enable_if_t<!std::is_same_v<std::decay_t<F>, function_ref>>>
    function_ref(F && f) noexcept // NOLINT: converting, like std::function
    {
        using target = std::remove_reference_t<F>;
        if constexpr (std::is_function_v<target>)
        {
            _target.function = reinterpret_cast<void (*)()>(&f);
            _call = [](target_storage t, Args... args) -> R
            { return reinterpret_cast<target *>(t.function)(std::forward<Args>(args)...); };
        }
        else
        {
            _target.object = const_cast<void *>(static_cast<const void *>(std::addressof(f)));
            _call = [](target_storage t, Args... args) -> R
            { return (*static_cast<target *>(t.object))(std::forward<Args>(args)...); };
        }
    }

    R operator()(Args... args) const { return _call(_target, std::forward<Args>(args)...); }

private:
    union target_storage
    {
        void * object;
        void (*function)();
    };

    target_storage _target{};
    R (*_call)(target_storage, Args...);
};

} // namespace zlk
