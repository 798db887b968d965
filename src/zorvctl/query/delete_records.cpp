#include "delete_records.h"

#include <algorithm>
#include <set>

#include "daemon_answer.h"
#include "exit_status.h"
#include "table_facts.h"
#include "table_look.h"
#include "zorv_calls.h"

namespace zorvctl {
namespace {

using Ids = std::set<record_int64>;

constexpr record_int64 kFirstId = 1;

class Deletion {
 public:
  Deletion(const zorv::TableSchema& table, const DeleteOptions& options)
      : table_(table), options_(options) {}

  int run(const std::vector<record_int64>& ids) {
    if (const int status = look_or_complain(table_, what_, before_); status != kDone) {
      return status;
    }
    name(ids.front());
    Ids there;
    if (const int status = report(find({ids.begin(), ids.end()}, there)); status != kDone) {
      return status;
    }
    for (const record_int64 id : ids) {
      // Rows older than those that can be shown are deleted unseen. For others that are not there
      // nothing is asked: a delete may cost more than its row.
      if (there.erase(id) == 0 && before_.total < kMostRowsShown) {
        if (!options_.quiet) {
          complain("there is no {} in {}", id, table_.noun);
        }
        continue;
      }
      if (const int status = remove(id); status != kDone) {
        return status;
      }
    }
    return deleted_.size() > 1 ? check() : kDone;
  }

 private:
  void name(record_int64 id) { what_ = fmt::format("delete {} of {}", id, table_.noun); }
  int report(int status) const { return report_status(status, what_); }

  int remove(record_int64 id) {
    name(id);
    if (const int status = deleted_.empty() ? refuse_risk() : kDone; status != kDone) {
      return status;
    }
    if (const int status = report(zorv_api::remove(table_, id)); status != kDone) {
      return status;
    }
    deleted_.insert(id);
    // The first one shows whether a delete takes more than it should.
    return deleted_.size() == 1 ? check() : kDone;
  }

  // After a clean a delete empties the table. Ids are never given twice, so where the first row is
  // still there, there was none; otherwise nobody knows.
  int refuse_risk() const {
    if (!deletes_are_linked(table_) || options_.force) {
      return kDone;
    }
    TableLook oldest;
    if (const int status = look_or_complain(table_, what_, oldest, upwards()); status != kDone) {
      return status;
    }
    if (oldest.id == kFirstId && oldest.total < kMostRowsShown) {
      return kDone;
    }
    complain(
        "cannot {}: the first {} are gone; if a clean took them since zorvd was started, a delete "
        "takes all others, too: say --force if that may be",
        what_, table_.plural);
    return kFailed;
  }

  // kFailed after a complaint where a row is left that was deleted, or none of those that were not.
  int check() const {
    Ids left;
    if (const int status = report(find(deleted_, left)); status != kDone) {
      return status;
    }
    for (const record_int64 id : left) {
      complain("cannot delete {} of {}: it is still there, the daemon's log says why", id,
               table_.noun);
    }
    if (!left.empty() || before_.total <= deleted_.size()) {
      return left.empty() ? kDone : kFailed;
    }
    TableLook oldest;
    if (const int status = look_or_complain(table_, what_, oldest, upwards()); status != kDone) {
      return status;
    }
    if (oldest.id && before_.id && *oldest.id <= *before_.id) {
      return kDone;
    }
    complain(
        "all {} are gone, not only what was named: after a clean, a delete empties the table until "
        "zorvd is restarted",
        table_.plural);
    return kFailed;
  }

  // Those of `ids` that the table shows.
  int find(const Ids& ids, Ids& ret_there) const {
    constexpr size_t kLooksForAPage = 2;  // take as long
    if (ids.size() <= kLooksForAPage) {
      return find_each(ids, ret_there);
    }
    TableLook oldest;
    if (const int status = look(table_, oldest, upwards()); status != 0 || !oldest.id) {
      return status;
    }
    const record_int64 first = *ids.begin();
    const record_int64 last = *ids.rbegin();
    // From the end of the table that is nearer. An id more is at most a row more.
    const record_int64 from_oldest = last - *oldest.id;
    const record_int64 from_newest = before_.id.value_or(last) - first;
    const auto rows = std::clamp<record_int64>(std::min(from_oldest, from_newest), 0,
                                               static_cast<record_int64>(before_.total));
    if (ids.size() <= kLooksForAPage * (static_cast<size_t>(rows) / kPageRows + 1)) {
      return find_each(ids, ret_there);
    }
    RecordQuery query;
    query.descending = from_newest <= from_oldest;
    QueryEvents events;
    events.on_record = [&](const void* record) {
      const auto id = std::get<record_int64>(get(table_.fields[0], record));
      if (ids.count(id) != 0) {
        ret_there.insert(id);
      }
      return query.descending ? id > first : id < last;
    };
    return run_query(table_, query, events);
  }

  int find_each(const Ids& ids, Ids& ret_there) const {
    for (const record_int64 id : ids) {
      TableLook found;
      if (const int status = look(table_, found, where(table_.fields[0], "", id)); status != 0) {
        return status;
      }
      if (found.id) {
        ret_there.insert(id);
      }
    }
    return 0;
  }

  const zorv::TableSchema& table_;
  DeleteOptions options_;
  std::string what_ = fmt::format("delete from {}", table_.noun);
  TableLook before_;
  Ids deleted_;
};

// From the oldest on.
int read_ids(const zorv::TableSchema& table, std::vector<record_int64>* ret_ids) {
  QueryEvents events;
  events.on_record = [&](const void* record) {
    ret_ids->push_back(std::get<record_int64>(get(table.fields[0], record)));
    return true;
  };
  return run_query(table, upwards(), events);
}

}  // namespace

int delete_records(const zorv::TableSchema& table, const std::vector<record_int64>& ids,
                   const DeleteOptions& options) {
  return Deletion(table, options).run(ids);
}

int clean_one_by_one(
    const zorv::TableSchema& table,
    const std::function<void(unsigned long long done, unsigned long long total)>& on_progress) {
  const std::string what = fmt::format("clean {}", table.noun);
  TableLook seen;
  if (const int status = look_or_complain(table, what, seen); status != kDone) {
    return status;
  }
  if (seen.total > kMostDeletedOneByOne) {
    complain(
        "cannot {}: {} {} are too many to delete one by one; --force has the daemon delete all at "
        "once, and until zorvd is restarted every delete then empties the log",
        what, seen.total, table.plural);
    return kFailed;
  }
  std::vector<record_int64> ids;
  int status = report_status(read_ids(table, &ids), what);
  for (size_t done = 0; done < ids.size() && status == kDone; ++done) {
    status = report_status(zorv_api::remove(table, ids[done]), what);
    on_progress(done + 1, ids.size());
    // The first one may take all, and the next would take what came meanwhile.
    const bool is_checked = done == 0 || done + 1 == ids.size();
    TableLook oldest;
    if (status == kDone && is_checked) {
      status = look_or_complain(table, what, oldest, upwards());
    }
    if (status == kDone && is_checked && (!oldest.id || *oldest.id > ids.back())) {
      return kDone;
    }
  }
  if (status == kDone && !ids.empty()) {
    complain("cannot {}: {} are still there, the daemon's log says why", what, table.plural);
    return kFailed;
  }
  return status;
}

}  // namespace zorvctl
