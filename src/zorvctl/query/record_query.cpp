#include "record_query.h"

#include <algorithm>

#include "daemon_answer.h"
#include "zorv_calls.h"

namespace zorvctl {
namespace {

// The reading of one query: which rows were read, skipped and handed on.
class Reading {
 public:
  Reading(const zorv::TableSchema& table, const RecordQuery& query, const QueryEvents& events)
      : table_(table), query_(query), events_(events) {
    cond_.order_by = query.order_by != nullptr ? table.index_of(*query.order_by) : 0;
    cond_.order_style = query.descending ? 1 : 0;
    for (const Filter& filter : query.filters) {
      const std::string value = is_only_one(filter) ? filter.wire_text() : "";
      if (cond_.field[0] == '\0' && !value.empty()) {
        zorv::copy_text(cond_.field, filter.field->name);
        zorv::copy_text(cond_.value, value);
      } else {
        local_filters_.push_back(filter);
      }
    }
    has_window_ = table.time != nullptr && (query.since || query.until);
    selects_here_ = has_window_ || !local_filters_.empty();
    to_skip_ = selects_here_ ? query.offset : 0;
    cond_.start = selects_here_ ? 0 : static_cast<record_int64>(query.offset);
    newest_first_ = cond_.order_by == 0 && query.descending && !table.fields.empty();
  }

  int read_all(QueryResult& ret) {
    while (true) {
      cond_.count = static_cast<record_int64>(rows_to_ask());
      zorv_api::Rows page;
      if (const int status = read_page(cond_, page); status != KX_SUCCESS) {
        return status;
      }
      ret.total = page.total;
      met_older_ = false;
      for (record_uint64 index = 0; index < page.count && wants_more_; ++index) {
        take(page.record(index), ret.more);
      }
      events_.on_page_end();
      if (!wants_more_ || page.count < static_cast<record_uint64>(cond_.count)) {
        return KX_SUCCESS;
      }
      bool complete = false;
      if (const int status = look_for_more_in_window(complete); status != KX_SUCCESS || complete) {
        return status;
      }
      cond_.start += static_cast<record_int64>(page.count);
      events_.on_wait(static_cast<record_uint64>(cond_.start), page.total);
    }
  }

 private:
  int read_page(const db_query_cond& cond, zorv_api::Rows& ret_page) const {
    const int status = zorv_api::query(table_, cond, ret_page);
    const bool unread = status == KX_SUCCESS && ret_page.total == zorv_api::kTableUnread;
    return unread ? kTableNotRead : status;
  }

  // One row more than is wanted, to learn whether there is more.
  unsigned long long rows_to_ask() const {
    if (selects_here_ || query_.limit == 0 || query_.limit - given_ >= kPageRows) {
      return kPageRows;
    }
    return query_.limit - given_ + 1;
  }

  void take(const void* record, bool& ret_more) {
    if (newest_first_) {
      // Rows that are added meanwhile push the others into the next page, once more.
      const auto id = std::get<record_int64>(get(table_.fields[0], record));
      if (last_id_ && id >= *last_id_) {
        return;
      }
      last_id_ = id;
    }
    const void* const row = query_.row_of ? query_.row_of(record) : record;
    if (!wanted(row)) {
      return;
    }
    if (to_skip_ > 0) {
      --to_skip_;
    } else if (query_.limit != 0 && given_ == query_.limit) {
      ret_more = true;
      wants_more_ = false;
    } else {
      ++given_;
      wants_more_ = events_.on_record(row);
    }
  }

  bool is_older(const void* record) const {
    return query_.since && std::get<record_uint64>(get(*table_.time, record)) < *query_.since;
  }

  bool wanted(const void* record) {
    if (has_window_) {
      if (is_older(record)) {
        met_older_ = true;
        return false;
      }
      ++not_older_;
      if (query_.until && std::get<record_uint64>(get(*table_.time, record)) > *query_.until) {
        return false;
      }
    }
    return match(local_filters_, record);
  }

  // Without an alternative.
  bool is_only_one(const Filter& filter) const {
    return std::none_of(query_.filters.begin(), query_.filters.end(), [&](const Filter& other) {
      return &other != &filter && other.field == filter.field && other.is_alternative();
    });
  }

  // Rows come by id, and a clock that was set back mixes their times: an older row does not show
  // that all that follow are older. Ordered by time, the row behind as many as were met does. A row
  // that was added meanwhile hides it, and the reading only goes on.
  int look_for_more_in_window(bool& ret_complete) const {
    if (!newest_first_ || !met_older_) {
      return KX_SUCCESS;
    }
    db_query_cond by_time = cond_;
    by_time.order_by = table_.index_of(*table_.time);
    by_time.start = static_cast<record_int64>(not_older_);
    by_time.count = 1;
    zorv_api::Rows next;
    const int status = read_page(by_time, next);
    ret_complete = status == KX_SUCCESS && (next.count == 0 || is_older(next.record(0)));
    return status;
  }

  const zorv::TableSchema& table_;
  const RecordQuery& query_;
  const QueryEvents& events_;
  db_query_cond cond_{};
  std::vector<Filter> local_filters_;
  bool has_window_ = false;
  bool selects_here_ = false;
  bool newest_first_ = false;
  std::optional<record_int64> last_id_;
  bool wants_more_ = true;
  bool met_older_ = false;            // on this page, than the window
  unsigned long long not_older_ = 0;  // rows met
  unsigned long long to_skip_ = 0;
  unsigned long long given_ = 0;
};

}  // namespace

int run_query(const zorv::TableSchema& table, const RecordQuery& query, const QueryEvents& events,
              QueryResult* ret) {
  QueryResult result;
  const int status = Reading(table, query, events).read_all(result);
  if (status == KX_SUCCESS && ret != nullptr) {
    *ret = result;
  }
  return status;
}

}  // namespace zorvctl
