#include "delete_records.h"

#include <algorithm>
#include <set>

#include "daemon_answer.h"
#include "exit_status.h"
#include "table_look.h"
#include "zorv_calls.h"

namespace zorvctl {
namespace {

using Ids = std::set<record_int64>;

class Deletion {
 public:
  explicit Deletion(const zorv::TableSchema& table) : table_(table) {}

  int run(const std::vector<record_int64>& ids, bool quiet) {
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
        if (!quiet) {
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
    if (const int status = report(zorv_api::remove(table_, id)); status != kDone) {
      return status;
    }
    deleted_.insert(id);
    // The first one shows whether a delete takes more than it should.
    return deleted_.size() == 1 ? check() : kDone;
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
  std::string what_ = fmt::format("delete from {}", table_.noun);
  TableLook before_;
  Ids deleted_;
};

}  // namespace

int delete_records(const zorv::TableSchema& table, const std::vector<record_int64>& ids,
                   bool quiet) {
  return Deletion(table).run(ids, quiet);
}

}  // namespace zorvctl
