#include "row_pages.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace check {
namespace {

constexpr uint8_t kInterior = 5;  // of a table's tree
constexpr uint8_t kLeaf = 13;
constexpr uint8_t kIndexPages[] = {2, 10};
constexpr std::string_view kHighestIds = "sqlite_sequence";
constexpr size_t kMostWaiting = 1000;

consteval bool are_told_apart() {
  for (size_t one = 0; one < std::size(zorv::kTables); ++one) {
    for (size_t other = 0; other < one; ++other) {
      if (is_kept(*zorv::kTables[one]) && is_kept(*zorv::kTables[other]) &&
          zorv::kTables[one]->fields.size() == zorv::kTables[other]->fields.size()) {
        return false;
      }
    }
  }
  return true;
}
static_assert(are_told_apart(), "two tables have as many columns");

const zorv::TableSchema* named_table(std::string_view name) {
  for (const zorv::TableSchema* table : zorv::kTables) {
    if (is_kept(*table) && name == table->name) {
      return table;
    }
  }
  return nullptr;
}

// The table whose rows look like this one; null for none. An id is its row's number, and its column
// NULL.
const zorv::TableSchema* table_like(const RawRow& row) {
  const auto is_like = [&row](const zorv::TableSchema* table) {
    if (!is_kept(*table) || row.columns.size() != table->fields.size() ||
        row.columns[0].type != 0) {
      return false;
    }
    bool has_value = false;
    for (size_t i = 1; i < row.columns.size(); ++i) {
      const RawColumn& column = row.columns[i];
      const bool fits =
          table->fields[i].is_text() ? column.is_text() : column.type >= 1 && column.type <= 9;
      if (column.type != 0 && !fits) {
        return false;
      }
      has_value = has_value || column.type != 0;
    }
    return has_value && row.id > 0;
  };
  const auto* const found =
      std::find_if(std::begin(zorv::kTables), std::end(zorv::kTables), is_like);
  return found != std::end(zorv::kTables) ? *found : nullptr;
}

// The daemon's texts have no zeros: where there is one, a page was not written.
bool is_entire(const RawRow& row) {
  for (size_t i = 0; i < row.columns.size(); ++i) {
    if (row.text(i).find('\0') != std::string_view::npos) {
      return false;
    }
  }
  return row.is_whole;
}

class Reader {
 public:
  Reader(const Pages& pages, const RowReading& reading, HighestIds& highest)
      : pages_(pages), reading_(reading), highest_(highest), known_(pages.count() + size_t{1}) {}

  int read_all();

 private:
  std::vector<uint8_t> read_page(uint32_t number) {
    if (status_ == 0) {
      status_ = reading_.tick(std::min(++ticks_, pages_.count()), pages_.count());
    }
    return pages_.read(number);
  }
  bool is_new(uint32_t number) const {
    return number != 0 && number <= pages_.count() && !known_[number];
  }

  template <class Take>
  bool read_leaf(Bytes page, uint32_t number, Take take);
  template <class Take>
  void read_tree(uint32_t root, Take take);
  void leave_free_pages_out();
  void search_bytes(uint32_t number);

  bool keep(const zorv::TableSchema* table, const RawRow& row);
  bool keep_highest(const RawRow& row);

