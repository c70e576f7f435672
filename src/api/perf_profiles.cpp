#include "api/perf_profiles.hpp"

#include <cstring>
#include <memory>
#include <mutex>

#include "api/call_frame.hpp"
#include "api/handle.hpp"

namespace zlk::api
{

void perf_profiles::add(perf_profile profile)
{
    std::shared_lock lock{_clear_mutex};
    _profiles.emplace_back(std::move(profile));
}

void perf_profiles::clear()
{
    std::unique_lock lock{_clear_mutex};
    _profiles.clear();
}

bool tracking_enabled(const zlk_session & handle) noexcept
{
    return handle.client_tracking.load(std::memory_order_relaxed) != 0;
}

void add_profile(zlk_session & handle, perf_profile profile)
{
    if (tracking_enabled(handle))
    {
        handle.perf_profiles.add(std::move(profile));
    }
}

namespace
{

// The caller's copy is one block: the profiles, then all their measures, then all the texts.
struct block_layout
{
    std::size_t profiles = 0;
    std::size_t measures = 0;
    std::size_t text_bytes = 0;

    std::size_t measures_offset() const { return profiles * sizeof(zlk_perf_profile_t); }
    std::size_t text_offset() const { return measures_offset() + measures * sizeof(zlk_perf_measurement_t); }
    std::size_t total() const { return text_offset() + text_bytes; }
};

static_assert(alignof(zlk_perf_measurement_t) <= alignof(zlk_perf_profile_t) ||
              sizeof(zlk_perf_profile_t) % alignof(zlk_perf_measurement_t) == 0);

// Copies text after cursor with a terminating zero the caller may, but need not, rely on.
zlk_string_t copy_text(char *& cursor, const std::string & text) noexcept
{
    zlk_string_t view{cursor, text.size()};
    std::memcpy(cursor, text.data(), text.size());
    cursor[text.size()] = '\0';
    cursor += text.size() + 1;
    return view;
}

zlk_error_t copy_profiles(zlk_session & h, zlk_perf_profile_t ** profiles, std::size_t * count)
{
    if (!profiles || !count)
    {
        throw zlk_e_invalid_argument;
    }
    *profiles = nullptr;
    *count = 0;

    // A profile added after the first pass is left out: only the profiles it saw are copied.
    const auto lock = h.perf_profiles.lock_for_reading();
    std::vector<const perf_profile *> taken;
    block_layout layout;
    h.perf_profiles.for_each(
        [&](const perf_profile & p)
        {
            taken.push_back(&p);
            ++layout.profiles;
            layout.measures += p.measures.size();
            layout.text_bytes += p.name.size() + 1;
            for (const auto & m : p.measures)
            {
                layout.text_bytes += m.label.size() + 1;
            }
        });
    if (taken.empty())
    {
        return zlk_e_ok;
    }

    using unit = std::max_align_t;
    const std::size_t units = (layout.total() + sizeof(unit) - 1) / sizeof(unit);
    auto block = std::make_unique_for_overwrite<unit[]>(units);
    auto * bytes = reinterpret_cast<unsigned char *>(block.get());
    auto * out_profiles = reinterpret_cast<zlk_perf_profile_t *>(bytes);
    auto * out_measures = reinterpret_cast<zlk_perf_measurement_t *>(bytes + layout.measures_offset());
    auto * text = reinterpret_cast<char *>(bytes + layout.text_offset());

    for (std::size_t i = 0; i < taken.size(); ++i)
    {
        const perf_profile & p = *taken[i];
        zlk_perf_profile_t & out = out_profiles[i];
        out.name = copy_text(text, p.name);
        out.measurements = p.measures.empty() ? nullptr : out_measures;
        out.count = p.measures.size();
        for (const auto & m : p.measures)
        {
            out_measures->label = copy_text(text, m.label);
            out_measures->elapsed = m.elapsed;
            ++out_measures;
        }
    }

    h.objects_tracker.track(block.get(), block, "perf profiles");
    *profiles = out_profiles;
    *count = taken.size();
    return zlk_e_ok;
}

} // namespace

} // namespace zlk::api

using zlk::api::api_call;

zlk_error_t zlk_perf_enable_client_tracking(zlk_handle_t handle) noexcept
{
    return api_call(handle, "zlk_perf_enable_client_tracking",
                    [&] { handle->client_tracking.store(1, std::memory_order_relaxed); });
}

zlk_error_t zlk_perf_disable_client_tracking(zlk_handle_t handle) noexcept
{
    return api_call(handle, "zlk_perf_disable_client_tracking",
                    [&] { handle->client_tracking.store(0, std::memory_order_relaxed); });
}

zlk_error_t zlk_perf_get_profiles(zlk_handle_t handle, zlk_perf_profile_t ** profiles,
                                  size_t * count) noexcept
{
    return api_call(handle, "zlk_perf_get_profiles",
                    [&] { return zlk::api::copy_profiles(*handle, profiles, count); });
}

zlk_error_t zlk_perf_clear_all_profiles(zlk_handle_t handle) noexcept
{
    return api_call(handle, "zlk_perf_clear_all_profiles", [&] { handle->perf_profiles.clear(); });
}
