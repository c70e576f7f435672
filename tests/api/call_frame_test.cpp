#include <gtest/gtest.h>

#include <boost/system/system_error.hpp>

#include <functional>
#include <new>
#include <stdexcept>

#include "base/api_exception.hpp"
#include "api/call_frame.hpp"
#include "base/error_categories.hpp"
#include "frame_support.hpp"

namespace
{

using zlk::api::api_call;
using zlk::api::api_call_no_handle;
using zlk::test::last_error;
using zlk::test::scoped_handle;

struct thrown_case
{
    const char * what;
    std::function<void()> body;
    zlk_error_t code;
    std::string text;
};

TEST(call_frame, turns_each_kind_of_exception_into_its_code_and_text)
{
    const std::vector<thrown_case> cases = {
        {"bare code", [] { throw zlk_e_alias_not_found; }, zlk_e_alias_not_found,
         zlk_error(zlk_e_alias_not_found)},
        {"api_exception",
         [] {
             throw zlk::api_exception{zlk_e_reserved_alias, "Got {} with reserved alias name", "alias"};
         },
         zlk_e_reserved_alias, "Got alias with reserved alias name"},
        {"bad_alloc", [] { throw std::bad_alloc{}; }, zlk_e_no_memory_local,
         zlk_error(zlk_e_no_memory_local)},
        {"system_error",
         [] {
             throw boost::system::system_error{make_error_code(zlk::kernel::error::conflict), "put"};
         },
         zlk_e_conflict,
         boost::system::system_error{make_error_code(zlk::kernel::error::conflict), "put"}.what()},
        {"std::exception", [] { throw std::out_of_range{"index 7"}; }, zlk_e_internal_local, "index 7"},
        {"anything else", [] { throw 42; }, zlk_e_internal_local, "got unknown exception"},
    };

    scoped_handle h;
    for (const auto & c : cases)
    {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(api_call(h, "zlk_test", c.body), c.code);
        EXPECT_EQ(last_error(h), std::make_pair(c.code, "at zlk_test: " + c.text));
        EXPECT_EQ(api_call_no_handle("zlk_test", c.body), c.code);
    }
}

TEST(call_frame, a_bad_handle_runs_nothing_and_pushes_nothing)
{
    bool ran = false;
    const auto depth = zlk::api::this_thread_trace().depth();
    EXPECT_EQ(api_call(nullptr, "zlk_test", [&] { ran = true; }), zlk_e_invalid_handle);
    EXPECT_FALSE(ran);
    EXPECT_EQ(zlk::api::this_thread_trace().depth(), depth);
}

TEST(call_frame, nested_calls_are_named_outermost_first)
{
    scoped_handle h;
    std::pair<zlk_error_t, std::string> inner_record;
    const zlk_error_t result =
        api_call(h, "zlk_outer",
                 [&]
                 {
                     api_call(h, "zlk_inner", [] { return zlk_e_iterator_end; });
                     inner_record = last_error(h);
                     api_call_no_handle("zlk_helper", [&] { api_call(h, "zlk_leaf", [] {}); });
                     EXPECT_EQ(last_error(h).second,
                               "at zlk_outer.zlk_helper.zlk_leaf: The operation completed successfully.");
                 });
    EXPECT_EQ(result, zlk_e_ok);
    EXPECT_EQ(inner_record,
              std::make_pair(zlk_e_iterator_end,
                             "at zlk_outer.zlk_inner: " + std::string{zlk_error(zlk_e_iterator_end)}));
    EXPECT_EQ(last_error(h).second, "at zlk_outer: The operation completed successfully.");
    EXPECT_EQ(zlk::api::this_thread_trace().depth(), 0u);
}

// A frame entered from a destructor while an exception unwinds leaves its name in the array; the next
// call must not report it.
TEST(call_frame, a_name_left_behind_during_unwinding_is_dropped_by_the_next_call)
{
    scoped_handle h;
    struct calls_on_unwind
    {
        zlk_handle_t h;
        ~calls_on_unwind()
        {
            api_call(h, "zlk_during_unwind", [] {});
        }
    };
    try
    {
        calls_on_unwind guard{h};
        throw std::runtime_error{"unwinding"};
    }
    catch (const std::runtime_error &)
    {
    }
    EXPECT_EQ(zlk::api::this_thread_trace().depth(), 0u);
    EXPECT_EQ(zlk::api::this_thread_trace().names().size(), 1u);

    api_call(h, "zlk_after", [] {});
    EXPECT_EQ(last_error(h).second, "at zlk_after: The operation completed successfully.");
    EXPECT_EQ(zlk::api::this_thread_trace().depth(), 0u);
}

TEST(call_frame, a_frame_run_while_the_body_unwinds_is_named_in_the_error)
{
    scoped_handle h;
    struct calls_on_unwind
    {
        zlk_handle_t h;
        ~calls_on_unwind()
        {
            api_call(h, "zlk_during_unwind", [] {});
        }
    };
    const zlk_error_t e = api_call(h, "zlk_outer",
                                   [&]
                                   {
                                       calls_on_unwind guard{h};
                                       throw zlk::api_exception{zlk_e_invalid_argument, "bad"};
                                   });
    EXPECT_EQ(e, zlk_e_invalid_argument);
    EXPECT_EQ(last_error(h).second, "at zlk_outer.zlk_during_unwind: bad");

    api_call(h, "zlk_after", [] {});
    EXPECT_EQ(last_error(h).second, "at zlk_after: The operation completed successfully.");
}

TEST(call_frame, a_trace_deeper_than_its_room_in_place_names_every_frame)
{
    scoped_handle h;
    static constexpr const char * names[] = {"zlk_n0", "zlk_n1", "zlk_n2", "zlk_n3", "zlk_n4", "zlk_n5",
                                             "zlk_n6", "zlk_n7", "zlk_n8", "zlk_n9", "zlk_n10"};
    constexpr std::size_t last = std::size(names) - 1;
    std::string innermost;
    std::function<void(std::size_t)> nest = [&](std::size_t i)
    {
        api_call(h, names[i],
                 [&]() -> zlk_error_t
                 {
                     if (i == last)
                     {
                         return zlk_e_iterator_end;
                     }
                     nest(i + 1);
                     if (i + 1 == last)
                     {
                         innermost = last_error(h).second;
                     }
                     return zlk_e_ok;
                 });
    };
    nest(0);
    std::string chain = "at zlk_n0";
    for (std::size_t i = 1; i <= last; ++i)
    {
        chain += std::string{"."} + names[i];
    }
    EXPECT_EQ(innermost, chain + ": " + zlk_error(zlk_e_iterator_end));
    EXPECT_EQ(last_error(h).second, "at zlk_n0: The operation completed successfully.");
    EXPECT_EQ(zlk::api::this_thread_trace().depth(), 0u);
}

} // namespace
