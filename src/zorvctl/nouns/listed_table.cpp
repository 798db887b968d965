#include "listed_table.h"

#include <algorithm>
#include <array>
#include <ctime>

#include "policy_complaint.h"

namespace zorvctl {
namespace {

using zorv::BlockState;
using zorv::CodeWord;
using zorv::Field;
using zorv::Meaning;

template <size_t Stored, size_t Computed>
consteval auto joined(const Field (&stored)[Stored], const Field (&computed)[Computed]) {
  std::array<Field, Stored + Computed> fields{};
  std::copy(computed, computed + Computed, std::copy(stored, stored + Stored, fields.begin()));
  return fields;
}

constexpr zorv::TableSchema listed(const zorv::TableSchema& table, std::span<const Field> fields) {
  zorv::TableSchema result = table;
  result.fields = fields;
  result.time = result.find(table.time->name);
  return result;
}

struct ListedSession {
  db_server_list_data record;
  int state;
};

constexpr int kNeverExpires = 0;  // no word is said of it
constexpr CodeWord kSessionStates[] = {{1, "valid"}, {2, "expired"}};
constexpr Field kOfSession[] = {
    zorv::computed(zorv::code<&ListedSession::state>("state", "STATE", kSessionStates, {6, 0}))};
constexpr auto kSessionFields = joined(zorv::kSessionFields, kOfSession);
constexpr zorv::TableSchema kSessions = listed(zorv::kServerList, kSessionFields);

struct ListedUser {
  db_privilege_user_block_data record;
  int state;
  record_int64 limit;
  record_uint64 seconds_left;
};

constexpr int kUnknownState = -1;
constexpr int code_of(BlockState state) {
  return static_cast<int>(state);
}
constexpr CodeWord kUserStates[] = {{code_of(BlockState::off), "policy off"},
                                    {code_of(BlockState::counting), "counting"},
                                    {code_of(BlockState::blocked), "blocked", true},
                                    {code_of(BlockState::over), "block over"},
                                    {kUnknownState, "unknown"}};

bool is_judged(const void* row) {
  return static_cast<const ListedUser*>(row)->state != kUnknownState;
}
bool is_blocked(const void* row) {
  return static_cast<const ListedUser*>(row)->state == code_of(BlockState::blocked);
}

constexpr Field kOfUser[] = {
    zorv::computed(zorv::field<&ListedUser::limit>("limit", "LIMIT", Meaning::number, {4, 2}),
                   is_judged),
    zorv::computed(zorv::code<&ListedUser::state>("state", "STATE", kUserStates, {5, 0})),
    zorv::computed(
        zorv::field<&ListedUser::seconds_left>("seconds_left", "LEFT", Meaning::seconds, {6, 0}),
        is_blocked),
};
constexpr auto kUserFields = joined(zorv::kBlockFields, kOfUser);
constexpr zorv::TableSchema kUsers = listed(zorv::kUserBlock, kUserFields);

int session_state(const db_server_list_data& session, record_uint64 now) {
  return session.expire_time == 0 ? kNeverExpires : kSessionStates[session.expire_time <= now].code;
}

const void* make_user(const void* record, const zorv::PolicyReading& reading, ListedUser& row) {
  row.record = *static_cast<const db_privilege_user_block_data*>(record);
  row.state = kUnknownState;
  if (reading.state == zorv::PolicyReading::State::read) {
    const zorv::BlockVerdict verdict =
        block_verdict(reading.policy, row.record.limit, row.record.timestamp, std::time(nullptr));
    row.limit = reading.policy.limit;
    row.state = code_of(verdict.state);
    row.seconds_left = verdict.seconds_left;
  }
  return &row;
}

}  // namespace

const zorv::TableSchema& listed_table(const zorv::TableSchema& table) {
  return &table == &zorv::kServerList ? kSessions : &table == &zorv::kUserBlock ? kUsers : table;
}

RowMaker row_maker(const zorv::TableSchema& listed) {
  if (&listed == &kSessions) {
    return [row = ListedSession()](const void* record) mutable -> const void* {
      row.record = *static_cast<const db_server_list_data*>(record);
      row.state = session_state(row.record, static_cast<record_uint64>(std::time(nullptr)));
      return &row;
    };
  }
  if (&listed == &kUsers) {
    return [policy = read_policy_or_complain(), row = ListedUser()](const void* record) mutable {
      return make_user(record, policy, row);
    };
  }
  return nullptr;
}

RowMaker user_row_maker(const zorv::PolicyReading& policy) {
  return [&policy, row = ListedUser()](const void* record) mutable {
    return make_user(record, policy, row);
  };
}

}  // namespace zorvctl
