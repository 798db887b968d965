#include "raw_row.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <optional>

namespace check {
namespace {

constexpr uint64_t kLongestRow = 1 << 20;  // far beyond what a record holds

// The number at the front, which is taken away.
std::optional<uint64_t> take_number(Bytes& rest) {
  uint64_t value = 0;
  for (size_t i = 0; i < std::min<size_t>(rest.size(), 9); ++i) {
    const bool is_last = i == 8 || rest[i] < 0x80;
    value = i == 8 ? value << 8 | rest[i] : value << 7 | (rest[i] & 0x7FU);
    if (is_last) {
      rest = rest.subspan(i + 1);
      return value;
    }
  }
  return std::nullopt;
}

std::optional<uint64_t> size_of(uint64_t type) {
  constexpr uint64_t kSizes[] = {0, 1, 2, 3, 4, 6, 8, 8, 0, 0};
  if (type < std::size(kSizes)) {
    return kSizes[type];
  }
  return type < 12 ? std::nullopt : std::optional((type - 12) / 2);
}

// Of a row that is `length` bytes long and whose first bytes are there.
bool find_columns(uint64_t length, RawRow& row) {
  row.columns.clear();
  Bytes header = row.payload;
  const std::optional<uint64_t> header_size = take_number(header);
  const size_t used = row.payload.size() - header.size();
  if (!header_size || *header_size < used || *header_size > row.payload.size()) {
    return false;
  }
  header = header.first(static_cast<size_t>(*header_size) - used);
  uint64_t offset = *header_size;
  while (!header.empty()) {
    const std::optional<uint64_t> type = take_number(header);
    const std::optional<uint64_t> size = type ? size_of(*type) : std::nullopt;
    if (!size || *size > length - offset) {
      return false;
    }
    const bool is_there = offset + *size <= row.payload.size();
    row.columns.push_back({is_there ? *type : 0, is_there ? static_cast<size_t>(offset) : 0,
                           is_there ? static_cast<size_t>(*size) : 0});
    offset += *size;
  }
  return offset == length;
}

}  // namespace

uint32_t big_endian(Bytes bytes, size_t offset, size_t size) {
  uint32_t value = 0;
  for (const uint8_t byte : bytes.subspan(offset, size)) {
    value = value << 8 | byte;
  }
  return value;
}

std::string_view RawRow::text(size_t column) const {
  if (!columns[column].is_text()) {
    return {};
  }
  const Bytes text = bytes(columns[column]);
  return {reinterpret_cast<const char*>(text.data()), text.size()};
}

int64_t RawRow::integer(size_t column) const {
  const RawColumn& place = columns[column];
  if (place.type == 0 || place.type == 7 || place.type > 9) {
    return 0;
  }
  if (place.type >= 8) {
    return static_cast<int64_t>(place.type) - 8;
  }
  const Bytes number = bytes(place);
  uint64_t value = number[0] >= 0x80 ? ~uint64_t{0} : 0;
  for (const uint8_t byte : number) {
    value = value << 8 | byte;
  }
  return static_cast<int64_t>(value);
}

Pages::Pages(int descriptor) : descriptor_(descriptor) {
  uint8_t header[100] = {};
  if (pread(descriptor, header, sizeof header, 0) == std::ssize(header) &&
      std::memcmp(header, "SQLite format 3", 16) == 0) {
    const uint32_t size = big_endian(header, 16, 2) == 1 ? 65536 : big_endian(header, 16, 2);
    if (size >= 512 && std::has_single_bit(size) && size - header[20] >= 480) {
      size_ = size;
      usable_ = size - header[20];
    }
    const uint32_t encoding = big_endian(header, 56, 4);
    encoding_ = encoding == 2 || encoding == 3 ? static_cast<int>(encoding) : 1;
  }
  struct stat status {};
  if (fstat(descriptor, &status) == 0) {
    const auto page_size = static_cast<off_t>(size_);
    const off_t count = (status.st_size + page_size - 1) / page_size;
    count_ = static_cast<uint32_t>(std::min<off_t>(count, UINT32_MAX - 1));
  }
}

std::vector<uint8_t> Pages::read(uint32_t number) const {
  std::vector<uint8_t> page(size_);
  if (number >= 1 && number <= count_) {
    const off_t start = off_t{number - 1} * static_cast<off_t>(size_);
    [[maybe_unused]] const ssize_t got = pread(descriptor_, page.data(), size_, start);
  }
  page.resize(usable_);
  return page;
}

bool Pages::read_row(Bytes page, size_t offset, RawRow& ret_row) const {
  Bytes rest = page.subspan(offset);
  const std::optional<uint64_t> length = take_number(rest);
  const std::optional<uint64_t> id = length ? take_number(rest) : std::nullopt;
  if (!id || *length == 0 || *length > kLongestRow) {
    return false;
  }
  // How much of a long row stays in its page: the format's own words.
  const uint64_t most = usable_ - 35;
  const uint64_t least = (usable_ - 12) * 32 / 255 - 23;
  const uint64_t fitting = least + (*length - least) % (usable_ - 4);
  const bool is_long = *length > most;
  const uint64_t local = !is_long ? *length : fitting <= most ? fitting : least;
  if (rest.size() < local + (is_long ? 4 : 0)) {
    return false;
  }
  const auto kept = static_cast<size_t>(local);
  ret_row.id = static_cast<int64_t>(*id);
  ret_row.payload.assign(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(kept));
  ret_row.local = page.size() - offset - rest.size() + kept + (is_long ? 4 : 0);
  ret_row.overflow.clear();
  if (is_long) {
    read_overflow(big_endian(rest, kept, 4), *length, ret_row);
  }
  ret_row.is_whole = ret_row.payload.size() == *length;
  return find_columns(*length, ret_row);
}

void Pages::read_overflow(uint32_t page, uint64_t length, RawRow& row) const {
  while (row.payload.size() < length && page >= 2 && page <= count_) {
    row.overflow.push_back(page);
    const std::vector<uint8_t> bytes = read(page);
    const uint64_t wanted = std::min<uint64_t>(length - row.payload.size(), bytes.size() - 4);
    row.payload.insert(row.payload.end(), bytes.begin() + 4,
                       bytes.begin() + 4 + static_cast<std::ptrdiff_t>(wanted));
    page = big_endian(bytes, 0, 4);
  }
}

}  // namespace check
