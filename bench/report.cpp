// The figures as a Markdown table and as JSON.
#include <jansson.h>

#include <cmath>
#include <cstdio>
#include <memory>

#include "json_ref.h"
#include "measure.h"

namespace bench {
namespace {

struct Scale {
  double from;
  double divisor;
  const char* name;
};

constexpr Scale kSeconds[] = {{1, 1, "s"}, {1e-3, 1e-3, "ms"}, {0, 1e-6, "µs"}};
constexpr Scale kBytes[] = {{1e6, 1e6, "MB"}, {1e3, 1e3, "kB"}, {0, 1, "B"}};
constexpr Scale kRates[] = {{0, 1, "/s"}};

template <size_t Count>
std::string scaled(double value, const Scale (&scales)[Count]) {
  const Scale* scale = scales;
  while (value < scale->from) {
    ++scale;
  }
  const double shown = value / scale->divisor;
  const int decimals = shown >= 99.95 ? 0 : shown >= 9.995 ? 1 : 2;
  char text[64];
  snprintf(text, sizeof text, "%.*f %s", decimals, shown, scale->name);
  return text;
}

std::string value_text(double value, Unit unit) {
  switch (unit) {
    case Unit::seconds:
      return scaled(value, kSeconds);
    case Unit::bytes:
      return scaled(value, kBytes);
    case Unit::per_second:
      return scaled(value, kRates);
  }
  return "";
}

std::string ratio_text(double value) {
  char text[64];
  snprintf(text, sizeof text, "%.2f", value);
  return text;
}

const Result* first_of(const Figure& figure, Role role) {
  for (const Result& result : figure.results) {
    if (result.role == role) {
      return &result;
    }
  }
  return nullptr;
}

// How many times as much `result` is as `other`, from round to round.
double ratio(const Result& result, const Result& other) {
  std::vector<double> ratios;
  for (size_t i = 0; i < result.rounds.size(); ++i) {
    ratios.push_back(result.rounds[i] / other.rounds[i]);
  }
  return median(std::move(ratios));
}

double of_floor(const Figure& figure) {
  const Result* floor = first_of(figure, Role::floor);
  return floor != nullptr ? ratio(figure.results[0], *floor) : 0;
}

double of_peer(const Figure& figure) {
  const Result* peer = first_of(figure, Role::peer);
  return peer != nullptr ? ratio(*peer, figure.results[0]) : 0;
}

// Ratios count as they are shown: with two decimals.
double shown(double value) {
  return std::round(value * 100) / 100;
}

bool has_limit(const Limits& limits) {
  return limits.of_floor > 0 || limits.of_peer > 0 || limits.of_itself > 0;
}

bool within(const Figure& figure) {
  const Limits& limits = figure.limits;
  const bool no_peer = first_of(figure, Role::peer) == nullptr;
  return (limits.of_floor == 0 || shown(of_floor(figure)) <= limits.of_floor) &&
         (limits.of_peer == 0 || no_peer || shown(of_peer(figure)) >= limits.of_peer) &&
         (limits.of_itself == 0 || median(figure.results[0].rounds) <= limits.of_itself);
}

std::string limit_text(const Figure& figure) {
  std::string text;
  const auto add = [&text](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
  if (figure.limits.of_floor > 0) {
    add("≤ " + ratio_text(figure.limits.of_floor) + " × floor");
  }
  if (figure.limits.of_peer > 0 && first_of(figure, Role::peer) != nullptr) {
    add("peer ≥ " + ratio_text(figure.limits.of_peer) + " ×");
  }
  if (figure.limits.of_itself > 0) {
    add("≤ " + value_text(figure.limits.of_itself, figure.unit));
  }
  if (!text.empty()) {
    text += within(figure) ? ": met" : ": **missed**";
  }
  return text;
}

std::string row_of(const Figure& figure) {
  const Result& ours = figure.results[0];
  const Result* floor = first_of(figure, Role::floor);
  std::string others;
  for (const Result& result : figure.results) {
    if (result.role == Role::peer || result.role == Role::part) {
      others += (others.empty() ? "" : "; ") + result.what + " " +
                value_text(median(result.rounds), figure.unit) + " (" +
                ratio_text(ratio(result, ours)) + " ×)";
    }
  }
  return "| " + figure.work + " | " + value_text(median(ours.rounds), figure.unit) + " | " +
         (floor != nullptr ? value_text(median(floor->rounds), figure.unit) : "") + " | " +
         (floor != nullptr ? ratio_text(of_floor(figure)) : "") + " | " + limit_text(figure) +
         " | " + others + " |\n";
}

const char* role_name(Role role) {
  switch (role) {
    case Role::ours:
      return "ours";
    case Role::floor:
      return "floor";
    case Role::peer:
      return "peer";
    case Role::part:
      return "part";
  }
  return "";
}

const char* unit_name(Unit unit) {
  return unit == Unit::seconds ? "s" : unit == Unit::bytes ? "B" : "1/s";
}

json_t* json_of(const Figure& figure) {
  json_t* results = json_array();
  for (const Result& result : figure.results) {
    json_array_append_new(
        results,
        json_pack("{s:s, s:s, s:f, s:f, s:f}", "role", role_name(result.role), "what",
                  result.what.c_str(), "median", median(result.rounds), "lower_quartile",
                  quantile(result.rounds, 0.25), "upper_quartile", quantile(result.rounds, 0.75)));
  }
  json_t* object =
      json_pack("{s:s, s:s, s:s, s:o}", "family", figure.family.c_str(), "work",
                figure.work.c_str(), "unit", unit_name(figure.unit), "results", results);
  if (of_floor(figure) > 0) {
    json_object_set_new(object, "of_floor", json_real(of_floor(figure)));
  }
  if (of_peer(figure) > 0) {
    json_object_set_new(object, "peer_of_ours", json_real(of_peer(figure)));
  }
  if (has_limit(figure.limits)) {
    json_object_set_new(object, "target_met", json_boolean(within(figure)));
  }
  return object;
}

}  // namespace

void Report::announce(const Figure& figure) const {
  fprintf(stderr, "%s", row_of(figure).c_str());
}

std::string Report::table() const {
  std::string text;
  std::string family;
  for (const Figure& figure : figures_) {
    if (figure.family != family) {
      family = figure.family;
      text += "\n### " + family +
              "\n\n| work | ours | floor | ours / floor | target | peers (× ours) |\n"
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
  const JsonRef root(json_pack("{s:[], s:[]}", "figures", "not_run"));
  for (const Figure& figure : figures_) {
    json_array_append_new(json_object_get(root.get(), "figures"), json_of(figure));
  }
  for (const std::string& what : missed_) {
    json_array_append_new(json_object_get(root.get(), "not_run"), json_string(what.c_str()));
  }
  return std::string(text_or_empty(dump_json(root.get(), JSON_INDENT(2)))) + "\n";
}

}  // namespace bench
