// The zone in which calendar times are read and shown.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace zorvctl {

enum class Zone { local, utc };

// Between the calendar and seconds since the epoch. One of a named zone is the whole process's
// while it lives: one at a time, and no other thread asks for local times meanwhile.
class Clock {
 public:
  explicit Clock(Zone zone);
  ~Clock();
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;

  // Takes the zone of that name: UTC, Z, +02:00, an abbreviation of the local zone, or one of the
  // system's, as Europe/Berlin. False where there is none of that name.
  bool take(std::string_view name);

  long long east_of_utc(time_t seconds) const;
  std::tm calendar_of(time_t seconds) const;
  // The first such moment; where clocks are put forward over it, as long after that as it says.
  // Days beyond the month's are of the next.
  long long moment_of(std::tm calendar) const;

 private:
  std::optional<long long> fixed_;         // seconds east of UTC; none: TZ decides
  std::optional<std::string> outer_zone_;  // TZ as it was
  bool has_named_zone_ = false;
};

}  // namespace zorvctl
