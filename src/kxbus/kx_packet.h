// The frame of a packet: what precedes the body on the wire.
//
// A packet is a header of 16 bytes, then the body, then (requests only) the method name. Every
// field is little-endian and of fixed width, so peers of different word size understand each other:
//
//   offset size  field
//        0    4  magic, "KXBU"
//        4    1  version, 1
//        5    1  kind: 1 request, 2 reply
//        6    2  request: length of the method name, 1..255; reply: status, 0..7
//        8    4  flags: 1 the first descriptor is the body; 2 the last descriptor is for the callee
//       12    4  body length in bytes: at most 64 KiB in the packet, 1 GiB in a descriptor
//
// The body comes before the method name so that it is aligned wherever the packet is.
//
// The decoders are pure: they look at nothing but their arguments and believe nothing. They may be
// called with any bytes, on any thread. On failure the outputs are untouched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace kxbus {

inline constexpr std::size_t kHeaderSize = 16;
inline constexpr std::size_t kPacketBody = 64 * 1024;
inline constexpr std::size_t kLargestMethod = 255;
inline constexpr std::size_t kLargestBody = std::size_t{1} << 30;
inline constexpr std::size_t kLargestPayload = kPacketBody + kLargestMethod;

enum PacketFlag : std::uint32_t { kBodyInMemfd = 1, kDescriptorPassed = 2 };

using HeaderBytes = std::uint8_t[kHeaderSize];

struct RequestFrame {
  std::string_view method;  // points into the payload that was decoded
  std::size_t body_length = 0;
  bool body_in_memfd = false;
  bool descriptor_passed = false;
};

struct ReplyFrame {
  int status = 0;
  std::size_t body_length = 0;
  bool body_in_memfd = false;
};

// A packet as it came in: the header and what followed it. `sent` is the length of the whole packet
// as the peer sent it, which is more than was received when it was cut.
struct ReceivedPacket {
  std::span<const std::uint8_t> header;
  std::span<const char> payload;
  std::size_t sent = 0;
  std::size_t descriptors = 0;
};

void encode_request(const RequestFrame& frame, HeaderBytes& ret_header);
void encode_reply(const ReplyFrame& frame, HeaderBytes& ret_header);

// Each returns KX_SUCCESS or KX_IS_INVALID.
int decode_request(const ReceivedPacket& packet, RequestFrame& ret_frame);
int decode_reply(const ReceivedPacket& packet, ReplyFrame& ret_frame);

}  // namespace kxbus
