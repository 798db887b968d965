// Names in a folder of the spool: TIME-PID-COUNT, of fixed width, and with a dot in front while the
// file is not whole.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace zorv::spool {

inline constexpr char kUnfinished = '.';
inline constexpr size_t kTimeSize = 19;
inline constexpr size_t kNameSize = kTimeSize + 2 * 11;

bool is_record_name(std::string_view name);

// The names in an open folder, up to the first for which `take` is false. Returns 0 or errno.
int for_each_name(int folder, const std::function<bool(const std::string& name)>& take);

}  // namespace zorv::spool
