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
#include <vector>

namespace bench {

enum class Unit { seconds, bytes, per_second };

// part: a piece of the floor shown for what it is worth, in the column of the peers.
enum class Role { ours, floor, peer, part };

struct Contender {
  Role role;
  std::string what;
  std::function<double()> operation;  // one operation; the seconds that count
};

struct Result {
  Role role;
  std::string what;
  std::vector<double> rounds;
};

struct Limits {
  double of_floor = 0;   // at most this many times the floor; 0 for no such limit
  double of_peer = 0;    // the first peer takes at least this many times as much
  double of_itself = 0;  // at most this much
};

struct Figure {
  std::string family;
  std::string work;
  Unit unit = Unit::seconds;
  Limits limits;
  std::vector<Result> results;  // ours is the first
};

struct Effort {
  int rounds;
  int batch;
};

// The figures of a run, and how much effort it may take.
class Report {
 public:
  explicit Report(bool quick) : quick_(quick) {}

  bool quick() const { return quick_; }
  void start_family(const std::string& name) { family_ = name; }

  void compare(const std::string& work, Effort effort, Limits limits,
               std::vector<Contender> contenders);
  // A figure that was had otherwise.
  void add(const std::string& work, Unit unit, Limits limits, std::vector<Result> results);
  // Something that could not be measured here, and why.
  void miss(const std::string& what);

  std::string table() const;
  std::string json() const;

 private:
  void announce(const Figure& figure) const;

  bool quick_;
  std::string family_;
  std::vector<Figure> figures_;
  std::vector<std::string> missed_;
};

// The value below which `part` of the values lie; 0.5 gives the median.
double quantile(std::vector<double> values, double part);
// The value below which `part` of the values lie; 0.5 gives the median.
double quantile(std::vector<double> values, double part);
double median(std::vector<double> values);

// Runs `work` and tells its seconds.
template <class Work>
double seconds_of(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

template <class Work>
std::function<double()> timed(Work work) {
  return [work]() mutable { return seconds_of(work); };
}

}  // namespace bench
