// The C interface over the client's calls. Everything else of this library stays inside it.
#include "zorv.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <limits>
#include <new>

#include "block_time.h"
#include "call_deadline.h"
#include "logger.h"
#include "record_text.h"
#include "spool.h"
#include "zorv_calls.h"
#include "zorv_connection_codes.h"

namespace {

using zorv_api::CallDeadline;

LogModule log_module{"libzorv"};

// The bus's statuses come through as they are.
static_assert(int{ZORV_DONE} == KX_SUCCESS && int{ZORV_TIMED_OUT} == KX_TIMEOUT &&
              int{ZORV_AWAY} == KX_NOT_READY && int{ZORV_STOPPING} == KX_IS_PAUSED &&
              int{ZORV_REFUSED} == KX_IS_REJECT && int{ZORV_BROKEN} == KX_IO_FAILURE &&
              int{ZORV_BUSY} == KX_IS_BUSY && int{ZORV_INVALID} == KX_IS_INVALID);

constexpr const char* kStatusTexts[] = {
    "done",
    "the daemon did not answer in time",
    "the daemon does not run",
    "the daemon is stopping",
    "the daemon refused the call, or whoever listens in its place may not be asked",
    "the daemon's answer was lost or cannot be understood",
    "the daemon is overrun, or no descriptor is left",
    "the call has wrong arguments, or the daemon does not know it",
    "the daemon cannot read its login policy",
    "no memory",
    "it waits in the spool until the daemon is started again",
    "it waits in the spool until the daemon is started again, whose oldest record is lost for it",
};
static_assert(std::size(kStatusTexts) == ZORV_SPOOLED_FULL + 1);

static_assert(int{ZORV_PPTP_SERVER} == zorv::PPTP_SERVER_TYPE &&
              int{ZORV_L2TP_SERVER} == zorv::L2TP_SERVER_TYPE &&
              int{ZORV_OPENVPN_SERVER} == zorv::OVPN_SERVER_TYPE &&
              int{ZORV_FENLO_SERVER} == zorv::FENLO_SERVER_TYPE &&
              int{ZORV_WIREGUARD_SERVER} == zorv::WIREGUARD_SERVER_TYPE &&
              int{ZORV_PPTP_CLIENT} == zorv::PPTP_CLIENT_TYPE &&
              int{ZORV_L2TP_CLIENT} == zorv::L2TP_CLIENT_TYPE &&
              int{ZORV_OPENVPN_CLIENT} == zorv::OVPN_CLIENT_TYPE &&
              int{ZORV_FENLO_CLIENT} == zorv::FENLO_CLIENT_TYPE &&
              int{ZORV_WIREGUARD_CLIENT} == zorv::WIREGUARD_CLIENT_TYPE);

using zorv::kind_of;
using zorv::VpnKind;

// Null is the empty text.
std::string record_text(const char* text, size_t longest) {
  return text == nullptr
             ? ""
             : zorv::record_text({text, strnlen(text, zorv::bytes_looked_at(longest))}, longest);
}

// Its lines would go to standard error.
[[maybe_unused]] const bool bus_is_silent = (kx_set_log([](const char*) {}), true);

// What the caller knows of a structure that has grown or not grown yet; false without a size.
template <class Structure>
bool take(const Structure* given, Structure& ret_known) {
  if (given == nullptr || given->size < sizeof given->size) {
    return false;
  }
  ret_known = {};
  std::memcpy(&ret_known, given, std::min(given->size, sizeof ret_known));
  return true;
}

// One call of the interface: `body(deadline, spools)` within the caller's wishes, its status told.
template <class Body>
int perform(const LogSite& site, const zorv_call* given, const char* username, Body&& body) {
  int status = ZORV_INVALID;
  try {
    zorv_call call{};
    if (given != nullptr && !take(given, call)) {
      return ZORV_INVALID;
    }
    const CallDeadline deadline(call.deadline_ms != 0 ? call.deadline_ms
                                                      : ZORV_DEFAULT_DEADLINE_MS);
    status = body(deadline, (call.flags & ZORV_SPOOL) != 0);
    if ((call.flags & ZORV_LOG_LINES) != 0) {
      const std::string name = record_text(username, kTextSize - 1);
      if (status == ZORV_DONE) {
        ZORV_LOG_AT(site, debug, "%s: %s\n", name.c_str(), zorv_status_text(status));
      } else {
        ZORV_LOG_AT(site, error, "%s: %s\n", name.c_str(), zorv_status_text(status));
      }
    }
  } catch (const std::bad_alloc&) {
    return ZORV_NO_MEMORY;
  }
  return status;
}

template <size_t Size>
void put_text(char (&field)[Size], const char* text) {
  zorv::copy_text(field, record_text(text, Size - 1));
}

// The database keeps larger ones as inexact reals.
constexpr uint64_t kLargestKept = std::numeric_limits<int64_t>::max();

// What the records of both sides have in common.
template <class Record, class Given>
void fill(Record& record, const Given& given, int action) {
  record.vpn_type = given.vpn_type;
  record.action = action;
  put_text(record.username, given.username);
  put_text(record.vpn_ip, given.vpn_ip);
  record.time = given.time != 0 ? std::min(given.time, kLargestKept)
                                : static_cast<uint64_t>(std::time(nullptr));
  record.uptime = std::min(given.uptime, kLargestKept);
  record.tx_total = static_cast<int64_t>(std::min(given.tx_total, kLargestKept));
  record.rx_total = static_cast<int64_t>(std::min(given.rx_total, kLargestKept));
  record.tx_rate = given.tx_rate;
  record.rx_rate = given.rx_rate;
}

int insert(const zorv::TableSchema& table, const void* record, const CallDeadline& deadline,
           bool spools) {
  kx_io_owner io = zorv_api::new_buffer();
  if (io == nullptr) {
    return ZORV_NO_MEMORY;
  }
  // With less than a millisecond left only the spool is of use.
  const int left = deadline.milliseconds_left();
  const int status =
      spools && left == 0 ? KX_TIMEOUT : zorv_api::insert(table, record, std::move(io), left);
  size_t dropped = 0;
  if (!spools || !zorv::spool::is_undelivered(status) ||
      zorv::spool::keep(table, record, dropped) != 0) {
    return status;
  }
  return dropped == 0 ? ZORV_SPOOLED : ZORV_SPOOLED_FULL;
}

int record_server(const LogSite& site, const zorv_server_record* record, const zorv_call* call,
                  int action) {
  zorv_server_record given;
  if (!take(record, given) || kind_of(&VpnKind::server, given.vpn_type) == nullptr) {
    return ZORV_INVALID;
  }
  return perform(site, call, given.username, [&](const CallDeadline& deadline, bool spools) {
    db_conn_server_log row{};
    fill(row, given, action);
    put_text(row.source_ip, given.source_ip);
    put_text(row.device_info, given.device_info);
    put_text(row.outgoing, given.outgoing);
    return insert(zorv::kServerLog, &row, deadline, spools);
  });
}

int record_client(const LogSite& site, const zorv_client_record* record, const zorv_call* call,
                  int action) {
  zorv_client_record given;
  if (!take(record, given) || kind_of(&VpnKind::client, given.vpn_type) == nullptr) {
    return ZORV_INVALID;
  }
  return perform(site, call, given.username, [&](const CallDeadline& deadline, bool spools) {
    db_conn_client_log_data row{};
    fill(row, given, action);
    put_text(row.wan_ip, given.wan_ip);
    put_text(row.country_code, given.country_code);
    return insert(zorv::kClientLog, &row, deadline, spools);
  });
}

// A call about one user, who has a name.
template <class Ask>
int about_user(const LogSite& site, const char* username, const zorv_call* call, Ask&& ask) {
  if (username == nullptr || *username == '\0') {
    return ZORV_INVALID;
  }
  return perform(site, call, username, [&](const CallDeadline& deadline, bool /*spools*/) -> int {
    const std::string name = record_text(username, kTextSize - 1);
    kx_io_owner io = zorv_api::new_buffer();
    return io == nullptr ? ZORV_NO_MEMORY : ask(name, std::move(io), deadline);
  });
}

}  // namespace

