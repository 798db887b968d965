#include "record_query.h"

#include <algorithm>

#include "call_time.h"
#include "value_text.h"

namespace zorvctl {
namespace {

// Of the largest record 14 MiB, three times in memory on the way: what a small NAS can spare.
constexpr unsigned long long kPageRows = 2000;

void copy_text(char (&field)[kTextSize], std::string_view text) {
  const size_t length = std::min(text.size(), sizeof field - 1);
  std::copy_n(text.data(), length, field);
  field[length] = '\0';
}

// One run of a query: which rows were read, skipped and handed on.
class Run {
 public:
  Run(const RecordKind& kind, const RecordQuery& query, const QueryEvents& events)
      : kind_(kind), query_(query), events_(events) {
    cond_.order_by = query.order_by != nullptr ? column_index(kind, *query.order_by) : 0;
    cond_.order_style = query.descending ? 1 : 0;
    for (const Filter& filter : query.filters) {
      const std::string value = filter.wire_text();
      if (cond_.field[0] == '\0' && !value.empty()) {
        copy_text(cond_.field, filter.column->name);
        copy_text(cond_.value, value);
      } else {
        local_filters_.push_back(&filter);
      }
    }
    if (kind.time_column != nullptr && (query.since || query.until)) {
      time_ = find_column(kind.columns, kind.time_column);
    }
    selects_here_ = time_ != nullptr || !local_filters_.empty();
    to_skip_ = selects_here_ ? query.offset : 0;
    cond_.start = selects_here_ ? 0 : static_cast<long long>(query.offset);
    newest_first_ = cond_.order_by == 0 && query.descending && !kind.columns.empty();
  }

  QueryEnd go(unsigned long long* ret_total) {
    while (true) {
      cond_.count = static_cast<long long>(rows_to_ask());
      const CallTime time;
      const Page page = kind_.list(cond_);
      if (!page.answered) {
        return time.ran_out() ? QueryEnd::late : QueryEnd::unanswered;
      }
      if (page.total == kTableUnread && !kind_.always_empty) {
        return QueryEnd::unread;
      }
      if (ret_total != nullptr) {
        *ret_total = page.total;
      }
      for (unsigned long long index = 0; index < page.count; ++index) {
        if (!take(page.record(index))) {
          events_.on_page_end();
          return QueryEnd::more;
        }
      }
      events_.on_page_end();
      if (page.count < static_cast<unsigned long long>(cond_.count)) {
        return QueryEnd::complete;
      }
      cond_.start += static_cast<long long>(page.count);
      events_.on_wait(static_cast<unsigned long long>(cond_.start), page.total);
    }
  }

 private:
  // One row more than is wanted, to learn whether there is more.
  unsigned long long rows_to_ask() const {
    if (selects_here_ || query_.limit == 0 || query_.limit - given_ >= kPageRows) {
      return kPageRows;
    }
    return query_.limit - given_ + 1;
  }

  // False when the record is one too many.
  bool take(const void* record) {
    if (newest_first_) {
      // Rows that are added meanwhile push the others into the next page, once more.
      const long long id = std::get<long long>(kind_.columns[0].get(record));
      if (last_id_ && id >= *last_id_) {
        return true;
      }
      last_id_ = id;
    }
    if (!wanted(record)) {
      return true;
    }
    if (to_skip_ > 0) {
      --to_skip_;
      return true;
    }
    if (query_.limit != 0 && given_ == query_.limit) {
      return false;
    }
    ++given_;
    events_.on_record(record);
    return true;
  }

  bool wanted(const void* record) const {
    if (time_ != nullptr) {
      const auto time = std::get<unsigned long long>(time_->get(record));
      if ((query_.since && time < *query_.since) || (query_.until && time > *query_.until)) {
        return false;
      }
    }
    return std::all_of(local_filters_.begin(), local_filters_.end(),
                       [record](const Filter* filter) { return filter->matches(record); });
  }

  const RecordKind& kind_;
  const RecordQuery& query_;
  const QueryEvents& events_;
  db_query_cond cond_{};
  std::vector<const Filter*> local_filters_;
  const Column* time_ = nullptr;
  bool selects_here_ = false;
  bool newest_first_ = false;
  std::optional<long long> last_id_;
  unsigned long long to_skip_ = 0;
  unsigned long long given_ = 0;
};

}  // namespace

bool Filter::matches(const void* record) const {
  const Value value = column->get(record);
  if (const auto* stored = std::get_if<std::string_view>(&value)) {
    return *stored == text;
  }
  return value == number;
}

std::string Filter::wire_text() const {
  return column->kind == Kind::text ? text : number_digits(number);
}

QueryEnd run_query(const RecordKind& kind, const RecordQuery& query, const QueryEvents& events,
                   unsigned long long* ret_total) {
  return Run(kind, query, events).go(ret_total);
}

}  // namespace zorvctl
