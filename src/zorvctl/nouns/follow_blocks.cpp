// block list -f. A user has one row, which changes: it is found by the time of the last failure, or
// by what the login policy makes of it as time goes by.
#include <algorithm>
#include <cstring>
#include <ctime>
#include <limits>
#include <map>
#include <set>

#include "commands.h"
#include "follow.h"
#include "follow_options.h"
#include "listed_table.h"
#include "login_policy.h"
#include "output_options.h"
#include "policy_complaint.h"

namespace zorvctl {
namespace {

using User = db_privilege_user_block_data;

constexpr const zorv::TableSchema& kTable = zorv::kUserBlock;
constexpr unsigned long long kFewUsers = 50;

struct Known {
  std::string username;
  int failures = 0;
  record_uint64 time = 0;
  std::optional<zorv::BlockState> state;  // none where the policy cannot be read
};

User record_of(record_int64 id, const Known& known) {
  User user{};
  user.id = id;
  zorv::copy_text(user.username, known.username);
  user.limit = known.failures;
  user.timestamp = known.time;
  return user;
}

// What was read of the table.
struct Reading {
  std::vector<User> changed;  // rows that are new or another
  std::set<record_int64> there;
  bool is_whole = false;
};

class BlockFollowing {
 public:
  BlockFollowing(const zorv::TableSchema& listed, RecordQuery query,
                 std::optional<unsigned long long> rows_before, const Shown& shown,
                 const std::string& format)
      : listed_(listed),
        query_(std::move(query)),
        rows_before_(rows_before),
        stream_(shown, format) {}

  int run() {
    const auto read = [this]() -> std::optional<int> {
      const int status = read_users();
      return stream_.flush() ? std::optional(status) : std::nullopt;
    };
    return read_on("list the users", read, [this] { return std::time(nullptr) >= next_end_; });
  }

 private:
  int read_users() {
    Reading reading;
    // After a clock was set back, the last failures are not those with the latest times.
    bool is_enough = false;
    int status = 0;
    if (!is_first_ && latest_ <= static_cast<record_uint64>(std::time(nullptr))) {
      status = read_latest(&reading, &is_enough);
    }
    if (status == 0 && !is_enough) {
      reading = {};
      status = read_all(&reading);
    }
    if (status == 0) {
      forget_missing(reading);
      judge();
      take(reading.changed);
      is_first_ = false;
    }
    return status;
  }

  // Enough are those that were read where older ones follow and nobody is missing.
  int read_latest(Reading* ret, bool* ret_is_enough) {
    RecordQuery query;
    query.order_by = kTable.time;
    query.limit = kFewUsers;
    bool met_older = false;
    size_t added = 0;
    QueryEvents events;
    events.on_record = [&](const void* record) {
      const auto& user = *static_cast<const User*>(record);
      met_older = user.timestamp < latest_;
      if (!met_older) {
        added += users_.count(user.id) == 0 ? 1 : 0;
        note(user, ret);
      }
      return !met_older;
    };
    QueryResult result;
    const int status = run_query(kTable, query, events, &result);
    const auto expected = std::min<unsigned long long>(users_.size() + added, kMostRowsShown);
    *ret_is_enough = (met_older || !result.more) && expected == result.total;
    return status;
  }

  int read_all(Reading* ret) const {
    QueryEvents events;
    events.on_record = [&](const void* record) {
      note(*static_cast<const User*>(record), ret);
      return true;
    };
    ret->is_whole = true;
    return run_query(kTable, {}, events);
  }

  void note(const User& user, Reading* reading) const {
    reading->there.insert(user.id);
    const auto known = users_.find(user.id);
    if (known == users_.end() || known->second.failures != user.limit ||
        known->second.time != user.timestamp) {
      reading->changed.push_back(user);
    }
  }

  bool is_shown(const User& user) { return is_wanted(listed_, query_, row_of_(&user)); }

  void show(const User& user) {
    if (is_shown(user)) {
      stream_.add(row_of_(&user));
    }
  }

  // Those that are gone are shown without failures.
  void forget_missing(const Reading& reading) {
    for (auto user = users_.begin(); reading.is_whole && user != users_.end();) {
      if (reading.there.count(user->first) != 0) {
        ++user;
        continue;
      }
      show(record_of(user->first, {user->second.username, 0, 0, {}}));
      user = users_.erase(user);
    }
  }

  // Shows those whose state is another than it was, and finds out when the next block ends.
  void judge() {
    policy_ = zorv::ask_login_policy();
    next_end_ = std::numeric_limits<std::time_t>::max();
    for (auto& [id, known] : users_) {
      if (const auto before = std::exchange(known.state, state_of(known)); before != known.state) {
        show(record_of(id, known));
      }
    }
  }

  std::optional<zorv::BlockState> state_of(const Known& known) {
    if (policy_.state != zorv::PolicyReading::State::read) {
      return std::nullopt;
    }
    const std::time_t now = std::time(nullptr);
    const zorv::BlockVerdict verdict =
        block_verdict(policy_.policy, known.failures, known.time, now);
    if (verdict.state == zorv::BlockState::blocked) {
      next_end_ = std::min(next_end_, now + static_cast<std::time_t>(verdict.seconds_left));
    }
    return verdict.state;
  }

  void take(std::vector<User>& changed) {
    std::sort(changed.begin(), changed.end(), [](const User& one, const User& other) {
      return std::pair(one.timestamp, one.id) < std::pair(other.timestamp, other.id);
    });
    auto wanted = static_cast<unsigned long long>(std::count_if(
        changed.begin(), changed.end(), [this](const User& user) { return is_shown(user); }));
    for (const User& user : changed) {
      Known& known = users_[user.id];
      known = {{static_cast<const char*>(user.username), strnlen(user.username, kTextSize)},
               user.limit,
               user.timestamp,
               {}};
      known.state = state_of(known);
      latest_ = std::max(latest_, user.timestamp);
      if (!is_shown(user)) {
        continue;
      }
      if (!is_first_ || wanted <= rows_before_.value_or(wanted)) {
        stream_.add(row_of_(&user));
      }
      --wanted;
    }
  }

  const zorv::TableSchema& listed_;
  RecordQuery query_;
  std::optional<unsigned long long> rows_before_;  // of the first reading that are shown
  RecordStream stream_;
  std::map<record_int64, Known> users_;
  zorv::PolicyReading policy_ = read_policy_or_complain();
  RowMaker row_of_ = user_row_maker(policy_);
  record_uint64 latest_ = 0;  // time of a failure
  std::time_t next_end_ = 0;  // of a block
  bool is_first_ = true;
};

}  // namespace

int follow_blocks(const zorv::TableSchema& table, const ListOptions& options,
                  const FollowOptions& following) {
  RecordQuery query;
  if (const int status = read_query(table, options, &query); status != 0) {
    return status;
  }
  return BlockFollowing(table, query, rows_before(options, following),
                        {table.fields, output_style(options)}, options.output)
      .run();
}

}  // namespace zorvctl
