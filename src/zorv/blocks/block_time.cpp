#include "block_time.h"

#include <cstring>
#include <ctime>

#include "json_ref.h"
#include "login_policy.h"
#include "zorv_calls.h"

namespace zorv_api {
namespace {

using BlockRow = db_privilege_user_block_data;

bool ask_row(const std::string& username, const CallDeadline& deadline, BlockRow& ret_row) {
  db_query_cond cond{};
  cond.count = 1;
  zorv::copy_text(cond.field, "username");
  zorv::copy_text(cond.value, username);
  Rows rows;
  const int status =
      query(zorv::kUserBlock, cond, rows, new_buffer(), deadline.milliseconds_left());
  if (status != KX_SUCCESS || rows.count == 0) {
    return false;
  }
  ret_row = *static_cast<const BlockRow*>(rows.record(0));
  return true;
}

bool ask_policy(const CallDeadline& deadline, zorv::LoginPolicy& ret_policy) {
  const kx_io_owner io = new_buffer();
  const JsonRef request(json_pack("{ss}", "path", zorv::kLoginPolicyFile));
  const JsonText text = dump_json(request.get());
  if (io == nullptr || text == nullptr ||
      kx_io_write(io.get(), text.get(), std::strlen(text.get())) != KX_SUCCESS ||
      kx_call_ms(zorv::kLoginPolicyService, zorv::kLoginPolicyMethod, io.get(),
                 deadline.milliseconds_left(), -1) != KX_SUCCESS) {
    return false;
  }
  size_t length = 0;
  const auto* const answer = static_cast<const char*>(kx_io_read(io.get(), &length));
  const JsonRef reply(answer != nullptr ? json_loadb(answer, strnlen(answer, length), 0, nullptr)
                                        : nullptr);
  const json_t* const error = json_object_get(reply.get(), "error");
  if (!json_is_integer(error) || json_integer_value(error) != 0) {
    return false;
  }
  ret_policy = zorv::login_policy_of(reply.get());
  return true;
}

}  // namespace

bool ask_seconds_left(const std::string& username, const CallDeadline& deadline,
                      uint64_t& ret_seconds) {
  BlockRow row{};
  zorv::LoginPolicy policy;
  if (!ask_row(username, deadline, row) || !ask_policy(deadline, policy)) {
    return false;
  }
  // A block that ended between the questions has nothing left.
  ret_seconds =
      zorv::block_verdict(policy, row.limit, row.timestamp, std::time(nullptr)).seconds_left;
  return true;
}

}  // namespace zorv_api