  const Pages& pages_;
  const RowReading& reading_;
  HighestIds& highest_;
  int status_ = 0;
  uint32_t ticks_ = 0;
  std::vector<bool> known_;  // trees, their rows and the free list have spoken for them
  std::vector<uint32_t> torn_;
  std::vector<std::pair<const zorv::TableSchema*, RawRow>> waiting_;
};

// A row of which a part is missing waits, since a better one with its id may come.
bool Reader::keep(const zorv::TableSchema* table, const RawRow& row) {
  if (table == nullptr || row.columns.size() != table->fields.size()) {
    return false;
  }
  if (!is_entire(row) && waiting_.size() < kMostWaiting) {
    waiting_.emplace_back(table, row);
    return true;
  }
  for (const uint32_t page : row.overflow) {
    known_[page] = true;
  }
  if (status_ == 0) {
    status_ = reading_.take(*table, row);
  }
  return true;
}

bool Reader::keep_highest(const RawRow& row) {
  const zorv::TableSchema* const table =
      row.columns.size() == 2 ? named_table(row.text(0)) : nullptr;
  if (table != nullptr) {
    highest_[table] = std::max(highest_[table], row.integer(1));
  }
  return row.columns.size() == 2;
}

// Gives `take` the rows that the page lists, if they make sense together: in the order of their
// ids, each in a place of its own. False when they do not, or `take` does not know one.
template <class Take>
bool Reader::read_leaf(Bytes page, uint32_t number, Take take) {
  const size_t start = number == 1 ? 100 : 0;
  const size_t count = big_endian(page, start + 3, 2);
  const size_t list = start + 8;
  if (count > (page.size() - list) / 2) {
    return false;
  }
  std::vector<RawRow> rows(count);
  std::map<size_t, size_t> places;  // beginnings and ends
  for (size_t i = 0; i < count; ++i) {
    const size_t offset = big_endian(page, list + 2 * i, 2);
    if (offset < list + 2 * count || offset >= page.size() ||
        !pages_.read_row(page, offset, rows[i]) || (i > 0 && rows[i].id <= rows[i - 1].id)) {
      return false;
    }
    places[offset] = offset + rows[i].local;
  }
  size_t end = 0;
  for (const auto& [first, last] : places) {
    if (first < end) {
      return false;
    }
    end = last;
  }
  return places.size() == count && std::all_of(rows.begin(), rows.end(), take);
}

template <class Take>
void Reader::read_tree(uint32_t root, Take take) {
  struct Branch {
    uint32_t number;
    uint32_t giver;  // what was the only leaf may still hold the rows it gave; 0 for none
  };
  std::vector<Branch> rest{{root, 0}};
  while (!rest.empty() && status_ == 0) {
    const auto [number, giver] = rest.back();
    rest.pop_back();
    if (number <= pages_.count() && known_[number]) {
      continue;
    }
    const std::vector<uint8_t> page = read_page(number);
    const size_t start = number == 1 ? 100 : 0;
    if (page[start] == kInterior) {
      known_[number] = true;
      const size_t list = start + 12;
      const size_t count =
          std::min<size_t>(big_endian(page, start + 3, 2), (page.size() - list) / 2);
      const uint32_t gave = count == 1 ? number : 0;
      // The last child goes first onto the pile.
      rest.push_back({big_endian(page, start + 8, 4), gave});
      for (size_t i = count; i-- > 0;) {
        const size_t offset = big_endian(page, list + 2 * i, 2);
        rest.push_back({offset + 4 <= page.size() ? big_endian(page, offset, 4) : 0, gave});
      }
      continue;
    }
    if (page[start] == kLeaf) {
      known_[number] = true;
      if (read_leaf(page, number, take)) {
        continue;
      }
    }
    torn_.insert(torn_.end(), {number, giver});
  }
}

// What was deleted may still stand in free pages. A list that does not hold together is not
// believed.
void Reader::leave_free_pages_out() {
  const std::vector<uint8_t> header = pages_.read(1);
  const uint32_t count = big_endian(header, 36, 4);
  std::vector<uint32_t> free;
  for (uint32_t trunk = big_endian(header, 32, 4); trunk != 0;) {
    if (!is_new(trunk) || free.size() > std::min(count, pages_.count())) {
      return;
    }
    const std::vector<uint8_t> page = read_page(trunk);
    const size_t leaves = big_endian(page, 4, 4);
    if (leaves > (page.size() - 8) / 4) {
      return;
    }
    free.push_back(trunk);
    for (size_t i = 0; i < leaves; ++i) {
      free.push_back(big_endian(page, 8 + 4 * i, 4));
    }
    trunk = big_endian(page, 0, 4);
  }
  if (free.size() == count &&
      std::all_of(free.begin(), free.end(), [this](uint32_t number) { return is_new(number); })) {
    for (const uint32_t number : free) {
      known_[number] = true;
    }
  }
}

void Reader::search_bytes(uint32_t number) {
  const std::vector<uint8_t> page = read_page(number);
  RawRow row;
  for (size_t offset = 0; offset < page.size() && status_ == 0; ++offset) {
    // A number beyond the ids that the daemon's callers can see is chance.
    if (pages_.read_row(page, offset, row) && row.id <= INT32_MAX) {
      keep(table_like(row), row);
    }
  }
}

int Reader::read_all() {
  std::vector<std::pair<const zorv::TableSchema*, uint32_t>> roots;
  read_tree(1, [&](const RawRow& row) {
    // type, name, table, root, text
    if (row.columns.size() == 5 && row.text(0) == "table") {
      const std::string_view name = row.text(1);
      if (name == kHighestIds || named_table(name) != nullptr) {
        roots.emplace_back(named_table(name), static_cast<uint32_t>(row.integer(3)));
      }
    }
    return true;
  });
  for (const auto& [table, root] : roots) {
    read_tree(root, [this, table = table](const RawRow& row) {
      return table != nullptr ? keep(table, row) : keep_highest(row);
    });
  }
  leave_free_pages_out();
  std::vector<uint32_t> unknown;
  for (uint32_t number = 1; number <= pages_.count() && status_ == 0; ++number) {
    if (!is_new(number)) {
      continue;
    }
    const std::vector<uint8_t> page = read_page(number);
    if (page[0] != kLeaf) {
      unknown.push_back(number);
    } else {
      known_[number] = true;
      if (!read_leaf(page, number, [this](const RawRow& row) {
            return keep(table_like(row), row) || keep_highest(row);
          })) {
        torn_.push_back(number);
      }
    }
  }
  for (const uint32_t number : torn_) {
    search_bytes(number);
  }
  // A page that lost its beginning, unless rows or an index have turned out to own it.
  for (const uint32_t number : unknown) {
    if (is_new(number) && status_ == 0 &&
        std::ranges::find(kIndexPages, pages_.read(number)[0]) == std::end(kIndexPages)) {
      search_bytes(number);
    }
  }
  for (size_t i = 0; i < waiting_.size() && status_ == 0; ++i) {
    status_ = reading_.take(*waiting_[i].first, waiting_[i].second);
  }
  return status_;
}

}  // namespace

int read_rows(const Pages& pages, const RowReading& reading, HighestIds& ret_highest) {
  return Reader(pages, reading, ret_highest).read_all();
}

}  // namespace check
