#include <gtest/gtest.h>

#include "harness/test_root.h"

int main(int argc, char** argv) {
  harness::make_test_root();
  testing::InitGoogleTest(&argc, argv);
  const int status = RUN_ALL_TESTS();
  harness::remove_test_root();
  return status;
}
