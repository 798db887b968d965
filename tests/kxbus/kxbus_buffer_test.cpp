// The buffer on its own, on both sides of the size where it moves to memory of its own.
#include <gtest/gtest.h>

#include "harness/bus_peer.h"

namespace {

using harness::content;

// The same operations on a buffer and on a string.
TEST(Buffer, FollowsAString) {
  for (const std::size_t step : {1u, 5200u, 8192u, 65535u, 65536u, 65537u, 300000u}) {
    SCOPED_TRACE(step);
    const kx_io_owner io(kx_io_create());
    std::string expected;
    const auto resize = [&](std::size_t size) {
      EXPECT_EQ(kx_io_realloc(io.get(), size), KX_SUCCESS);
      expected.resize(size);
    };
    for (int round = 0; round < 9; ++round) {
      const std::string part(step, static_cast<char>('a' + round));
      EXPECT_EQ(kx_io_write(io.get(), part.data(), step), KX_SUCCESS);
      expected += part;
      resize(expected.size() + step);
      const std::size_t middle = expected.size() / 2 - step / 2;
      EXPECT_EQ(kx_io_overwrite(io.get(), middle, part.data(), step), KX_SUCCESS);
      expected.replace(middle, step, part);
      std::string copied(expected.size() - middle, '?');
      EXPECT_EQ(kx_io_copy(io.get(), middle, copied.data(), copied.size()), KX_SUCCESS);
      ASSERT_EQ(copied, expected.substr(middle));
      if (round % 3 == 2) {
        ASSERT_EQ(content(io), expected);
        resize(expected.size() - step - 1);
        resize(expected.size() + 100);
      }
    }
    char byte = 'b';
    for (const auto& [offset, length] : {std::pair(expected.size(), size_t{1}), {1, SIZE_MAX}}) {
      EXPECT_EQ(kx_io_copy(io.get(), offset, &byte, length), KX_IS_INVALID);
      EXPECT_EQ(kx_io_overwrite(io.get(), offset, &byte, length), KX_IS_INVALID);
    }
    EXPECT_EQ(kx_io_write(io.get(), &byte, std::size_t{1} << 30), KX_IS_INVALID);
    EXPECT_EQ(kx_io_realloc(io.get(), (std::size_t{1} << 30) + 1), KX_IS_INVALID);
    EXPECT_EQ(content(io), expected);
    resize(0);
    EXPECT_EQ(content(io), "");
  }
}

}  // namespace
