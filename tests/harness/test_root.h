// The private root of a test process: a folder that stands in for "/" through ZORV_ROOT, with the
// folders that an installed system has.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace harness {

// Made by main before anything reads the environment.
struct TestRoot {
  TestRoot();
  ~TestRoot();
};

const std::string& test_root();

// Whole-file access below the root; `path` is the plain path, as the system's code names it.
std::string read_file(std::string_view path);
void write_file(std::string_view path, std::string_view content);

std::vector<std::string> lines_of(const std::string& text);

}  // namespace harness
