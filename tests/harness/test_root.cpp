#include "harness/test_root.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace harness {
// Short, because it becomes part of abstract socket names of at most 107 bytes.
static std::string root_path = "/tmp/zt.XXXXXX";  // NOLINT: made into the real name by mkdtemp

TestRoot::TestRoot() {
  if (mkdtemp(root_path.data()) == nullptr) {
    abort();
  }
  for (const char* folder :
       {"/etc/config/zorv", "/var/log/network", "/var/lock", "/var/run", "/usr/local/sbin"}) {
    std::filesystem::create_directories(root_path + folder);
  }
  setenv("ZORV_ROOT", root_path.c_str(), 1);
}

TestRoot::~TestRoot() {
  std::error_code ignored;
  std::filesystem::remove_all(root_path, ignored);
}

const std::string& test_root() {
  return root_path;
}

std::string read_file(std::string_view path) {
  std::ifstream file(root_path + std::string(path), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(std::string_view path, std::string_view content) {
  std::ofstream(root_path + std::string(path), std::ios::binary | std::ios::trunc) << content;
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

}  // namespace harness
