#include "node/listing_operations.hpp"

#include <cstdint>
#include <regex>
#include <string>

#include "base/error_categories.hpp"
#include "node/membership.hpp"
#include "node/node_state.hpp"
#include "wire/content_compression.hpp"
#include "wire/marshal.hpp"
#include "wire/operations.hpp"

namespace zlk::node
{

using boost::system::error_code;
namespace ser = zlk::serialization;

entry_store::key_arc own_arc(const operation_context & ctx)
{
    const chord::ring_id & self = ctx.self().id;
    const auto ring = ctx.node().ring();
    if (ring && ring->size() > 0)
    {
        if (const auto i = ring->index_of(self))
        {
            return {ring->arc_at(*i).predecessor.id, self};
        }
    }
    return {self, self};
}

void append_varint(std::vector<std::uint8_t> & out, std::uint64_t v)
{
    while (v >= 0x80)
    {
        out.push_back(static_cast<std::uint8_t>(v | 0x80));
        v >>= 7;
    }
    out.push_back(static_cast<std::uint8_t>(v));
}

void append_bytes(std::vector<std::uint8_t> & out, std::string_view bytes)
{
    append_varint(out, bytes.size());
    out.insert(out.end(), bytes.begin(), bytes.end());
}

namespace
{

// The breadth-first matcher where the library has it: the default one recurses once per character of
// the content, and a large blob would overflow the stack. It refuses back-references.
#ifdef __GLIBCXX__
constexpr auto scan_expression_syntax = std::regex::ECMAScript | std::regex_constants::__polynomial;
#else
constexpr auto scan_expression_syntax = std::regex::ECMAScript;
#endif

// Longest expression a scan compiles: the compiler recurses on nesting.
constexpr std::size_t max_scan_expression = 1024;

error_code unexpected_value() noexcept
{
    return make_error_code(kernel::error::unexpected_value);
}

// The elements of a list reply are written after the fact's count: the count goes in front once known.
class list_reply
{
public:
    list_reply(std::vector<std::uint8_t> & out, bool with_types) noexcept
        : _out(out)
        , _with_types(with_types)
    {
        _out.clear();
    }

    void add(std::string_view alias, std::uint8_t type)
    {
        append_bytes(_out, alias);
        if (_with_types)
        {
            _out.push_back(type);
        }
        ++_count;
    }

    std::uint64_t count() const noexcept { return _count; }

    void finish()
    {
        std::vector<std::uint8_t> head;
        append_varint(head, _count);
        _out.insert(_out.begin(), head.begin(), head.end());
    }

private:
    std::vector<std::uint8_t> & _out;
    bool _with_types;
    std::uint64_t _count = 0;
};

// Offset and limit of a listing: `offset` matches are passed over, then at most `limit` taken (0: no
// limit).
struct window
{
    std::uint64_t offset = 0;
    std::uint64_t limit = 0;
    std::uint64_t seen = 0;

    // Whether the match at hand is taken; `more` goes false once the limit is reached.
    bool take(bool & more) noexcept
    {
        const bool taken = seen++ >= offset;
        more = limit == 0 || seen < offset + limit;
        return taken;
    }
};

class listing_handlers
{
    // The listed entries of the arc whose alias has the affix, in the walk's order, until f says stop.
    template <typename F>
    void visit_matches(const entry_store::key_arc & arc, std::string_view affix, std::uint8_t kind, F && f)
    {
        _store->visit_affix(arc, affix, kind == affix_suffix,
                            [&](const entry_store::summary & s) { return s.alias.empty() || f(s); });
    }

public:
    explicit listing_handlers(std::shared_ptr<entry_store> store)
        : _store(std::move(store))
    {
    }

    // list_chunk (10) and, over everything the node holds, direct_prefix_get (171).
    void list_chunk(operation_context & ctx, protocol::result & reply, bool direct)
    {
        ser::cursor c = ctx.fields();
        std::string_view affix;
        std::uint8_t kind = affix_prefix;
        window w;
        std::uint8_t flag = 0;
        error_code ec = ser::read_bytes(c, affix);
        if (!ec && !direct)
        {
            ec = ser::read_u8(c, kind);
        }
        if (!ec)
        {
            ec = ser::read_varint(c, w.offset);
        }
        if (!ec)
        {
            ec = ser::read_varint(c, w.limit);
        }
        if (!ec)
        {
            ec = ser::read_u8(c, flag);
        }
        if (ec || (ec = check_kind_and_flag(kind, flag)))
        {
            reply.error = ec;
            return;
        }
        const entry_store::key_arc arc =
            direct ? entry_store::key_arc{ctx.self().id, ctx.self().id} : own_arc(ctx);
        list_reply out(ctx.content(), flag == listing_with_types);
        visit_matches(arc, affix, kind,
                      [&](const entry_store::summary & s)
                      {
                          bool more = true;
                          if (w.take(more))
                          {
                              out.add(s.alias, s.listed_type);
                          }
                          return more;
                      });
        out.finish();
        reply.value = out.count();
    }