const char* zorv_status_text(int status) {
  const bool known = status >= 0 && static_cast<size_t>(status) < std::size(kStatusTexts);
  return known ? kStatusTexts[status] : "unknown status";
}

int zorv_server_type(const char* word) {
  for (const VpnKind& kind : zorv::kVpnKinds) {
    if (word != nullptr && strcasecmp(kind.name, word) == 0) {
      return kind.server;
    }
  }
  return 0;
}

int zorv_client_type(int server_type) {
  const VpnKind* kind = kind_of(&VpnKind::server, server_type);
  return kind != nullptr ? int{kind->client} : 0;
}

int zorv_record_login(const zorv_server_record* record, const zorv_call* call) {
  return record_server(ZORV_HERE, record, call, zorv::kLoginOk);
}

int zorv_record_login_failure(const zorv_server_record* record, const zorv_call* call) {
  return record_server(ZORV_HERE, record, call, zorv::kLoginFail);
}

int zorv_record_logout(const zorv_server_record* record, const zorv_call* call) {
  return record_server(ZORV_HERE, record, call, zorv::kLogout);
}

int zorv_record_client_login(const zorv_client_record* record, const zorv_call* call) {
  return record_client(ZORV_HERE, record, call, zorv::kLoginOk);
}

int zorv_record_client_logout(const zorv_client_record* record, const zorv_call* call) {
  return record_client(ZORV_HERE, record, call, zorv::kLogout);
}

