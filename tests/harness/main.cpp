#include <gtest/gtest.h>

#include "harness/test_root.h"

int main(int argc, char** argv) {
  const harness::TestRoot root;
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
