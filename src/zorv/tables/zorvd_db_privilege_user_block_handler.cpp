#include <cstring>
#include <ctime>
#include <new>
#include <optional>

#include "detached_work.h"
#include "login_policy.h"
#include "nc_msg_db.h"
#include "zorvd_tables.h"

namespace store {
namespace {

using Record = db_privilege_user_block_data;

Table& table = table_of(zorv::kUserBlock);
LogModule& log_module = table.log;

using zorv::LoginPolicy;

constexpr const zorv::nc_msg_struct* kBlocked = zorv::nc_msg("C001", "0020");
constexpr const zorv::nc_msg_struct* kUnblocked = zorv::nc_msg("C001", "0021");

std::string or_empty(const char* username) {
  return username != nullptr ? username : "";
}

record_uint64 now() {
  return static_cast<record_uint64>(time(nullptr));
}

void notify(const zorv::nc_msg_struct* message, const char* username) {
  zorv::nclog::notify_send(message, username, nullptr);
}

std::optional<LoginPolicy> policy_that_is_on() {
  LoginPolicy policy{};
  if (!zorv::read_login_policy(policy) || !policy.enabled) {
    return std::nullopt;
  }
  return policy;
}

struct Search {
  std::string_view username;
  std::optional<Record> found;
};

// As it stands in a record, where a longer one is cut.
std::string_view name_of(int text_count, char** texts) {
  constexpr int kColumn = 1;
  static_assert(&zorv::kBlockFields[kColumn] == zorv::named_field(zorv::kBlockFields, "username"));
  const char* const name = text_count > kColumn ? texts[kColumn] : nullptr;
  return name != nullptr ? std::string_view(name, strnlen(name, sizeof Record::username - 1))
                         : "NULL";
}

int search_callback(void* user, int text_count, char** texts, char** /*names*/) {
  auto& search = *static_cast<Search*>(user);
  // Only the row that is looked for is read: there may be many.
  if (!search.found && search.username == name_of(text_count, texts)) {
    read_row(table.schema, text_count, texts, &search.found.emplace());
  }
  return 0;
}

// The user's first row, in the select's order.
std::optional<Record> find_user(const std::string& username) {
  db_query_cond every_row{};
  every_row.count = -1;
  Search search{username, std::nullopt};
  record_uint64 total = 0;
  select_page(table, every_row, search_callback, &search, total);
  return search.found;
}

struct NamesAt {
  int limit;
  std::string names;  // each with its terminator
};

int names_callback(void* user, int text_count, char** texts, char** /*names*/) {
  auto& at = *static_cast<NamesAt*>(user);
  Record row{};
  read_row(table.schema, text_count, texts, &row);
  if (row.limit == at.limit) {
    try {
      at.names.append(row.username, std::strlen(row.username) + 1);
    } catch (const std::bad_alloc&) {
      return -1;
    }
  }
  return 0;
}

// Of the users with just that many failed logins, in the select's order.
std::string names_at(int limit) {
  db_query_cond every_row{};
  every_row.count = -1;
  NamesAt at{limit, ""};
  record_uint64 total = 0;
  select_page(table, every_row, names_callback, &at, total);
  return std::move(at.names);
}

// Tells of the users whose names these are. A caller waits for the first of them; after a guessing
// attack there are more than anybody can wait for.
void notify_of_end(const std::string& names) {
  constexpr int kAwaited = 100;
  size_t next = 0;
  const auto tell = [&names, &next] {
    const char* const name = names.c_str() + next;
    notify(kUnblocked, name);
    next += std::strlen(name) + 1;
  };
  for (int told = 0; next < names.size() && told < kAwaited; ++told) {
    tell();
  }
  if (next < names.size()) {
    os::work_detached([&] {
      while (next < names.size()) {
        tell();
      }
    });
  }
}

void update_count(const Record& row, const std::string& username, record_int64 count) {
  const std::string update = std::string(table.__db_update_str.c_str()) + " WHERE id = %llu;";
  const zorv::FieldValue values[] = {username, count, now(), static_cast<record_uint64>(row.id)};
  run(table, fill(update.c_str(), values));
}

}  // namespace

int create_privilege_user_block_db() {
  return create(table);
}

int insert_privilege_user_block(const char* username) {
  const Operation request;
  const std::string name = or_empty(username);
  int count = 1;
  if (const std::optional<Record> row = find_user(name)) {
    count = static_cast<int>(static_cast<unsigned>(row->limit) + 1U);
    update_count(*row, name, count);
  } else {
    const zorv::FieldValue values[] = {name, record_int64{count}, now()};
    insert_row(table, values);
  }
  const std::optional<LoginPolicy> policy = policy_that_is_on();
  if (policy && policy->limit == count) {
    notify(kBlocked, name.c_str());
  }
  return 0;
}

int check_privilege_user_block(const char* username) {
  LoginPolicy policy{};
  if (!zorv::read_login_policy(policy)) {
    ZORV_LOG(error, "%s: kx failed. kxh vpncaas.read_json path=/etc/config/vpn_block.conf",
             __func__);
    return -1;
  }
  if (!policy.enabled) {
    clean_privilege_user_block();
    return 0;
  }
  const Operation request;
  const std::string name = or_empty(username);
  const std::optional<Record> row = find_user(name);
  if (!row) {
    return 0;
  }
  switch (block_verdict(policy, row->limit, row->timestamp, time(nullptr)).state) {
    case zorv::BlockState::off:
    case zorv::BlockState::counting:
      return 0;
    case zorv::BlockState::blocked:
      return 1;
    case zorv::BlockState::over:
      break;
  }
  delete_row(table, row->id);
  notify(kUnblocked, name.c_str());
  return 0;
}

int delete_privilege_user_block(const char* username) {
  const Operation request;
  const std::string name = or_empty(username);
  const std::optional<Record> row = find_user(name);
  if (!row || row->id == 0) {
    return 0;
  }
  delete_row(table, row->id);
  const std::optional<LoginPolicy> policy = policy_that_is_on();
  if (policy && policy->limit == row->limit) {
    notify(kUnblocked, name.c_str());
  }
  return 0;
}

int clean_privilege_user_block() {
  const std::optional<LoginPolicy> policy = policy_that_is_on();
  const Operation request;
  if (policy) {
    notify_of_end(names_at(policy->limit));
  }
  clean(table);
  return optimize_privilege_user_block_db();
}

int select_privilege_user_block(const db_query_cond* cond, db_privilege_user_block_query** out) {
  return select_query(table, *cond, out);
}

int optimize_privilege_user_block_db() {
  return optimize(table);
}

int finish_privilege_user_block_db() {
  return finish(table);
}

}  // namespace store