int zorv_check_block(const char* username, zorv_block* ret_block, const zorv_call* call) {
  if (ret_block != nullptr && ret_block->size < sizeof ret_block->size) {
    return ZORV_UNKNOWN;
  }
  int answer = ZORV_UNKNOWN;
  zorv_block block{};
  block.status =
      about_user(ZORV_HERE, username, call,
                 [&](const std::string& name, kx_io_owner io, const CallDeadline& deadline) -> int {
                   auto told = zorv_api::BlockAnswer::unknown;
                   const int status = zorv_api::check_block(name, told, std::move(io),
                                                            deadline.milliseconds_left());
                   if (status != KX_SUCCESS) {
                     return status;
                   }
                   if (told == zorv_api::BlockAnswer::unknown) {
                     return ZORV_NO_POLICY;
                   }
                   answer = ZORV_NOT_BLOCKED;
                   if (told == zorv_api::BlockAnswer::blocked) {
                     answer = ZORV_BLOCKED;
                     block.seconds_left = ZORV_SECONDS_UNKNOWN;
                     zorv_api::ask_seconds_left(name, deadline, block.seconds_left);
                   }
                   return ZORV_DONE;
                 });
  if (block.status != ZORV_DONE) {
    answer = ZORV_UNKNOWN;
    block.seconds_left = 0;
  }
  if (ret_block != nullptr) {
    block.size = ret_block->size;
    std::memcpy(ret_block, &block, std::min(block.size, sizeof block));
  }
  return answer;
}

int zorv_count_failure(const char* username, const zorv_call* call) {
  return about_user(ZORV_HERE, username, call,
                    [](const std::string& name, kx_io_owner io, const CallDeadline& deadline) {
                      return zorv_api::count_failure(name, std::move(io),
                                                     deadline.milliseconds_left());
                    });
}

int zorv_forget_failures(const char* username, const zorv_call* call) {
  return about_user(ZORV_HERE, username, call,
                    [](const std::string& name, kx_io_owner io, const CallDeadline& deadline) {
                      return zorv_api::forget_failures(name, std::move(io),
                                                       deadline.milliseconds_left());
                    });
}
