#include "zorvd_db_privilege_user_block_handler.h"

#include <ctime>
#include <memory>
#include <optional>

#include "login_policy.h"
#include "nc_msg_db.h"
#include "zorvd_db_rows.h"

namespace store {
namespace {

LogModule log_module{"zorvd_db_privilege_user_block_handler"};

using Record = db_privilege_user_block_data;

constexpr std::tuple columns{
    column("username", "TEXT", "'%q'", &Record::username),
    column("limit_count", "INTEGER", "%d", &Record::limit, Conversion::long_long),
    column("timestamp", "INTEGER", "%llu", &Record::timestamp),
};

constexpr TableTraits traits{"privilege_user_block", Storage::persistent, DeleteText::restored};
Table table(log_module, traits);

using zorv::LoginPolicy;

struct FreeRecords {
  void operator()(Record* records) const { std::free(records); }
};

std::string or_empty(const char* username) {
  return username != nullptr ? username : "";
}

record_uint64 now() {
  return static_cast<record_uint64>(time(nullptr));
}

void notify(zorv::NcMsg message, const std::string& username) {
  zorv::nclog::notify_send(zorv::nc_msg(message), username.c_str(), nullptr);
}

std::optional<LoginPolicy> policy_that_is_on() {
  LoginPolicy policy{};
  if (!zorv::read_login_policy(policy) || !policy.enabled) {
    return std::nullopt;
  }
  return policy;
}

// Visits every row of the table, in the select's order, one record at a time.
template <class Visit>
void for_each_row(Visit visit) {
  db_query_cond cond{};
  cond.count = -1;
  record_uint64 total = 0;
  const sqlite3_callback callback = [](void* user, int text_count, char** texts, char**) {
    Record record{};
    read_row(columns, text_count, texts, record);
    (*static_cast<Visit*>(user))(record);
    return 0;
  };
  select_page(table, cond, callback, &visit, total);
}

std::optional<Record> find_user(const std::string& username) {
  std::optional<Record> found;
  for_each_row([&](const Record& record) {
    if (!found && username == record.username) {
      found = record;
    }
  });
  return found;
}

void delete_by_id(const Record& record) {
  delete_row(table, static_cast<record_uint64>(record.id));
}

// The update text is formatted twice, the second time for the id; a '%' of the name is doubled so
// that it comes out of the second pass as itself.
std::string doubled_percent(const std::string& text) {
  std::string doubled;
  for (const char c : text) {
    doubled += c;
    if (c == '%') {
      doubled += c;
    }
  }
  return doubled;
}

void update_count(const Record& row, const std::string& username, int count) {
  const SqlText format(sqlite3_mprintf(table.__db_update_str.c_str(),
                                       doubled_percent(username).c_str(), count, now()));
  const std::string with_id =
      std::string(format != nullptr ? format.get() : "") + " WHERE id = %llu;";
  run(table, SqlText(sqlite3_mprintf(with_id.c_str(), static_cast<record_uint64>(row.id))));
}

}  // namespace

int create_privilege_user_block_db() {
  return create(table, column_texts(columns));
}

int insert_privilege_user_block(const char* username) {
  const std::string name = or_empty(username);
  int count = 1;
  if (const std::optional<Record> row = find_user(name)) {
    count = static_cast<int>(static_cast<unsigned>(row->limit) + 1U);
    update_count(*row, name, count);
  } else {
    insert_row(table,
               SqlText(sqlite3_mprintf(table.__db_insert_str.c_str(), name.c_str(), count, now())));
  }
  const std::optional<LoginPolicy> policy = policy_that_is_on();
  if (policy && policy->limit == count) {
    notify(zorv::NcMsg::C001_0020, name);
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
  const std::string name = or_empty(username);
  const std::optional<Record> row = find_user(name);
  if (!row || policy.limit > row->limit) {
    return 0;
  }
  const double elapsed =
      zorv::seconds_since_failure(row->timestamp, static_cast<int64_t>(time(nullptr)));
  if (elapsed < static_cast<double>(zorv::block_seconds(policy.minutes))) {
    return 1;
  }
  delete_by_id(*row);
  notify(zorv::NcMsg::C001_0021, name);
  return 0;
}

int delete_privilege_user_block(const char* username) {
  const std::string name = or_empty(username);
  const std::optional<Record> row = find_user(name);
  if (!row || row->id == 0) {
    return 0;
  }
  delete_by_id(*row);
  const std::optional<LoginPolicy> policy = policy_that_is_on();
  if (policy && policy->limit == row->limit) {
    notify(zorv::NcMsg::C001_0021, name);
  }
  return 0;
}

int clean_privilege_user_block() {
  if (const std::optional<LoginPolicy> policy = policy_that_is_on()) {
    // Collected first: nothing that can throw runs inside SQLite's callback.
    db_privilege_user_block_query rows{};
    db_privilege_user_block_query* out = &rows;
    const db_query_cond every_row{0, -1, 0, 0, "", ""};
    select_privilege_user_block(&every_row, &out);
    const std::unique_ptr<Record, FreeRecords> owned(rows.data);
    for (record_uint64 i = 0; i < rows.count; ++i) {
      if (rows.data[i].limit == policy->limit) {
        notify(zorv::NcMsg::C001_0021, rows.data[i].username);
      }
    }
  }
  clean(table);
  return optimize_privilege_user_block_db();
}

int select_privilege_user_block(const db_query_cond* cond, db_privilege_user_block_query** out) {
  return select_records(table, columns, *cond, out);
}

int select_privilege_user_block(const db_query_cond* cond, RowSpace& space,
                                db_privilege_user_block_query& ret_head) {
  return select_records(table, columns, *cond, space, ret_head);
}

int optimize_privilege_user_block_db() {
  return optimize(table);
}

int finish_privilege_user_block_db() {
  return finish(table);
}

}  // namespace store
