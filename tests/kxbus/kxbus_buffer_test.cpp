// The buffer on its own: every way of writing it, on both sides of the size where it moves to
// memory of its own.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "harness/bus_peer.h"
#include "kxbus.h"

namespace {

using Io = kx_io_owner;

std::string content(kx_io* io) {
  std::size_t length = 1;
  const auto* bytes = static_cast<const char*>(kx_io_read(io, &length));
  if (bytes == nullptr) {
    EXPECT_EQ(length, 0u);
    return "";
  }
  EXPECT_EQ(bytes[length], '\0');
  return {bytes, length};
}

// The same operations on a buffer and on a string, over sizes around the packet's 64 KiB.
TEST(Buffer, FollowsAString) {
  for (const std::size_t step : {1u, 5200u, 8192u, 65535u, 65536u, 65537u, 300000u}) {
    SCOPED_TRACE(step);
    const Io io(kx_io_create());
    std::string expected;
    for (int round = 0; round < 9; ++round) {
      const std::string part(step, static_cast<char>('a' + round));
      ASSERT_EQ(kx_io_write(io.get(), part.data(), part.size()), KX_SUCCESS);
      expected += part;
      ASSERT_EQ(kx_io_realloc(io.get(), expected.size() + step), KX_SUCCESS);
      expected.resize(expected.size() + step);
      if (round % 3 == 1) {
        ASSERT_EQ(content(io.get()), expected);
      }
      const std::size_t middle = expected.size() / 2 - step / 2;
      ASSERT_EQ(kx_io_overwrite(io.get(), middle, part.data(), step), KX_SUCCESS);
      expected.replace(middle, step, part);
      std::string copied(expected.size() - middle, '?');
      ASSERT_EQ(kx_io_copy(io.get(), middle, copied.data(), copied.size()), KX_SUCCESS);
      ASSERT_EQ(copied, expected.substr(middle));
      if (round % 3 == 2) {
        ASSERT_EQ(kx_io_realloc(io.get(), expected.size() - step - 1), KX_SUCCESS);
        expected.resize(expected.size() - step - 1);
        ASSERT_EQ(kx_io_realloc(io.get(), expected.size() + 100), KX_SUCCESS);
        expected.resize(expected.size() + 100);
      }
      ASSERT_EQ(content(io.get()), expected);
    }
    char byte = 'b';
    EXPECT_EQ(kx_io_copy(io.get(), expected.size(), &byte, 1), KX_IS_INVALID);
    EXPECT_EQ(kx_io_copy(io.get(), 1, &byte, SIZE_MAX), KX_IS_INVALID);
    EXPECT_EQ(kx_io_overwrite(io.get(), expected.size(), "x", 1), KX_IS_INVALID);
    EXPECT_EQ(kx_io_overwrite(io.get(), 1, "x", SIZE_MAX), KX_IS_INVALID);
    ASSERT_EQ(kx_io_realloc(io.get(), 0), KX_SUCCESS);
    EXPECT_EQ(content(io.get()), "");
  }
}

TEST(Buffer, RefusesWhatItCannotHold) {
  const Io io(kx_io_create());
  ASSERT_EQ(kx_io_write(io.get(), "kept", 4), KX_SUCCESS);
  const std::size_t most = std::size_t{1} << 30;
  EXPECT_EQ(kx_io_write(io.get(), "x", most), KX_IS_INVALID);
  EXPECT_EQ(kx_io_write(io.get(), "x", SIZE_MAX), KX_IS_INVALID);
  EXPECT_EQ(kx_io_write(io.get(), nullptr, 1), KX_IS_INVALID);
  EXPECT_EQ(kx_io_realloc(io.get(), most + 1), KX_IS_INVALID);
  EXPECT_EQ(content(io.get()), "kept");
  EXPECT_EQ(kx_reply(io.get()), KX_IS_INVALID);
  EXPECT_EQ(kx_io_read(nullptr, nullptr), nullptr);
  kx_io_free(nullptr);
}

}  // namespace
