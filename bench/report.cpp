// The figures: had, and shown as a Markdown table and, result by result, as JSON.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "measure.h"

namespace bench {
namespace {

constexpr const char* kUnitNames[] = {"s", "B", "1/s"};

struct Scale {
  Unit unit;
  double one;
  const char* name;
};

// The largest first; the last takes whatever is smaller, too.
constexpr Scale kScales[] = {
    {Unit::seconds, 1, "s"},     {Unit::seconds, 1e-3, "ms"}, {Unit::seconds, 1e-6, "µs"},
    {Unit::bytes, 1e6, "MB"},    {Unit::bytes, 1e3, "kB"},    {Unit::bytes, 1, "B"},
    {Unit::per_second, 1, "/s"},
};

std::string value_text(double value, Unit unit) {
  const Scale* scale = nullptr;
  for (const Scale& candidate : kScales) {
    if (candidate.unit == unit && (scale == nullptr || value < scale->one)) {
      scale = &candidate;
    }
  }
  const double shown = value / scale->one;
  return fmt::format("{:.{}f} {}", shown, shown >= 99.95 ? 0 : shown >= 9.995 ? 1 : 2, scale->name);
}

double median(const std::vector<double>& values) {
  return quantile(values, 0.5);
}

double run_batch(const Contender& contender, int batch) {
  contender.operation();
  std::vector<double> seconds;
  seconds.reserve(static_cast<size_t>(batch));
  for (int i = 0; i < batch; ++i) {
    seconds.push_back(contender.operation());
  }
  return median(seconds);
}

// How many times as much it is as ours, from round to round.
double times_ours(const Figure& figure, const Result& result) {
  std::vector<double> ratios;
  for (size_t i = 0; i < result.rounds.size(); ++i) {
    ratios.push_back(result.rounds[i] / figure.results[0].rounds[i]);
  }
  return median(ratios);
}

bool has_floor(const Figure& figure) {
  return figure.results.size() > 1 && figure.results[1].what == "floor";
}

// How many times as much ours is as the floor; 0 without one.
double of_floor(const Figure& figure) {
  return has_floor(figure) ? 1 / times_ours(figure, figure.results[1]) : 0;
}

std::string target_text(const Figure& figure) {
  constexpr double kUnseen = 0.005;  // ratios count as they are shown: with two decimals
  const Limits& limits = figure.limits;
  std::string text;
  bool met = true;
  const auto add = [&](const std::string& limit, bool holds) {
    text += (text.empty() ? "" : ", ") + limit;
    met = met && holds;
  };
  if (limits.of_floor > 0) {
    add(fmt::format("≤ {:.2f} × floor", limits.of_floor),
        of_floor(figure) < limits.of_floor + kUnseen);
  }
  if (const size_t peer = has_floor(figure) ? 2 : 1;
      limits.of_peer > 0 && peer < figure.results.size()) {
    add(fmt::format("peer ≥ {:.2f} ×", limits.of_peer),
        times_ours(figure, figure.results[peer]) >= limits.of_peer - kUnseen);
  }
  if (limits.of_itself > 0) {
    add("≤ " + value_text(limits.of_itself, figure.unit),
        median(figure.results[0].rounds) <= limits.of_itself);
  }
  return text.empty() ? text : text + (met ? ": met" : ": **missed**");
}

std::string row_of(const Figure& figure) {
  std::string ours_and_floor;
  std::string peers;
  for (const Result& result : figure.results) {
    const std::string value = value_text(median(result.rounds), figure.unit);
    if (result.what == "ours" || result.what == "floor") {
      ours_and_floor += " | " + value;
    } else {
      peers += fmt::format("{}{} {} ({:.2f} ×)", peers.empty() ? "" : "; ", result.what, value,
                           times_ours(figure, result));
    }
  }
  ours_and_floor +=
      has_floor(figure) ? fmt::format(" | {:.2f}", of_floor(figure)) : std::string(" |  | ");
  return fmt::format("| {}{} | {} | {} |\n", figure.work, ours_and_floor, target_text(figure),
                     peers);
}

}  // namespace

void require(bool held, std::string_view what) {
  if (!held) {
    throw std::runtime_error(std::string(what));
  }
}

double quantile(std::vector<double> values, double part) {
  std::sort(values.begin(), values.end());
  const double place = part * static_cast<double>(values.size() - 1);
  const auto below = static_cast<size_t>(place);
  const size_t above = std::min(below + 1, values.size() - 1);
  return values[below] + (values[above] - values[below]) * (place - static_cast<double>(below));
}

void Report::compare(const std::string& work, int rounds, int batch, Limits limits,
                     const std::vector<Contender>& contenders) {
  if (quick_) {
    rounds = std::min(rounds, 5);
    batch = (batch + 3) / 4;
  }
  std::vector<Result> results;
  results.reserve(contenders.size());
  for (const Contender& contender : contenders) {
    results.push_back({contender.what, {}});
  }
  for (int round = 0; round < rounds; ++round) {
    for (size_t turn = 0; turn < contenders.size(); ++turn) {
      const size_t which = (turn + static_cast<size_t>(round)) % contenders.size();
      results[which].rounds.push_back(run_batch(contenders[which], batch));
    }
  }
  add(work, Unit::seconds, limits, std::move(results));
}

void Report::add(const std::string& work, Unit unit, Limits limits, std::vector<Result> results) {
  figures_.push_back({family_, work, unit, limits, std::move(results)});
  fmt::print(stderr, "{}", row_of(figures_.back()));
}

void Report::miss(const std::string& what) {
  missed_.push_back(what);
  fmt::print(stderr, "bench: {}\n", what);
}

std::string Report::table() const {
  std::string text;
  std::string family;
  for (const Figure& figure : figures_) {
    if (figure.family != family) {
      family = figure.family;
      text += "\n### " + family +
              "\n\n"
              "| work | ours | floor | ours / floor | target | peers (× ours) |\n"
              "|---|---|---|---|---|---|\n";
    }
    text += row_of(figure);
  }
  for (const std::string& what : missed_) {
    text += "\nNot run: " + what + "\n";
  }
  return text;
}

std::string Report::json() const {
  std::string text;
  for (const Figure& figure : figures_) {
    for (const Result& result : figure.results) {
      text += fmt::format(
          R"({}{{"family": "{}", "work": "{}", "what": "{}", "unit": "{}", "median": {}, )"
          R"("lower_quartile": {}, "upper_quartile": {}, "times_ours": {}}})",
          text.empty() ? "[" : ",\n ", figure.family, figure.work, result.what,
          kUnitNames[static_cast<int>(figure.unit)], median(result.rounds),
          quantile(result.rounds, 0.25), quantile(result.rounds, 0.75), times_ours(figure, result));
    }
  }
  return text + "]\n";
}

}  // namespace bench
