// The bus's packet decoders, in both directions.
//
// Input: how many descriptors came with the packet, how much was cut off its end (in units of 256
// bytes), then the packet. What a decoder accepts must be exactly what an encoder would have sent.
#include <cstring>

#include "kx_packet.h"
#include "kxbus.h"
#include "stand_ins.h"

namespace {

using fuzz::require;

void try_request(const kxbus::ReceivedPacket& packet) {
  kxbus::RequestFrame frame;
  if (kxbus::decode_request(packet, frame) != KX_SUCCESS) {
    require(frame.method.empty() && frame.body_length == 0, "a refused request gives nothing");
    return;
  }
  const char* const begin = packet.payload.data();
  const char* const end = begin + packet.payload.size();
  require(!frame.method.empty() && frame.method.data() >= begin &&
              frame.method.data() + frame.method.size() == end,
          "the method ends the payload");
  require(frame.body_in_memfd ||
              begin + frame.body_length == static_cast<const char*>(frame.method.data()),
          "the body stands before the method");
  kxbus::HeaderBytes header;
  kxbus::encode_request(frame, header);
  require(memcmp(header, packet.header.data(), sizeof header) == 0, "one header for one request");
}

void try_reply(const kxbus::ReceivedPacket& packet) {
  kxbus::ReplyFrame frame;
  if (kxbus::decode_reply(packet, frame) != KX_SUCCESS) {
    require(frame.status == 0 && frame.body_length == 0, "a refused reply gives nothing");
    return;
  }
  require(frame.status >= KX_SUCCESS && frame.status <= KX_IS_INVALID, "a status that exists");
  require(frame.body_in_memfd || frame.body_length == packet.payload.size(),
          "the body is the payload");
  require(frame.body_length <= kxbus::kLargestBody, "a body within the limit");
  kxbus::HeaderBytes header;
  kxbus::encode_reply(frame, header);
  require(memcmp(header, packet.header.data(), sizeof header) == 0, "one header for one reply");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) {
    return 0;
  }
  kxbus::ReceivedPacket packet;
  packet.descriptors = data[0];
  packet.sent = size - 2 + size_t{data[1]} * 256;
  const size_t in_header = std::min(size - 2, kxbus::kHeaderSize);
  packet.header = {data + 2, in_header};
  packet.payload = {reinterpret_cast<const char*>(data) + 2 + in_header, size - 2 - in_header};
  try_request(packet);
  try_reply(packet);
  return 0;
}
