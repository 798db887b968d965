// Stands in for another service of the bus: a child process that answers as the test says, also
// with what no real service would send.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "harness/process.h"
#include "harness/test_root.h"

namespace harness {

class FakeService {
 public:
  // Runs in the child. No text: the request is given up without a reply.
  using Answer = std::function<std::optional<std::string>()>;
  // Methods without an answer here are unknown to it.
  FakeService(const char* address, std::map<std::string, Answer> answers);
  FakeService(const char* address, const char* method, const std::optional<std::string>& reply)
      : FakeService(address, {{method, [reply] { return reply; }}}) {}

  // What has been asked so far, in order, as "METHOD REQUEST".
  std::vector<std::string> calls() const { return lines_of(read_file(record_)); }

 private:
  std::string record_;
  std::optional<Child> child_;
};

}  // namespace harness
