// The query language at the exported edge: FIND over the entries of the cluster.
#include <string>
#include <vector>

#include "api/argument_checks.hpp"
#include "api/call_frame.hpp"
#include "api/entry_support.hpp"
#include "api/retry_frame.hpp"
#include "base/api_exception.hpp"
#include "query/engine/find_execution.hpp"
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

} // namespace

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
