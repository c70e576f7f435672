#include "api/entry_support.hpp"

#include <cstring>
#include <memory>
#include <vector>

#include "wire/content_compression.hpp"

namespace zlk::api
{

entry_alias checked_entry(const char * alias, bool allow_reserved)
{
    entry_alias out;
    if (allow_reserved)
    {
        const checked_string s = check_string(alias, "alias", max_alias_length);
        out.bytes = client::wire_alias(s.data, s.length + 1);
    }
    else
    {
        const checked_alias a = check_alias(alias);
        out.bytes = client::wire_alias(a.data, a.length);
    }
    out.key = chord::alias_hash(reinterpret_cast<const char *>(out.bytes.data()), out.bytes.size());
    return out;
}

bool compression_enabled(const zlk_session & h) noexcept
{
    return h.compression.load(std::memory_order_relaxed) != zlk_comp_none;
}

void hand_out_content(zlk_session & h, const chord::owner_reply & reply, const void ** content,
                      std::size_t * length)
{
    *content = nullptr;
    *length = 0;
    const chord::chord_carrier_reply * r = reply.reply();
    const std::span<const std::uint8_t> stored =
        r ? r->result.content_view() : std::span<const std::uint8_t>{};
    if (stored.empty())
    {
        return;
    }
    std::vector<std::uint8_t> decompressed;
    if (protocol::decompress_content(stored, decompressed))
    {
        if (decompressed.empty())
        {
            throw zlk_e_invalid_reply;
        }
        // The tracker keeps the vector itself: its bytes are the one allocation.
        const void * at = decompressed.data();
        const std::size_t size = decompressed.size();
        h.objects_tracker.track(at, decompressed, "associated buffer");
        *content = at;
        *length = size;
        return;
    }
    // The view keeps the whole received frame alive, the only copy of the bytes.
    h.objects_tracker.track(stored.data(), reply.frame.buffer, "associated buffer");
    *content = stored.data();
    *length = stored.size();
}

void hand_out_alias_list(zlk_session & h, const std::vector<std::string> & aliases, const char *** out,
                         std::size_t * count)
{
    *out = nullptr;
    *count = 0;
    if (aliases.empty())
    {
        return;
    }
    std::size_t size = aliases.size() * sizeof(const char *);
    for (const std::string & a : aliases)
    {
        size += a.size() + 1;
    }
    auto block = std::make_unique<char[]>(size);
    auto ** pointers = reinterpret_cast<const char **>(block.get());
    char * text = block.get() + aliases.size() * sizeof(const char *);
    for (std::size_t i = 0; i < aliases.size(); ++i)
    {
        std::memcpy(text, aliases[i].data(), aliases[i].size());
        text[aliases[i].size()] = '\0';
        pointers[i] = text;
        text += aliases[i].size() + 1;
    }
    h.objects_tracker.track(block.get(), block, "alias list");
    *out = pointers;
    *count = aliases.size();
}

} // namespace zlk::api
