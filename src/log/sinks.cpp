#include "log/sinks.hpp"

#include <fmt/format.h>

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <string>
#include <system_error>

#include "log/logger.hpp"

namespace zlk::log
{

namespace
{

std::string_view level_name(std::uint32_t l) noexcept
{
    switch (public_level(l))
    {
    case zlk_log_detailed:
        return "detailed";
    case zlk_log_debug:
        return "debug";
    case zlk_log_info:
        return "info";
    case zlk_log_warning:
        return "warning";
    case zlk_log_panic:
        return "panic";
    default:
        return "error";
    }
}

// "2024-05-01 12:00:00.123456789 info     pid tid text\n". The buffer holds the longest prefix and a
// full packet, so a line is never cut.
class text_line
{
public:
    text_line(const log_packet & packet, const civil_time & date) noexcept
    {
        const std::string_view text(packet.text, std::min<std::size_t>(packet.length, max_message_size));
        const auto result = fmt::format_to_n(
            buffer_, sizeof(buffer_), "{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:09} {:<8} {} {} {}\n", date[0],
            date[1], date[2], date[3], date[4], date[5], packet.time.tv_nsec, level_name(packet.level),
            packet.process, packet.thread, text);
        size_ = std::min(result.size, sizeof(buffer_));
    }

    const char * data() const noexcept { return buffer_; }
    std::size_t size() const noexcept { return size_; }

private:
    char buffer_[max_message_size + 128];
    std::size_t size_;
};

class callback_sink final : public sink
{
public:
    explicit callback_sink(zlk_log_callback callback)
        : callback_(callback)
    {
    }

    void write(const log_packet & packet, const civil_time & date) override
    {
        callback_(public_level(packet.level), date, packet.process, packet.thread, packet.text,
                  static_cast<std::size_t>(packet.length));
    }

private:
    zlk_log_callback callback_;
};

class file_sink final : public sink
{
public:
    explicit file_sink(std::string_view path)
    {
        const std::string p(path);
        file_ = std::fopen(p.c_str(), "a");
        if (!file_)
        {
            throw std::system_error(errno, std::generic_category(),
                                    fmt::format("cannot open the log file {}", p));
        }
    }

    ~file_sink() override { std::fclose(file_); }

    void write(const log_packet & packet, const civil_time & date) override
    {
        const text_line line(packet, date);
        std::fwrite(line.data(), 1, line.size(), file_);
    }

    void flush() override { std::fflush(file_); }

private:
    std::FILE * file_;
};

class console_sink final : public sink
{
public:
    void write(const log_packet & packet, const civil_time & date) override
    {
        const text_line line(packet, date);
        std::fwrite(line.data(), 1, line.size(), stderr);
    }
};

int syslog_priority(std::uint32_t l) noexcept
{
    switch (public_level(l))
    {
    case zlk_log_detailed:
    case zlk_log_debug:
        return LOG_DEBUG;
    case zlk_log_info:
        return LOG_INFO;
    case zlk_log_warning:
        return LOG_WARNING;
    case zlk_log_panic:
        return LOG_CRIT;
    default:
        return LOG_ERR;
    }
}

// openlog/closelog belong to the application: the library only sends messages, under the
// application's ident.
class syslog_sink final : public sink
{
public:
    void write(const log_packet & packet, const civil_time &) override
    {
        ::syslog(LOG_USER | syslog_priority(packet.level), "%.*s",
                 static_cast<int>(std::min<std::uint64_t>(packet.length, max_message_size)), packet.text);
    }
};

} // namespace

void to_civil_time(const zlk_timespec_t & time, civil_time & out) noexcept
{
    std::tm tm{};
    const auto seconds = static_cast<std::time_t>(time.tv_sec);
    if (!::gmtime_r(&seconds, &tm))
    {
        std::fill(std::begin(out), std::end(out), 0);
        return;
    }
    out[0] = static_cast<std::uint64_t>(tm.tm_year + 1900);
    out[1] = static_cast<std::uint64_t>(tm.tm_mon + 1);
    out[2] = static_cast<std::uint64_t>(tm.tm_mday);
    out[3] = static_cast<std::uint64_t>(tm.tm_hour);
    out[4] = static_cast<std::uint64_t>(tm.tm_min);
    out[5] = static_cast<std::uint64_t>(tm.tm_sec);
}

std::unique_ptr<sink> make_callback_sink(zlk_log_callback callback)
{
    return std::make_unique<callback_sink>(callback);
}

std::unique_ptr<sink> make_file_sink(std::string_view path)
{
    return std::make_unique<file_sink>(path);
}

std::unique_ptr<sink> make_console_sink()
{
    return std::make_unique<console_sink>();
}

std::unique_ptr<sink> make_syslog_sink()
{
    return std::make_unique<syslog_sink>();
}

} // namespace zlk::log
