// link_tag (91) and link_tag_back (150): the two writes of attaching a tag, each on its own key and
// under the client's transaction stamp.
#include "base/error_categories.hpp"
#include "node/listing_operations.hpp"
#include "wire/marshal.hpp"
#include "wire/operations.hpp"

namespace zlk::node
{

using boost::system::error_code;
using kernel::entry_type;
namespace ser = zlk::serialization;

namespace
{

error_code read_alias_and_type(operation_context & ctx, std::string_view & alias,
                               std::uint8_t & type) noexcept
{
    ser::cursor c = ctx.fields();
    error_code ec = ser::read_fields(c, alias, type);
    if (!ec && stored_alias(alias).empty())
    {
        ec = make_error_code(kernel::error::unexpected_value);
    }
    return ec;
}

class tag_handlers
{
public:
    explicit tag_handlers(std::shared_ptr<entry_store> store)
        : _store(std::move(store))
    {
    }

    // The entry on the key must be there with the type given (0xFF: any type); a tag is made when it
    // is missing and a tag is asked for. value: the entry's type.
    void link_tag(operation_context & ctx, protocol::result & reply)
    {
        std::string_view alias;
        std::uint8_t type = 0;
        if ((reply.error = read_alias_and_type(ctx, alias, type)))
        {
            return;
        }
        run(ctx, reply,
            [&](entry_store::view & v) -> error_code
            {
                if (!v.entry)
                {
                    if (type != static_cast<std::uint8_t>(entry_type::tag))
                    {
                        return make_error_code(kernel::error::not_found);
                    }
                    v.entry.emplace();
                    v.entry->type = entry_type::tag;
                    v.entry->alias = stored_alias(alias);
                    v.changed = true;
                }
                else if (type != kernel::any_entry_type && static_cast<std::uint8_t>(v.entry->type) != type)
                {
                    return make_error_code(kernel::error::incompatible_type);
                }
                reply.value = static_cast<std::uint8_t>(v.entry->type);
                return {};
            });
    }

    // The link itself: an entry of type tag_link named by the link's alias, whose one content byte is
    // the type of the tagged entry.
    void link_tag_back(operation_context & ctx, protocol::result & reply)
    {
        std::string_view alias;
        std::uint8_t tagged_type = 0;
        if ((reply.error = read_alias_and_type(ctx, alias, tagged_type)))
        {
            return;
        }
        run(ctx, reply,
            [&](entry_store::view & v) -> error_code
            {
                if (v.entry)
                {
                    return make_error_code(v.entry->type == entry_type::tag_link
                                               ? kernel::error::tag_already_set
                                               : kernel::error::incompatible_type);
                }
                v.entry.emplace();
                v.entry->type = entry_type::tag_link;
                v.entry->alias = stored_alias(alias);
                v.entry->content.assign(1, tagged_type);
                v.changed = true;
                return {};
            });
    }

private:
    template <typename Op>
    void run(operation_context & ctx, protocol::result & reply, Op && op)
    {
        bool changed = false;
        auto body = [&](entry_store::view & v) -> error_code
        {
            const error_code ec = op(v);
            changed = v.changed;
            return ec;
        };
        reply.error = _store->apply(ctx.request().key, ctx.request().transaction, true, body);
        if (!reply.error && changed)
        {
            reply.error = ctx.replicate();
        }
    }

    std::shared_ptr<entry_store> _store;
};

} // namespace

void add_tag_operations(operation_registry & registry, std::shared_ptr<entry_store> store)
{
    using protocol::operation;
    auto h = std::make_shared<tag_handlers>(std::move(store));
    const auto number = [](operation op) { return static_cast<std::uint16_t>(op); };
    const auto waits = handler_mode::may_wait;

    registry.add(
        number(operation::link_tag), [h](operation_context & c, protocol::result & r) { h->link_tag(c, r); },
        waits);
    registry.add(
        number(operation::link_tag_back),
        [h](operation_context & c, protocol::result & r) { h->link_tag_back(c, r); }, waits);
}

} // namespace zlk::node
