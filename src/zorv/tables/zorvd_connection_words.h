// Codes of a connection record as the words of its notification.
#pragma once

#include <optional>
#include <span>

#include "logger.h"
#include "zorv_connection_codes.h"

namespace store {

// What a notification shows where a value does not apply.
inline constexpr const char* kBlank = " ";

struct ConnectionWords {
  const char* protocol;
  const char* status;
};

// The words of a record's two codes. Nothing, and a line that names the wrong one, when there are
// none: such a record is kept and nobody is told of it. So are WireGuard's.
inline std::optional<ConnectionWords> connection_words(const LogSite& site,
                                                       zorv::TYPE zorv::VpnKind::*side,
                                                       int vpn_type,
                                                       std::span<const zorv::CodeWord> statuses,
                                                       int action) {
  const zorv::VpnKind* kind = zorv::kind_of(side, vpn_type);
  const ConnectionWords words{kind != nullptr && kind->is_notified ? kind->word : nullptr,
                              zorv::word_of(statuses, action)};
  if (words.protocol == nullptr) {
    ZORV_LOG_AT(site, error, "%s: db_con->vpn_type is incorrect: %d, ", site.function, vpn_type);
    return std::nullopt;
  }
  if (words.status == nullptr) {
    ZORV_LOG_AT(site, error, "%s: db_con->action is incorrect: %d, ", site.function, action);
    return std::nullopt;
  }
  return words;
}

}  // namespace store