    void count_chunk(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        std::string_view affix;
        std::uint8_t kind = 0;
        std::uint64_t limit = 0;
        std::uint8_t flag = 0;
        error_code ec = ser::read_fields(c, affix, kind, ser::as_varint(limit), flag);
        if (ec || (ec = check_kind_and_flag(kind, flag)))
        {
            reply.error = ec;
            return;
        }
        std::uint64_t n = 0;
        visit_matches(own_arc(ctx), affix, kind,
                      [&](const entry_store::summary &)
                      {
                          ++n;
                          return limit == 0 || n < limit;
                      });
        reply.value = n;
    }

    // node_listing (18): the aliases of the entries of one kernel type (0xFF: any).
    void node_listing(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        std::uint8_t type = 0;
        window w;
        error_code ec = ser::read_fields(c, type, ser::as_varint(w.offset), ser::as_varint(w.limit));
        if (ec)
        {
            reply.error = ec;
            return;
        }
        list_reply out(ctx.content(), false);
        _store->visit(own_arc(ctx),
                      [&](const entry_store::summary & s)
                      {
                          if (s.alias.empty() ||
                              (type != kernel::any_entry_type && static_cast<std::uint8_t>(s.type) != type))
                          {
                              return true;
                          }
                          bool more = true;
                          if (w.take(more))
                          {
                              out.add(s.alias, 0);
                          }
                          return more;
                      });
        out.finish();
        reply.value = out.count();
    }

    // scan (35): blobs whose content, decompressed, holds the pattern or matches the expression.
    void scan(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        std::string_view pattern;
        std::uint64_t limit = 0;
        std::uint8_t kind = 0;
        error_code ec = ser::read_fields(c, pattern, ser::as_varint(limit));
        if (!ec)
        {
            ec = ser::read_u8(c, kind);
        }
        if (!ec && (pattern.empty() || (kind != scan_plain && kind != scan_regex) ||
                    (kind == scan_regex && pattern.size() > max_scan_expression)))
        {
            ec = unexpected_value();
        }
        if (ec)
        {
            reply.error = ec;
            return;
        }
        std::optional<std::regex> expression;
        if (kind == scan_regex)
        {
            try
            {
                expression.emplace(pattern.begin(), pattern.end(), scan_expression_syntax);
            }
            catch (const std::regex_error &)
            {
                reply.error = unexpected_value();
                return;
            }
        }
        list_reply out(ctx.content(), false);
        std::vector<std::uint8_t> plain;
        _store->visit_entries(
            own_arc(ctx),
            [&](const chord::ring_id &, const stored_entry & e)
            {
                if (e.type != kernel::entry_type::blob || e.alias.empty())
                {
                    return true;
                }
                std::span<const std::uint8_t> bytes(e.content);
                if (protocol::decompress_content(bytes, plain))
                {
                    bytes = plain;
                }
                const std::string_view text(reinterpret_cast<const char *>(bytes.data()), bytes.size());
                const bool found = expression ? std::regex_search(text.begin(), text.end(), *expression)
                                              : text.find(pattern) != std::string_view::npos;
                if (found)
                {
                    out.add(e.alias, 0);
                }
                return limit == 0 || out.count() < limit;
            });
        out.finish();
        reply.value = out.count();
    }

    // iterator_next (5) and iterator_previous (6): the entry after (before) the carrier's key.
    void step(operation_context & ctx, protocol::result & reply, bool backward)
    {
        chord::ring_id key;
        stored_entry e;
        if (!_store->step(own_arc(ctx), ctx.request().key, backward, key, e))
        {
            reply.error = make_error_code(kernel::error::not_found);
            return;
        }
        std::vector<std::uint8_t> & out = ctx.content();
        out.clear();
        append_bytes(out, e.alias);
        out.insert(out.end(), e.content.begin(), e.content.end());
        reply.value = static_cast<std::uint8_t>(e.type);
        reply.stamp.time = e.modified;
        reply.stamp.id = key;
        reply.stamp.number = static_cast<std::uint32_t>(e.version);
    }

private:
    static error_code check_kind_and_flag(std::uint8_t kind, std::uint8_t flag) noexcept
    {
        if ((kind != affix_prefix && kind != affix_suffix) ||
            (flag != listing_aliases && flag != listing_with_types))
        {
            return unexpected_value();
        }
        return {};
    }

    std::shared_ptr<entry_store> _store;
};

} // namespace

void add_listing_operations(operation_registry & registry, std::shared_ptr<entry_store> store)
{
    using protocol::operation;
    auto h = std::make_shared<listing_handlers>(std::move(store));
    const auto number = [](operation op) { return static_cast<std::uint16_t>(op); };

    registry.add(number(operation::list_chunk),
                 [h](operation_context & c, protocol::result & r) { h->list_chunk(c, r, false); });
    registry.add(number(operation::direct_prefix_get),
                 [h](operation_context & c, protocol::result & r) { h->list_chunk(c, r, true); });
    registry.add(number(operation::count_chunk),
                 [h](operation_context & c, protocol::result & r) { h->count_chunk(c, r); });
    registry.add(number(operation::node_listing),
                 [h](operation_context & c, protocol::result & r) { h->node_listing(c, r); });
    registry.add(number(operation::scan),
                 [h](operation_context & c, protocol::result & r) { h->scan(c, r); });
    registry.add(number(operation::iterator_next),
                 [h](operation_context & c, protocol::result & r) { h->step(c, r, false); });
    registry.add(number(operation::iterator_previous),
                 [h](operation_context & c, protocol::result & r) { h->step(c, r, true); });
}

} // namespace zlk::node
