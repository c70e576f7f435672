// What a decoded message looks like once written again: the writer keeps a profile name's length
// modulo 256 on purpose, so a longer name read from the wire comes back cut.
#pragma once

#include <variant>

#include "wire/messages.hpp"

namespace zlk::fuzz
{

inline void cut_profile_name(protocol::result & r)
{
    r.profile_name = r.profile_name.substr(0, r.profile_name.size() & 0xFF);
}

inline void as_written(protocol::message & m)
{
    if (auto * r = std::get_if<protocol::result>(&m))
    {
        cut_profile_name(*r);
    }
    else if (auto * reply = std::get_if<chord::chord_carrier_reply>(&m))
    {
        cut_profile_name(reply->result);
    }
    else if (auto * batch = std::get_if<chord::chord_carrier_reply_batch>(&m))
    {
        for (chord::chord_carrier_reply & each : *batch)
        {
            cut_profile_name(each.result);
        }
    }
}

} // namespace zlk::fuzz
