#include "log_reader.h"

#include <algorithm>

#include "record_text.h"

namespace ship {
namespace {

// Rows asked for once more: as many may come between two looks before a look has to be repeated.
constexpr record_int64 kMargin = 16;

record_int64 before(record_int64 position, record_int64 rows) {
  return std::max<record_int64>(position - rows, 0);
}

}  // namespace

int LogReader::query(record_int64 start, record_int64 count, bool newest_first,
                     zorv_api::Rows* ret_page) const {
  db_query_cond cond{};
  cond.start = start;
  cond.count = count;
  cond.order_style = newest_first ? 1 : 0;
  zorv_api::Rows page;
  if (const int status = zorv_api::query(table_, cond, page); status != KX_SUCCESS) {
    return status;
  }
  // A statement that failed gives the rows before its failure, or none.
  const record_uint64 there =
      page.total - std::min<record_uint64>(page.total, static_cast<record_uint64>(start));
  if (page.total == zorv_api::kTableUnread ||
      page.count < std::min(there, static_cast<record_uint64>(count))) {
    return kTableNotRead;
  }
  *ret_page = std::move(page);
  return KX_SUCCESS;
}

int LogReader::newest(record_int64* ret_id) const {
  zorv_api::Rows page;
  const int status = query(0, 1, true, &page);
  if (status == KX_SUCCESS) {
    *ret_id = page.count != 0 ? id_of(table_, page.record(0)) : 0;
  }
  return status;
}

// No row between two ids is further away than their difference.
int LogReader::guess_start(record_int64 last_id) {
  zorv_api::Rows page;
  const int status = query(0, 1, true, &page);
  if (status == KX_SUCCESS) {
    const record_int64 ahead = page.count != 0 ? id_of(table_, page.record(0)) - last_id : 0;
    start_ = before(static_cast<record_int64>(page.total),
                    std::max<record_int64>(ahead, 0) + 1 + kMargin);
  }
  return status;
}

int LogReader::read(const Place& place, NewRows* ret) {
  if (!start_) {
    if (const int status = guess_start(place.last_id); status != KX_SUCCESS) {
      return status;
    }
  }
  while (true) {
    zorv_api::Rows page;
    if (const int status = query(*start_, page_rows_, false, &page); status != KX_SUCCESS) {
      start_.reset();
      return status;
    }
    if (page.count == 0 && *start_ > 0) {
      start_.reset();
      return read(place, ret);
    }
    const record_int64 first_id = page.count != 0 ? id_of(table_, page.record(0)) : 0;
    if (first_id > place.last_id && *start_ > 0) {
      start_ = before(*start_, first_id - place.last_id + kMargin);
      continue;
    }
    if (is_other_database(place, page)) {
      start_ = 0;
      return read({place.generation + 1, 0, ""}, ret);
    }
    const bool is_full = page.count >= static_cast<record_uint64>(page_rows_);
    if (is_full && id_of(table_, page.record(page.count - 1)) <= place.last_id) {
      *start_ += static_cast<record_int64>(page.count) - 1;
      continue;
    }
    *ret = rows_behind(place, std::move(page));
    return KX_SUCCESS;
  }
}

// Also remembers what leaves it in doubt: newest ids below the place are those of another database,
// or the rows above them were deleted by hand. The next row shows it, because SQLite gives an id of
// such a table only once.
bool LogReader::is_other_database(const Place& place, const zorv_api::Rows& page) {
  record_int64 newest_id = 0;
  for (record_uint64 index = 0; index < page.count; ++index) {
    newest_id = id_of(table_, page.record(index));
    if (newest_id == place.last_id) {
      doubtful_newest_.reset();
      return digest_of(table_, page.record(index)) != place.digest;
    }
  }
  const bool is_end = page.count < static_cast<record_uint64>(page_rows_);
  if (newest_id > place.last_id || !is_end || place.last_id == 0) {
    doubtful_newest_.reset();
    return false;
  }
  const bool has_grown = doubtful_newest_ && newest_id > *doubtful_newest_;
  doubtful_newest_ = newest_id;
  if (has_grown) {
    doubtful_newest_.reset();
  }
  return has_grown;
}

NewRows LogReader::rows_behind(const Place& place, zorv_api::Rows page) {
  NewRows rows;
  rows.from = place;
  rows.in_doubt = doubtful_newest_.has_value();
  while (rows.first < page.count && id_of(table_, page.record(rows.first)) <= place.last_id) {
    ++rows.first;
  }
  if (rows.first == 0 && page.count != 0) {
    // The daemon has no older row.
    rows.lost = static_cast<record_uint64>(id_of(table_, page.record(0)) - place.last_id - 1);
  }
  const auto end = static_cast<record_uint64>(*start_) + page.count;
  rows.behind = page.total > end ? page.total - end : 0;
  start_ = before(static_cast<record_int64>(end), 1 + kMargin);
  rows.page = std::move(page);
  return rows;
}

}  // namespace ship
