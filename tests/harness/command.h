// zorvctl where it is expected to do what it was told.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness/daemon.h"

namespace harness {

// Runs it, expects 0 and no complaint; its output.
inline std::string done(const std::vector<std::string>& words) {
  const Outcome outcome = zorvctl(words);
  EXPECT_EQ(outcome.status, 0) << testing::PrintToString(words) << outcome.err;
  EXPECT_EQ(outcome.err, "");
  return outcome.out;
}

}  // namespace harness
