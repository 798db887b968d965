#include "shipper.h"

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <optional>
#include <thread>
#include <vector>

#include "back_off.h"
#include "complaint.h"
#include "digest.h"
#include "rooted.h"
#include "shipment.h"

namespace ship {
namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

// Where a look is this rare, no connection is kept from one to the next.
constexpr unsigned kRareInterval = 60;
constexpr seconds kSayAlive{300};
constexpr seconds kProgress{60};
constexpr seconds kRepeatComplaint{3600};

std::string daemon_complaint(int status) {
  switch (status) {
    case KX_NOT_READY:
      return "the daemon is not running";
    case KX_IS_REJECT:
      return "the daemon failed, as its log says, or does not serve this user";
    case kTableNotRead:
      return "the daemon could not read its table, its log says why";
    default:
      return fmt::format("the daemon did not answer (status {} of the bus)", status);
  }
}

struct LogState {
  const ShippedLog& log;
  LogReader reader;
  Place place;
  unsigned long long shipped = 0;
  record_uint64 behind = 0;
  bool told_doubt = false;
};

class Shipper {
 public:
  explicit Shipper(const ShipOptions& options)
      : options_(options),
        take_over_(options.take_over),
        shipment_(options.to, options.name, machine_origin()) {
    for (const ShippedLog& log : kLogs) {
      logs_.push_back({log, LogReader(*log.table, options.page), {}});
    }
  }

  int run() {
    while (true) {
      const int status = ship_what_is_new();
      tell_progress(!options_.follow);
      if (!options_.follow || status == kNameTaken) {
        return status;
      }
      if (status != kDone) {
        shipment_.close();
        std::this_thread::sleep_for(back_off_.next());
        continue;
      }
      if (options_.interval >= kRareInterval) {
        shipment_.close();
      }
      std::this_thread::sleep_for(back_off_.part_of(seconds(options_.interval), 0.9, 1.1));
    }
  }

 private:
  // One page of each log in turn. While the server works on one, the next is read.
  int ship_what_is_new() {
    if (const int status = open(); status != kDone) {
      return status;
    }
    bool is_new = true;
    while (is_new) {
      is_new = false;
      for (LogState& state : logs_) {
        NewRows rows;
        const int read = state.reader.read(state.place, &rows);
        const bool is_page = read == KX_SUCCESS && !rows.empty();
        if ((is_page || read != KX_SUCCESS) && !finish_page()) {
          return server_failed();
        }
        if (read != KX_SUCCESS) {
          complain(daemon_complaint(read));
          return kUnreachable;
        }
        tell_doubt(&state, rows.in_doubt);
        if (is_page) {
          is_new = true;
          if (!shipment_.send(state.log, rows, &state.place)) {
            return server_failed();
          }
          under_way_ = {&state, rows.page.count - rows.first, rows.lost,
                        rows.from.last_id == 0 ? rows.from.generation : 0};
          state.behind = rows.behind;
        }
      }
    }
    if (!finish_page()) {
      return server_failed();
    }
    if (!say_alive()) {
      return server_failed();
    }
    go_on();
    return kDone;
  }

  int open() {
    if (shipment_.is_open()) {
      return kDone;
    }
    under_way_ = {};
    std::array<Place, std::size(kLogs)> places;
    switch (shipment_.open(take_over_, &places)) {
      case Opened::done:
        break;
      case Opened::other_machine:
        tell("another machine ships as {}; if this one takes its place, say --take-over once",
             options_.name);
        return kNameTaken;
      case Opened::failed:
      case Opened::other_schema:
        return server_failed();
    }
    for (size_t index = 0; index < logs_.size(); ++index) {
      logs_[index].place = std::move(places[index]);
    }
    take_over_ = false;
    return kDone;
  }

  // The page that the server works on, if there is one.
  bool finish_page() {
    if (under_way_.state == nullptr) {
      return true;
    }
    if (!shipment_.finish()) {
      return false;
    }
    go_on();
    LogState& state = *under_way_.state;
    if (under_way_.generation > 1) {
      tell("{}: the database was made anew, its rows are generation {}", state.log.name,
           under_way_.generation);
    }
    if (under_way_.lost != 0) {
      tell("{}: {} rows were gone before they could be shipped", state.log.name, under_way_.lost);
    }
    state.shipped += under_way_.rows;
    last_shipped_ = steady_clock::now();
    under_way_ = {};
    tell_progress(false);
    return true;
  }

  bool say_alive() {
    if (steady_clock::now() - last_shipped_ < kSayAlive) {
      return true;
    }
    last_shipped_ = steady_clock::now();
    return shipment_.say_alive();
  }

  int server_failed() {
    under_way_ = {};
    complain(shipment_.error());
    return kFailed;
  }

  void go_on() {
    back_off_.reset();
    if (!complaint_.empty()) {
      tell("going on");
      complaint_.clear();
    }
  }

  // Says the same again only once an hour.
  void complain(const std::string& complaint) {
    const auto now = steady_clock::now();
    if (complaint != complaint_ || now - complained_ > kRepeatComplaint) {
      tell("{}{}", complaint, options_.follow ? "; trying again" : "");
      complaint_ = complaint;
      complained_ = now;
    }
  }

  void tell_doubt(LogState* state, bool in_doubt) {
    if (in_doubt && !state->told_doubt) {
      tell(
          "{}: row {}, the last one shipped, and all behind it are gone; the next row shows "
          "whether "
          "the database was made anew",
          state->log.name, state->place.last_id);
    }
    state->told_doubt = in_doubt;
  }

  // For somebody who watches: once a minute, and at the end.
  void tell_progress(bool at_end) {
    const auto now = steady_clock::now();
    if (isatty(STDERR_FILENO) == 0 || (!at_end && now - progress_ < kProgress)) {
      return;
    }
    progress_ = now;
    for (const LogState& state : logs_) {
      tell("{}: {} rows shipped, behind by {}", state.log.name, state.shipped, state.behind);
    }
  }

  struct UnderWay {
    LogState* state = nullptr;
    record_uint64 rows = 0;
    record_uint64 lost = 0;
    long long generation = 0;  // that begins with this page
  };

  const ShipOptions& options_;
  bool take_over_;
  Shipment shipment_;
  std::vector<LogState> logs_;
  UnderWay under_way_;
  BackOff back_off_;
  std::string complaint_;
  steady_clock::time_point complained_;
  steady_clock::time_point last_shipped_;
  steady_clock::time_point progress_ = steady_clock::now();
};

}  // namespace

std::string machine_origin() {
  std::string id;
  std::ifstream(os::rooted("/etc/machine-id")) >> id;
  return id.empty() ? "" : Digest().add("zorv-ship").add(id).text();
}

int ship_logs(const ShipOptions& options) {
  return Shipper(options).run();
}

}  // namespace ship
