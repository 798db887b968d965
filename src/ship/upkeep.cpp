#include "upkeep.h"

#include "complaint.h"
#include "log_reader.h"
#include "server.h"
#include "shipper.h"

namespace ship {
namespace {

int failed(const Server& server) {
  tell("{}", server.error());
  return kFailed;
}

// How many ids the daemon of this machine is ahead, where the row of the place is its own.
std::string ids_behind(std::string_view log_name, std::string_view origin,
                       std::string_view last_id) {
  for (const ShippedLog& log : kLogs) {
    record_int64 newest = 0;
    if (log_name == log.name && origin == machine_origin() &&
        LogReader(*log.table, 1).newest(&newest) == KX_SUCCESS) {
      return fmt::to_string(newest - std::stoll(std::string(last_id)));
    }
  }
  return "-";
}

}  // namespace

int print_status(const std::string& to, const std::string& name) {
  Server server;
  if (!server.connect(to)) {
    return failed(server);
  }
  const Result rows = server.run(fmt::format(
      "SELECT nas, log, generation, last_id, shipped, lost, coalesce(last_time::text, '-'), "
      "date_trunc('second', seen), origin FROM zorv.place WHERE {0} = '' OR nas = {0} ORDER BY "
      "nas, log",
      server.literal(name)));
  if (rows == nullptr) {
    return failed(server);
  }
  constexpr const char* kLine =
      "{:<20}  {:<10}  {:>10}  {:>10}  {:>10}  {:>8}  {:>8}  {:<22}  {}\n";
  std::string text = fmt::format(fmt::runtime(kLine), "NAS", "LOG", "GENERATION", "LAST ID",
                                 "SHIPPED", "LOST", "BEHIND", "LAST ROW", "SEEN");
  for (int row = 0; row < PQntuples(rows.get()); ++row) {
    // Other machines have named themselves.
    const auto value = [&rows, row](int column) { return one_line(value_of(rows, row, column)); };
    text += fmt::format(fmt::runtime(kLine), value(0), value(1), value(2), value(3), value(4),
                        value(5), ids_behind(value(1), value(8), value(3)), value(6), value(7));
  }
  const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
  return written && std::fflush(stdout) == 0 ? kDone : kFailed;
}

int prune(const std::string& to, const std::string& keep) {
  Server server;
  if (!server.connect(to)) {
    return failed(server);
  }
  const Result made = server.run("SELECT zorv.make_months()");
  if (made == nullptr) {
    return failed(server);
  }
  const Result dropped =
      server.run(fmt::format("SELECT zorv.prune({})", server.literal(interval_of(keep))));
  if (dropped == nullptr) {
    return failed(server);
  }
  for (int row = 0; row < PQntuples(made.get()); ++row) {
    fmt::print("made {}\n", one_line(value_of(made, row, 0)));
  }
  for (int row = 0; row < PQntuples(dropped.get()); ++row) {
    fmt::print("dropped {}\n", one_line(value_of(dropped, row, 0)));
  }
  return std::fflush(stdout) == 0 ? kDone : kFailed;
}

std::string interval_of(const std::string& keep) {
  const size_t digits = keep.find_first_not_of("0123456789");
  if (digits == 0 || digits > 5 || digits + 1 != keep.size()) {
    return "";
  }
  switch (keep.back()) {
    case 'd':
      return keep.substr(0, digits) + " days";
    case 'w':
      return keep.substr(0, digits) + " weeks";
    case 'm':
      return keep.substr(0, digits) + " months";
    case 'y':
      return keep.substr(0, digits) + " years";
    default:
      return "";
  }
}

}  // namespace ship
