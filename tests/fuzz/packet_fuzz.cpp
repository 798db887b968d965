// The bus's packet decoders, in both directions.
//
// Input: how many descriptors came with the packet, how much was cut off its end (in units of 256
// bytes), then the packet. What a decoder accepts must be exactly what an encoder would have sent.
#include <cassert>
#include <cstring>

#include "kx_packet.h"
#include "kxbus.h"

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
  kxbus::HeaderBytes header;
  kxbus::RequestFrame request;
  if (kxbus::decode_request(packet, request) == KX_SUCCESS) {
    const size_t inlined = request.body_in_memfd ? 0 : request.body_length;
    assert(!request.method.empty() && inlined + request.method.size() == packet.payload.size());
    assert(request.method.data() == packet.payload.data() + inlined);
    kxbus::encode_request(request, header);
    assert(memcmp(header, packet.header.data(), sizeof header) == 0);
  }
  kxbus::ReplyFrame reply;
  if (kxbus::decode_reply(packet, reply) == KX_SUCCESS) {
    assert(reply.status >= KX_SUCCESS && reply.status <= KX_IS_INVALID);
    assert(reply.body_length <= kxbus::kLargestBody);
    assert(packet.payload.size() == (reply.body_in_memfd ? 0 : reply.body_length));
    kxbus::encode_reply(reply, header);
    assert(memcmp(header, packet.header.data(), sizeof header) == 0);
  }
  return 0;
}
