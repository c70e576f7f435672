// The query language at the exported edge: FIND over the entries of the cluster.
#include <string>
#include <vector>

#include "api/argument_checks.hpp"
#include "api/call_frame.hpp"
#include "api/entry_support.hpp"
#include "api/retry_frame.hpp"
#include "base/api_exception.hpp"
#include "query/engine/direct_select.hpp"
#include "query/engine/find_execution.hpp"
#include "query/engine/query_result.hpp"
#include "query/engine/table_statements.hpp"
#include "query/grammar/parse_query.hpp"
#include "zlk/query.h"

namespace
{

// Query texts longer than this are refused before they are read further.
constexpr std::size_t max_query_length = 100000;

// Null is refused as any string argument is; empty text is no query.
std::string_view checked_query(const char * query)
{
    if (query && query[0] == '\0')
    {
        throw zlk::api_exception(zlk_e_invalid_query, "The provided query is invalid.");
    }
    const auto q = zlk::api::check_string(query, "query", max_query_length);
    return std::string_view(q.data, q.length);
}

// The record handed to the caller: the rows of a statement that ran, or only its messages. A failure
// without any message gives no record at all.
void hand_out_result(zlk_session & h, zlk_error_t code, zlk::query::select_output & out,
                     const std::vector<std::string> & messages, zlk_query_result ** result)
{
    std::string text = zlk::query::join_messages(messages);
    if (ZLK_FAILURE(code) && text.empty())
    {
        return;
    }
    auto block = ZLK_FAILURE(code) ? zlk::query::make_result_block({}, {}, {}, 0, std::move(text))
                                   : zlk::query::make_result_block(std::move(out.names), std::move(out.rows),
                                                                   std::move(out.columns), out.scanned_points,
                                                                   std::move(text));
    zlk_query_result * at = &block->result;
    h.objects_tracker.track(at, block, "query result");
    *result = at;
}

} // namespace

zlk_error_t zlk_query(zlk_handle_t handle, const char * query, zlk_query_result ** result) noexcept
{
    return zlk::api::api_call(
        handle, "query",
        [&]() -> zlk_error_t
        {
            if (!result)
            {
                throw zlk_e_invalid_argument;
            }
            *result = nullptr;
            const std::string_view text = checked_query(query);
            zlk::query::ast::statement statement;
            std::string message;
            if (zlk::query::parse_query(text, statement, message))
            {
                // The caller gets the message twice: in a result, as for any
                // failed statement, and as the last error.
                zlk::query::select_output nothing;
                hand_out_result(*handle, zlk_e_invalid_query, nothing, {message}, result);
                throw zlk::api_exception(zlk_e_invalid_query, "{}", message);
            }
            auto * select = std::get_if<zlk::query::ast::parsed_select>(&statement);
            zlk::query::query_context ctx;
            zlk::query::select_output out;
            zlk_error_t r = zlk_e_not_implemented;
            if (const auto * create = std::get_if<zlk::query::ast::parsed_create_table>(&statement))
            {
                r = zlk::api::run_with_retries(*handle,
                                               [&]() -> zlk_error_t
                                               {
                                                   ctx = zlk::query::query_context{};
                                                   return zlk::query::run_create_table(handle->cluster,
                                                                                       *create, ctx);
                                               });
            }
            else if (!select)
            {
                ctx.fail(r, "Only SELECT and CREATE TABLE statements are implemented yet.");
            }
            else
            {
                // Each attempt analyses afresh: nothing of a failed one is kept.
                r = zlk::api::run_with_retries(*handle,
                                               [&]() -> zlk_error_t
                                               {
                                                   ctx = zlk::query::query_context{};
                                                   out = zlk::query::select_output{};
                                                   zlk::query::ast::parsed_select attempt = *select;
                                                   return zlk::query::run_direct_select(
                                                       handle->cluster, handle->max_cardinality.load(),
                                                       attempt, ctx, out);
                                               });
            }
            hand_out_result(*handle, r, out, ctx.messages, result);
            return r;
        });
}

zlk_error_t zlk_query_find(zlk_handle_t handle, const char * query, const char *** aliases,
                           size_t * alias_count) noexcept
{
    return zlk::api::api_call(handle, "zlk_query_find",
                              [&]() -> zlk_error_t
                              {
                                  if (!aliases || !alias_count)
                                  {
                                      throw zlk_e_invalid_argument;
                                  }
                                  *aliases = nullptr;
                                  *alias_count = 0;
                                  const std::string_view text = checked_query(query);

                                  zlk::query::find_request request;
                                  std::string message;
                                  if (zlk::query::parse_find(text, request, message))
                                  {
                                      throw zlk::api_exception(zlk_e_invalid_query, "{}", message);
                                  }
                                  const auto criteria = zlk::query::criteria_of(request);
                                  if (!criteria)
                                  {
                                      // Two different types: no entry is both.
                                      return zlk_e_ok;
                                  }
                                  std::vector<std::string> found;
                                  const zlk_error_t r = zlk::api::run_with_retries(
                                      *handle,
                                      [&]() -> zlk_error_t
                                      {
                                          found.clear();
                                          message.clear();
                                          return zlk::query::run_find(handle->cluster, *criteria,
                                                                      handle->max_cardinality.load(), found,
                                                                      message);
                                      });
                                  if (!message.empty())
                                  {
                                      throw zlk::api_exception(r, "{}", message);
                                  }
                                  if (ZLK_SUCCESS(r))
                                  {
                                      zlk::api::hand_out_alias_list(*handle, found, aliases, alias_count);
                                  }
                                  return r;
                              });
}
