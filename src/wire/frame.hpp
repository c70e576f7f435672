// The frame: how one message travels on a connection.
//
//   offset 0   u32   0x00237E51: magic 0x7E51, then protocol version 35
//   offset 4   u64   body size, the bytes that follow this field
//   offset 12  body  u8 message tag (the alternative's index in protocol::message), then the message
//
// A body size of -8 (0xFFFFFFFFFFFFFFF8) is the empty frame: a header and nothing else.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "wire/marshal.hpp"
#include "wire/messages.hpp"
#include "wire/scatter.hpp"

namespace zlk::protocol
{

using error_code = boost::system::error_code;

inline constexpr std::uint16_t frame_magic = 0x7E51;
inline constexpr std::uint16_t protocol_version = 35;
inline constexpr std::uint32_t frame_head = (std::uint32_t{protocol_version} << 16) | frame_magic;
inline constexpr std::size_t frame_header_size = 12;
inline constexpr std::uint64_t empty_frame_size = ~std::uint64_t{0} - 7;
// Scratch of a frame beyond its message: head word, size, tag.
inline constexpr std::size_t frame_overhead = 4 + 8 + 1;

// Scratch bytes that encoding m as a frame needs at most.
inline std::size_t frame_bound(const message & m) noexcept
{
    return frame_overhead + serialization::marshal_bound(m);
}

// Appends the frame of m to `scatter`, small fields in `scratch` (grown to frame_bound(m) if smaller,
// never shrunk: a reused scratch vector costs no allocation). Bulk data is referenced, not copied.
// REQUIRES: nothing else points into scratch while this runs; scratch and m's bulk data outlive the
// use of the scatter list. Throws std::bad_alloc only.
void encode_frame(const message & m, serialization::scatter_list & scatter,
                  std::vector<std::uint8_t> & scratch);
// The same over a caller-sized scratch span; throws std::bad_alloc when it is too small.
void encode_frame(const message & m, serialization::scatter_list & scatter, std::span<std::uint8_t> scratch);

// Scratch of a sealed frame: head word, size, the varint length of the sealed bytes.
inline constexpr std::size_t sealed_frame_scratch = 4 + 8 + serialization::varint_bound;

// The frame of a secure session: header, then the sealed clear body as a byte buffer (varint length,
// the sealed bytes by reference). The size counts the varint and the sealed bytes.
void encode_sealed_frame(std::span<const std::uint8_t> sealed, serialization::scatter_list & scatter,
                         std::span<std::uint8_t> scratch);

// Tag and message, without the frame: the clear body that a secure session seals.
void encode_message(serialization::writer & w, const message & m);
// Reads the tag and the message into m. A tag from 18 on is serialization code 3; tag 17 reads
// nothing and leaves m as it was.
error_code decode_message(serialization::cursor & c, message & m);

// The header test for requests and replies alike (protocol category): code 3 when the bytes can't be
// a frame, code 1 when they are the frame of another protocol version.
error_code check_header(std::span<const std::uint8_t> view) noexcept;

// Who a frame came from, for the log line about leftover bytes.
struct frame_origin
{
    const void * client = nullptr;
    std::string_view context;
    std::string_view peer;
};

// Checks and decodes one received frame into m. An empty frame succeeds with m untouched and
// *empty_frame set. Bytes left after the message are logged and do not fail the decode.
// The views in m point into `received`. Throws std::bad_alloc only, when a batch or a profile can't
// be sized.
error_code read_frame(std::span<const std::uint8_t> received, message & m, const frame_origin & origin,
                      bool * empty_frame = nullptr);

} // namespace zlk::protocol
