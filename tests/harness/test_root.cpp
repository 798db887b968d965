#include "harness/test_root.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace harness {
namespace {

// Short, because it becomes part of abstract socket names of at most 107 bytes.
std::string root_path = "/tmp/zt.XXXXXX";  // NOLINT: made into the real name by mkdtemp

constexpr const char* kFolders[] = {"/etc/config/zorv", "/var/log/network", "/var/lock", "/var/run",
                                    "/usr/local/sbin"};

}  // namespace

const std::string& test_root() {
  return root_path;
}

std::string read_file(std::string_view path) {
  std::ifstream file(root_path + std::string(path), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(std::string_view path, std::string_view content) {
  std::ofstream file(root_path + std::string(path), std::ios::binary | std::ios::trunc);
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
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

// The root is there before anything reads the environment.
int main(int argc, char** argv) {
  std::string& root = harness::root_path;
  if (mkdtemp(root.data()) == nullptr) {
    return 1;
  }
  for (const char* folder : harness::kFolders) {
    std::filesystem::create_directories(root + folder);
  }
  setenv("ZORV_ROOT", root.c_str(), 1);
  testing::InitGoogleTest(&argc, argv);
  const int status = RUN_ALL_TESTS();
  std::error_code ignored;
  std::filesystem::remove_all(root, ignored);
  return status;
}
