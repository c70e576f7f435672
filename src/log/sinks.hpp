// Where the logger's packets end up. A sink is called by the logger's flush, one packet at a time,
// under the logger's mutex: a sink needs no lock of its own against other flushes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string_view>

#include "log/log_packet.hpp"
#include "zlk/log.h"

namespace zlk::log
{

// Year, month, day, hour, minute, second, in UTC.
using civil_time = std::uint64_t[6];

// The civil time of a packet, from gmtime_r; all zero for a time gmtime_r can't convert.
void to_civil_time(const zlk_timespec_t & time, civil_time & out) noexcept;

class sink
{
public:
    virtual ~sink() = default;
    virtual void write(const log_packet & packet, const civil_time & date) = 0;
    // After the last packet of one flush.
    virtual void flush() {}
};

std::unique_ptr<sink> make_callback_sink(zlk_log_callback callback);
// Throws std::system_error when the file can't be opened for appending.
std::unique_ptr<sink> make_file_sink(std::string_view path);
std::unique_ptr<sink> make_console_sink();
std::unique_ptr<sink> make_syslog_sink();

} // namespace zlk::log
