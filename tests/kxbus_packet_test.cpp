// The decoders against frames that were written by hand, and against noise.
#include "kx_packet.h"

#include <gtest/gtest.h>

#include <random>

#include "harness/bus_peer.h"
#include "kxbus.h"

namespace {

using harness::Frame;

kxbus::ReceivedPacket received(const std::string& bytes, std::size_t descriptors) {
  const std::size_t in_header = std::min(bytes.size(), kxbus::kHeaderSize);
  return {{reinterpret_cast<const std::uint8_t*>(bytes.data()), in_header},
          {bytes.data() + in_header, bytes.size() - in_header},
          bytes.size(),
          descriptors};
}

struct RequestCase {
  const char* what;
  Frame frame;
  std::size_t descriptors;
  int status;
};

const std::string kLongMethod(256, 'm');
const std::string kFullBody(65536, 'b');

const RequestCase kRequests[] = {
    {"empty body", {}, 0, KX_SUCCESS},
    {"largest body in a packet", {.body = kFullBody}, 0, KX_SUCCESS},
    {"longest method", {.method = kLongMethod.substr(1)}, 0, KX_SUCCESS},
    {"largest shared body", {.flags = 1, .body_length = 1 << 30}, 1, KX_SUCCESS},
    {"shared body and a descriptor", {.flags = 3, .body_length = 9}, 2, KX_SUCCESS},
    {"other magic", {.magic = 0x4B584255}, 0, KX_IS_INVALID},
    {"version 0", {.version = 0}, 0, KX_IS_INVALID},
    {"version 2", {.version = 2}, 0, KX_IS_INVALID},
    {"a reply", {.kind = 2}, 0, KX_IS_INVALID},
    {"unknown flag", {.flags = 4}, 1, KX_IS_INVALID},
    {"unannounced descriptor", {}, 1, KX_IS_INVALID},
    {"missing descriptor", {.flags = 2}, 0, KX_IS_INVALID},
    {"more descriptors than flags", {.flags = 2}, 253, KX_IS_INVALID},
    {"no method", {.method = ""}, 0, KX_IS_INVALID},
    {"method too long", {.method = kLongMethod}, 0, KX_IS_INVALID},
    {"method length beyond the packet", {.detail = 5}, 0, KX_IS_INVALID},
    {"method length short of the packet", {.detail = 3}, 0, KX_IS_INVALID},
    {"zero in the method", {.method = std::string("a\0b", 3)}, 0, KX_IS_INVALID},
    {"body length beyond the packet", {.body_length = 7, .body = "123456"}, 0, KX_IS_INVALID},
    {"body length short of the packet", {.body_length = 5, .body = "123456"}, 0, KX_IS_INVALID},
    {"body length that wraps round", {.body_length = 0xFFFFFFFF, .body = "x"}, 0, KX_IS_INVALID},
    {"body too large for a packet", {.body = kFullBody + "b"}, 0, KX_IS_INVALID},
    {"shared body of nothing", {.flags = 1, .body_length = 0}, 1, KX_IS_INVALID},
    {"shared body too large", {.flags = 1, .body_length = (1 << 30) + 1}, 1, KX_IS_INVALID},
    {"body in both places", {.flags = 1, .body_length = 3, .body = "123"}, 1, KX_IS_INVALID},
};

TEST(Packet, RequestsAreTakenOrRefused) {
  for (const RequestCase& item : kRequests) {
    SCOPED_TRACE(item.what);
    const std::string bytes = item.frame.bytes();
    kxbus::RequestFrame frame{.method = "untouched"};
    ASSERT_EQ(kxbus::decode_request(received(bytes, item.descriptors), frame), item.status);
    EXPECT_EQ(frame.method, item.status == KX_SUCCESS ? item.frame.method : "untouched");
    // A good one is refused when it was cut, wherever that was.
    for (std::size_t cut = 0; item.status == KX_SUCCESS && cut < bytes.size();
         cut = cut * 5 / 4 + 1) {
      EXPECT_EQ(kxbus::decode_request(received(bytes.substr(0, cut), item.descriptors), frame),
                KX_IS_INVALID);
    }
    kxbus::ReceivedPacket oversized = received(bytes, item.descriptors);
    ++oversized.sent;
    EXPECT_EQ(kxbus::decode_request(oversized, frame), KX_IS_INVALID);
  }
}

TEST(Packet, RepliesAreTakenOrRefused) {
  const struct {
    const char* what;
    Frame frame;
    std::size_t descriptors;
    int status;
  } kReplies[] = {
      {"success", {.kind = 2, .detail = 0, .body = "x", .method = ""}, 0, KX_SUCCESS},
      {"last status", {.kind = 2, .detail = 7, .method = ""}, 0, KX_SUCCESS},
      {"unknown status", {.kind = 2, .detail = 8, .method = ""}, 0, KX_IS_INVALID},
      {"failure with a body",
       {.kind = 2, .detail = 4, .body = "x", .method = ""},
       0,
       KX_IS_INVALID},
      {"descriptor passed back",
       {.kind = 2, .detail = 0, .flags = 2, .method = ""},
       1,
       KX_IS_INVALID},
      {"a request", {.detail = 0, .method = ""}, 0, KX_IS_INVALID},
  };
  for (const auto& item : kReplies) {
    SCOPED_TRACE(item.what);
    kxbus::ReplyFrame frame{.status = -1};
    ASSERT_EQ(kxbus::decode_reply(received(item.frame.bytes(), item.descriptors), frame),
              item.status);
    EXPECT_EQ(frame.status, item.status == KX_SUCCESS ? item.frame.detail : -1);
  }
}

// Damage of every byte of a good frame: what is still accepted stays within the packet.
TEST(Packet, DamagedFramesNeverLeaveThePacket) {
  std::mt19937 random(1);
  const std::string good = Frame{.body = "0123456789"}.bytes();
  int refused = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string bytes = good;
    for (auto i = random() % 3; i < 3; ++i) {
      bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    kxbus::RequestFrame frame;
    if (kxbus::decode_request(received(bytes, random() % 3), frame) != KX_SUCCESS) {
      ++refused;
      continue;
    }
    ASSERT_GE(frame.method.data(), bytes.data() + kxbus::kHeaderSize);
    ASSERT_EQ(frame.method.data() + frame.method.size(), bytes.data() + bytes.size());
    ASSERT_TRUE(frame.body_in_memfd || frame.body_length <= bytes.size() - kxbus::kHeaderSize);
  }
  EXPECT_GT(refused, 1000);
}

}  // namespace
