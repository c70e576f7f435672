// A type-erased callable held in place: no heap allocation, whatever the callable captures, as long as
// it fits Capacity bytes at Alignment. A callable that doesn't fit is refused at compile time.
//
// Reply handlers are this type: a handler runs for every reply of the asynchronous path and must not
// cost an allocation of its own.
#pragma once

#include <cstddef>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

namespace zlk
{

template <typename Signature, std::size_t Capacity = 64, std::size_t Alignment = alignof(std::max_align_t)>
class inplace_function;

template <typename R, typename... Args, std::size_t Capacity, std::size_t Alignment>
class inplace_function<R(Args...), Capacity, Alignment>
{
public:
    inplace_function() noexcept = default;

    template <typename F, typename D = std::decay_t<F>,
              typename = std::enable_if_t<!std::is_same_v<D, inplace_function> &&
                                          std::is_invocable_r_v<R, D &, Args...>>>
    inplace_function(F && f) // NOLINT: converting, like std::function
    {
        static_assert(sizeof(D) <= Capacity, "the callable is larger than the in-place storage");
        static_assert(Alignment % alignof(D) == 0, "the callable needs a stricter alignment");
        static_assert(std::is_nothrow_move_constructible_v<D>, "the callable must move without throwing");
        ::new (static_cast<void *>(&storage_)) D(std::forward<F>(f));
        ops_ = &ops_for<D>;
    }

    inplace_function(const inplace_function & other)
    {
        if (other.ops_)
        {
            other.ops_->copy(&storage_, &other.storage_);
            ops_ = other.ops_;
        }
    }

    inplace_function(inplace_function && other) noexcept
    {
        if (other.ops_)
        {
            other.ops_->move(&storage_, &other.storage_);
            ops_ = other.ops_;
            other.reset();
        }
    }

    inplace_function & operator=(inplace_function other) noexcept
    {
        reset();
        if (other.ops_)
        {
            other.ops_->move(&storage_, &other.storage_);
            ops_ = other.ops_;
            other.reset();
        }
        return *this;
    }

    ~inplace_function() { reset(); }

    explicit operator bool() const noexcept { return ops_ != nullptr; }

    // REQUIRES: holds a callable.
    R operator()(Args... args) const
    {
        return ops_->invoke(const_cast<void *>(static_cast<const void *>(&storage_)),
                            std::forward<Args>(args)...);
    }

    void reset() noexcept
    {
        if (ops_)
        {
            ops_->destroy(&storage_);
            ops_ = nullptr;
        }
    }

private:
    struct operations
    {
        R (*invoke)(void *, Args &&...);
        void (*copy)(void *, const void *);
        void (*move)(void *, void *) noexcept;
        void (*destroy)(void *) noexcept;
    };

    template <typename D>
    static constexpr operations ops_for{
        [](void * self, Args &&... args) -> R
        { return std::invoke(*static_cast<D *>(self), std::forward<Args>(args)...); },
        [](void * to, const void * from)
        {
            if constexpr (std::is_copy_constructible_v<D>)
            {
                ::new (to) D(*static_cast<const D *>(from));
            }
            else
            {
                throw std::bad_function_call();
            }
        },
        [](void * to, void * from) noexcept { ::new (to) D(std::move(*static_cast<D *>(from))); },
        [](void * self) noexcept { static_cast<D *>(self)->~D(); },
    };

    alignas(Alignment) unsigned char storage_[Capacity];
    const operations * ops_ = nullptr;
};

} // namespace zlk
