#include "delete_records.h"

#include "daemon_answer.h"
#include "exit_status.h"
#include "table_look.h"

namespace zorvctl {
namespace {

class Deletion {
 public:
  explicit Deletion(const RecordKind& kind) : kind_(kind) {}

  int begin() {
    before_ = look(kind_);
    return report(before_.end);
  }

  int remove(long long id, bool quiet) {
    what_ = fmt::format("delete {} of {}", id, kind_.noun);
    const RecordQuery row = where(kind_.columns[0], "", id);
    const TableLook found = look(kind_, row);
    if (const int status = report(found.end); status != kDone) {
      return status;
    }
    // Rows older than those that can be shown are deleted unseen. For others that are not there
    // nothing is asked: a delete may cost more than its row.
    if (!found.id && before_.total < kMostRowsShown) {
      const int status = report_all_gone();
      if (status == kDone && !quiet) {
        complain("there is no {} in {}", id, kind_.noun);
      }
      return status;
    }
    if (const int status = report_status(kind_.remove(id), what_.c_str()); status != kDone) {
      return status;
    }
    ++deleted_;
    const TableLook left = look(kind_, row);
    if (const int status = report(left.end); status != kDone) {
      return status;
    }
    if (left.id) {
      complain("cannot {}: it is still there, the daemon's log says why", what_);
      return kFailed;
    }
    return kDone;
  }

  // kFailed after a complaint where more rows were there than have been deleted, and none is left.
  int report_all_gone() const {
    if (deleted_ == 0 || before_.total <= deleted_) {
      return kDone;
    }
    RecordQuery upwards;
    upwards.descending = false;
    const TableLook oldest = look(kind_, upwards);
    if (const int status = report(oldest.end); status != kDone) {
      return status;
    }
    if (oldest.id && before_.id && *oldest.id <= *before_.id) {
      return kDone;
    }
    complain(
        "all {} are gone, not only what was named: after a clean, a delete empties the table until "
        "zorvd is restarted",
        kind_.plural);
    return kFailed;
  }

 private:
  int report(QueryEnd end) const { return report_query_end(end, what_.c_str()); }

  const RecordKind& kind_;
  std::string what_ = fmt::format("delete from {}", kind_.noun);
  TableLook before_;
  unsigned long long deleted_ = 0;
};

}  // namespace

int delete_records(const RecordKind& kind, const std::vector<long long>& ids, bool quiet) {
  Deletion deletion(kind);
  int status = deletion.begin();
  for (const long long id : ids) {
    status = status == kDone ? deletion.remove(id, quiet) : status;
  }
  return status == kDone ? deletion.report_all_gone() : status;
}

}  // namespace zorvctl
