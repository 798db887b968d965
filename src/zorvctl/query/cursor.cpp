#include "cursor.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "descriptor.h"
#include "display_text.h"
#include "exit_status.h"
#include "value_text.h"
#include "whole_file.h"
#include "whole_number.h"

namespace zorvctl {
namespace {

constexpr std::string_view kTitle = "zorvctl cursor 1 ";
constexpr std::string_view kEnd = "end";
constexpr size_t kLongestFile = 4096;

int complain_file(const char* what, const std::string& path, const char* why) {
  complain("cannot {} the cursor {}: {}", what, display_text(path), why);
  return kFailed;
}

// The front of `rest` up to `end`, both of which it then loses.
std::string_view take(std::string_view& rest, char end) {
  const size_t length = std::min(rest.find(end), rest.size());
  const std::string_view taken = rest.substr(0, length);
  rest.remove_prefix(std::min(length + 1, rest.size()));
  return taken;
}

bool read_mark(std::string_view line, Mark* ret) {
  const std::string_view id = take(line, ' ');
  const char* const end = line.data() + line.size();
  const auto [read_to, error] = std::from_chars(line.data(), end, ret->digest, 16);
  return whole_number(id, &ret->id) && error == std::errc() && read_to == end;
}

// False where the lines behind the title are not as they were written.
bool read_place(std::string_view text, record_int64 last_id, Place* ret) {
  Place place{last_id, {}};
  while (!text.empty() && text.find('\n') != std::string_view::npos) {
    const std::string_view line = take(text, '\n');
    if (line == kEnd) {
      *ret = place;
      return text.empty() && last_id >= 0;
    }
    Mark mark{};
    const record_int64 below = place.marks.empty() ? last_id + 1 : place.marks.back().id;
    if (!read_mark(line, &mark) || mark.id < 1 || mark.id >= below ||
        place.marks.size() == kMostMarks) {
      return false;
    }
    place.marks.push_back(mark);
  }
  return false;
}

}  // namespace

record_int64 id_of(const zorv::TableSchema& table, const void* record) {
  return std::get<record_int64>(get(table.fields[0], record));
}

uint64_t digest_of(const zorv::TableSchema& table, const void* record) {
  uint64_t digest = 0xCBF29CE484222325;  // FNV-1a, each value with a NUL behind it
  for (const zorv::Field& field : table.fields) {
    const zorv::FieldValue value = get(field, record);
    const auto* text = std::get_if<std::string_view>(&value);
    for (const char c : (text != nullptr ? std::string(*text) : number_digits(value)) + '\0') {
      digest = (digest ^ static_cast<unsigned char>(c)) * 0x100000001B3;
    }
  }
  return digest;
}

int read_cursor(const std::string& path, const zorv::TableSchema& table, Place* ret_place,
                bool* ret_found) {
  const os::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.valid() && errno == ENOENT) {
    *ret_found = false;
    return kDone;
  }
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0) {
    return complain_file("read", path, std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    return complain_file("read", path, "it is not a file");
  }
  std::array<char, kLongestFile + 1> bytes{};
  const ssize_t length = read(file.get(), bytes.data(), bytes.size());
  if (length < 0) {
    return complain_file("read", path, std::strerror(errno));
  }
  std::string_view text(bytes.data(), static_cast<size_t>(length));
  if (!text.starts_with(kTitle)) {
    return complain_file("use", path, "the file holds something else");
  }
  text.remove_prefix(kTitle.size());
  std::string_view title = take(text, '\n');
  const std::string_view noun = take(title, ' ');
  if (noun != table.noun) {
    return complain_file("use", path, fmt::format("it is one of {}", display_text(noun)).c_str());
  }
  record_int64 last_id = 0;
  constexpr record_int64 kLargest = std::numeric_limits<record_int64>::max() - 1;
  if (!whole_number(title, &last_id) || last_id > kLargest ||
      !read_place(text, last_id, ret_place)) {
    return complain_file("use", path, "it is damaged; remove it to begin anew");
  }
  *ret_found = true;
  return kDone;
}

int write_cursor(const std::string& path, const zorv::TableSchema& table, const Place& place) {
  std::string text = fmt::format("{}{} {}\n", kTitle, table.noun, place.last_id);
  for (const Mark& mark : place.marks) {
    text += fmt::format("{} {:016x}\n", mark.id, mark.digest);
  }
  text += fmt::format("{}\n", kEnd);

  std::string temporary = path + ".XXXXXX";
  os::Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));
  if (!file.valid()) {
    return complain_file("write", path, std::strerror(errno));
  }
  if (!os::write_all(file.get(), text) || fsync(file.get()) != 0 ||
      rename(temporary.c_str(), path.c_str()) != 0) {
    const int error = errno;
    unlink(temporary.c_str());
    return complain_file("write", path, std::strerror(error));
  }
  // The new name, too, is to outlive a power cut; where folders cannot be synced, the old may stay.
  os::sync_folder_of(path);
  return kDone;
}

}  // namespace zorvctl
