#include "measure.h"

#include <algorithm>
#include <cstdio>

namespace bench {
namespace {

double run_batch(const Contender& contender, int batch) {
  contender.operation();
  std::vector<double> seconds;
  for (int i = 0; i < batch; ++i) {
    seconds.push_back(contender.operation());
  }
  return median(std::move(seconds));
}

}  // namespace

double quantile(std::vector<double> values, double part) {
  std::sort(values.begin(), values.end());
  const double place = part * static_cast<double>(values.size() - 1);
  const auto below = static_cast<size_t>(place);
  const size_t above = std::min(below + 1, values.size() - 1);
  return values[below] + (values[above] - values[below]) * (place - static_cast<double>(below));
}

double median(std::vector<double> values) {
  return quantile(std::move(values), 0.5);
}

void Report::compare(const std::string& work, Effort effort, Limits limits,
                     std::vector<Contender> contenders) {
  if (quick_) {
    effort.rounds = std::min(effort.rounds, 5);
    effort.batch = (effort.batch + 3) / 4;
  }
  const size_t count = contenders.size();
  std::vector<std::vector<double>> rounds(count);
  for (int round = 0; round < effort.rounds; ++round) {
    for (size_t turn = 0; turn < count; ++turn) {
      const size_t which = (turn + static_cast<size_t>(round)) % count;
      rounds[which].push_back(run_batch(contenders[which], effort.batch));
    }
  }
  std::vector<Result> results;
  for (size_t i = 0; i < count; ++i) {
    results.push_back({contenders[i].role, contenders[i].what, rounds[i]});
  }
  add(work, Unit::seconds, limits, std::move(results));
}

void Report::add(const std::string& work, Unit unit, Limits limits, std::vector<Result> results) {
  figures_.push_back({family_, work, unit, limits, std::move(results)});
  announce(figures_.back());
}

void Report::miss(const std::string& what) {
  missed_.push_back(what);
  fprintf(stderr, "bench: %s\n", what.c_str());
}

}  // namespace bench
