// Measuring: what is ours, its floor and its peers take turns, so that whatever else the machine
// does meets all of them alike.
//
// A figure is made of rounds. In a round every contender runs a batch of operations, each timed by
// itself; the round counts the batch's median, and the figure is the median of its rounds. The
// contenders change places from round to round, and each begins its turn with one operation that
// does not count.
//
// A ratio is the median of the rounds' ratios: what slows the machine for a while slows both sides
// of a round. So it is not quite the ratio of the two medians that stand beside it.
// Single-threaded.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace bench {

// Throws where something did not go as it must.
void require(bool held, std::string_view what);

// The value below which `part` of the values lie.
double quantile(std::vector<double> values, double part);

// Runs `work` and tells its seconds.
template <class Work>
double seconds_of(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

struct Contender {
  // `operation` tells the seconds that count, or it counts as a whole.
  template <class Operation>
  Contender(std::string name, Operation one) : what(std::move(name)) {
    if constexpr (std::is_same_v<std::invoke_result_t<Operation&>, double>) {
      operation = one;
    } else {
      operation = [one] { return seconds_of(one); };
    }
  }

  std::string what;
  std::function<double()> operation;
};

struct Result {
  std::string what;
  std::vector<double> rounds;
};

enum class Unit { seconds, bytes, per_second };

// 0 for no such limit.
struct Limits {
  double of_floor = 0;   // at most this many times the floor
  double of_peer = 0;    // the first peer takes at least this many times as much
  double of_itself = 0;  // at most this much
};

struct Figure {
  std::string family;
  std::string work;
  Unit unit;
  Limits limits;
  std::vector<Result> results;
};

// The figures of a run, and how much effort it may take. Of contenders and results the first is
// "ours"; a second one called "floor" is the floor; the others are peers.
class Report {
 public:
  explicit Report(bool quick) : quick_(quick) {}

  bool quick() const { return quick_; }
  void start_family(const std::string& name) { family_ = name; }

  void compare(const std::string& work, int rounds, int batch, Limits limits,
               const std::vector<Contender>& contenders);
  // A figure that was had otherwise.
  void add(const std::string& work, Unit unit, Limits limits, std::vector<Result> results);
  // Something that could not be measured here, and why.
  void miss(const std::string& what);

  std::string table() const;
  std::string json() const;

 private:
  bool quick_;
  std::string family_;
  std::vector<Figure> figures_;
  std::vector<std::string> missed_;
};

// The families of measures. Each starts what it needs in the root of the process, and leaves
// nothing running.
void measure_bus(Report& report);
void measure_bus_reply(Report& report);
void measure_insert(Report& report);
void measure_page(Report& report);
void measure_all_rows(Report& report);
void measure_block_check(Report& report);
void measure_log(Report& report);
void measure_notification(Report& report);
void measure_json(Report& report);
void measure_process(Report& report);
void measure_inserts(Report& report);
void measure_clients(Report& report);

}  // namespace bench
