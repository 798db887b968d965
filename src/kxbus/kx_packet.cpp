#include "kx_packet.h"

#include <bit>

#include "kxbus.h"

namespace kxbus {
namespace {

constexpr std::uint32_t kMagic = 0x5542584B;  // "KXBU"
constexpr std::uint8_t kVersion = 1;
constexpr std::uint32_t kKnownFlags = kBodyInMemfd | kDescriptorPassed;

enum Kind : std::uint8_t { kRequest = 1, kReply = 2 };

struct Header {
  std::uint8_t kind;
  std::uint16_t detail;  // method length or status
  std::uint32_t flags;
  std::uint32_t body_length;
};

void put(std::uint8_t* to, std::uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) {
    to[i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
}

std::uint32_t take(const std::uint8_t* from, int bytes) {
  std::uint32_t value = 0;
  for (int i = 0; i < bytes; ++i) {
    value |= static_cast<std::uint32_t>(from[i]) << (8 * i);
  }
  return value;
}

void encode(const Header& header, HeaderBytes& bytes) {
  put(bytes, kMagic, 4);
  put(bytes + 4, kVersion, 1);
  put(bytes + 5, header.kind, 1);
  put(bytes + 6, header.detail, 2);
  put(bytes + 8, header.flags, 4);
  put(bytes + 12, header.body_length, 4);
}

// What both kinds have in common: a header of ours, a packet that is exactly as long as it says,
// and exactly the descriptors that it announces. `method_length` is 0 for a reply.
bool decode(const ReceivedPacket& packet, Kind kind, Header& header) {
  if (packet.header.size() != kHeaderSize || packet.sent != kHeaderSize + packet.payload.size()) {
    return false;
  }
  const std::uint8_t* bytes = packet.header.data();
  if (take(bytes, 4) != kMagic || take(bytes + 4, 1) != kVersion || take(bytes + 5, 1) != kind) {
    return false;
  }
  header = {kind, static_cast<std::uint16_t>(take(bytes + 6, 2)), take(bytes + 8, 4),
            take(bytes + 12, 4)};
  if ((header.flags & ~kKnownFlags) != 0 ||
      packet.descriptors != static_cast<std::size_t>(std::popcount(header.flags))) {
    return false;
  }
  const std::size_t method_length = kind == kRequest ? header.detail : 0;
  if ((header.flags & kBodyInMemfd) != 0) {
    return header.body_length > 0 && header.body_length <= kLargestBody &&
           packet.payload.size() == method_length;
  }
  return header.body_length <= kPacketBody &&
         packet.payload.size() == header.body_length + method_length;
}

}  // namespace

void encode_request(const RequestFrame& frame, HeaderBytes& ret_header) {
  encode({kRequest, static_cast<std::uint16_t>(frame.method.size()),
          (frame.body_in_memfd ? kBodyInMemfd : 0u) |
              (frame.descriptor_passed ? kDescriptorPassed : 0u),
          static_cast<std::uint32_t>(frame.body_length)},
         ret_header);
}

void encode_reply(const ReplyFrame& frame, HeaderBytes& ret_header) {
  encode({kReply, static_cast<std::uint16_t>(frame.status),
          frame.body_in_memfd ? static_cast<std::uint32_t>(kBodyInMemfd) : 0u,
          static_cast<std::uint32_t>(frame.body_length)},
         ret_header);
}

int decode_request(const ReceivedPacket& packet, RequestFrame& ret_frame) {
  Header header;
  if (!decode(packet, kRequest, header) || header.detail == 0 || header.detail > kLargestMethod) {
    return KX_IS_INVALID;
  }
  const std::string_view method(packet.payload.data() + packet.payload.size() - header.detail,
                                header.detail);
  if (method.find('\0') != std::string_view::npos) {
    return KX_IS_INVALID;
  }
  ret_frame = {method, header.body_length, (header.flags & kBodyInMemfd) != 0,
               (header.flags & kDescriptorPassed) != 0};
  return KX_SUCCESS;
}

int decode_reply(const ReceivedPacket& packet, ReplyFrame& ret_frame) {
  Header header;
  if (!decode(packet, kReply, header) || header.detail > KX_IS_INVALID ||
      (header.flags & kDescriptorPassed) != 0 ||
      (header.detail != KX_SUCCESS && header.body_length != 0)) {
    return KX_IS_INVALID;
  }
  ret_frame = {header.detail, header.body_length, (header.flags & kBodyInMemfd) != 0};
  return KX_SUCCESS;
}

}  // namespace kxbus
