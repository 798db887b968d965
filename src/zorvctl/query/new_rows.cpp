#include "new_rows.h"

#include <algorithm>

namespace zorvctl {
namespace {

constexpr unsigned long long kFewRows = 10;         // of the largest record, they fit a bus packet
constexpr unsigned long long kPage = 1000;          // 5 MB of the largest record, twice in memory
constexpr unsigned long long kOverlap = kPage / 5;  // rows that may be added between two pages

}  // namespace

// Neighbours in the table, the newest first.
struct NewRows::Page {
  std::string rows;
  size_t count = 0;
  bool reaches_end = false;      // no row is older
  unsigned long long total = 0;  // of the table

  const void* record(const zorv::TableSchema& table, size_t index) const {
    return rows.data() + index * table.record_size;
  }
};

int NewRows::read_page(unsigned long long start, unsigned long long count, Page* ret) const {
  Page page;
  RecordQuery query;
  query.offset = start;
  query.limit = count;
  QueryEvents events;
  events.on_record = [&](const void* record) {
    page.rows.append(static_cast<const char*>(record), table_.record_size);
    ++page.count;
    return true;
  };
  QueryResult result;
  const int status = run_query(table_, query, events, &result);
  if (status == 0) {
    page.reaches_end = !result.more;
    page.total = result.total;
    *ret = std::move(page);
  }
  return status;
}

bool NewRows::is_of_new_database(const Page& page, bool is_newest) const {
  bool is_known = false;
  for (size_t index = 0; index < page.count; ++index) {
    const void* const record = page.record(table_, index);
    for (const Mark& mark : place_.marks) {
      if (mark.id == id_of(table_, record)) {
        if (mark.digest != digest_of(table_, record)) {
          return true;
        }
        is_known = true;
      }
    }
  }
  // Older rows that nobody knows: ids are not given twice, so these would have been read.
  return is_newest && !is_known && page.count != 0 &&
         id_of(table_, page.record(table_, 0)) < place_.last_id;
}

void NewRows::hand_on(const Page& page, const NewRowEvents& events) {
  unsigned long long lost = 0;
  record_int64 before = place_.last_id;
  size_t count = 0;
  for (; count < page.count && id_of(table_, page.record(table_, count)) > before; ++count) {
  }
  for (size_t index = count; index-- > 0;) {
    const record_int64 id = id_of(table_, page.record(table_, index));
    lost += before > 0 ? static_cast<unsigned long long>(id - before - 1) : 0;
    before = id;
  }
  if (lost > 0) {
    events.on_lost(lost);
  }
  for (size_t index = count; index-- > 0;) {
    const void* const record = page.record(table_, index);
    place_.last_id = id_of(table_, record);
    events.on_record(record);
  }
  if (page.count != 0) {
    place_.marks.clear();
  }
  for (size_t index = 0; index < std::min(page.count, kMostMarks); ++index) {
    const void* const record = page.record(table_, index);
    place_.marks.push_back({id_of(table_, record), digest_of(table_, record)});
  }
}

int NewRows::read(const NewRowEvents& events) {
  unsigned long long start = 0;  // rows that are newer than the page
  unsigned long long count = kFewRows;
  while (true) {
    Page page;
    if (const int status = read_page(start, count, &page); status != 0) {
      return status;
    }
    if (is_of_new_database(page, start == 0)) {
      place_ = {};
      events.on_new_database();
    }
    const record_int64 oldest =
        page.count != 0 ? id_of(table_, page.record(table_, page.count - 1)) : 0;
    const bool reaches_place = page.reaches_end || oldest <= place_.last_id + 1;
    if (!reaches_place) {
      // Back to where the new rows begin: no more can be new than the ids say and the table holds.
      const auto ids = static_cast<unsigned long long>(oldest - place_.last_id);
      const auto end = std::min(start + count + ids, std::max(page.total, start + count));
      count = kPage;
      start = end > kPage - kOverlap ? end - (kPage - kOverlap) : 0;
      continue;
    }
    hand_on(page, events);
    if (!events.on_page_end() || start == 0) {
      return 0;
    }
    count = kPage;
    start -= std::min(start, kPage - kOverlap);
  }
}

}  // namespace zorvctl
