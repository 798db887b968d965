// What the daemon tells others: one log line of 110 characters; a notification, from a process of 5
// and 500 MB, with a small and a large descriptor limit; and the text of a JSON tree of 10,000
// nodes: 1,000 settings of nine values each, below one array.
//
// The process of a notification is a copy of this one that touches as much memory. It inherits the
// tools it starts and waits for each to end before the next, so that they do not compete with it;
// over the raw bus it is told which way to start one, and answers with the seconds.
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <cstring>

#include "floor.h"
#include "harness/daemon.h"
#include "json.h"
#include "json_ref.h"
#include "logger.h"
#include "measure.h"
#include "processes.h"
#include "raw_bus.h"

namespace bench {
namespace {

constexpr int kSettings = 1000;

LogModule log_module{"zorvd_db_handler"};

void write_line() {
  ZORV_LOG(debug, "sqlite3_exec SELECT Count(*) FROM %s;", "conn_server_log");
}

void notify_ours() {
  const auto& value = kNotificationValues;
  zorv::nclog::notify_send(kNotification, value[0], value[1], value[2], value[3], value[4],
                           value[5], value[6], value[7], value[8], nullptr);
}

void become_a_daemon(size_t megabytes, rlim_t descriptors) {
  const rlimit limit{descriptors, descriptors};
  setrlimit(RLIMIT_NOFILE, &limit);
  const size_t size = megabytes << 20;
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  madvise(memory, size, MADV_NOHUGEPAGE);  // a daemon's memory comes in small pieces
  memset(memory, 1, size);
  prctl(PR_SET_CHILD_SUBREAPER, 1);
}

size_t answer_with_seconds(char* body, size_t /*length*/) {
  const double seconds = seconds_of(body[0] == 'o' ? notify_ours : notify_raw);
  await_orphan();
  memcpy(body, &seconds, sizeof seconds);
  return sizeof seconds;
}

double ask(const RawServer& sender, const char* way) {
  double seconds = 0;
  memcpy(&seconds, sender.call(way).data(), sizeof seconds);
  return seconds;
}

// The wanted limit, or the highest that this machine allows.
rlim_t allowed(rlim_t wanted, Report& report) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max >= wanted) {
    return wanted;
  }
  report.miss(
      fmt::format("notification with a limit of {} descriptors: this machine allows {}, "
                  "which is taken instead",
                  wanted, limit.rlim_max));
  return limit.rlim_max;
}

void build(JsonValue& tree) {
  for (int i = 0; i < kSettings; ++i) {
    auto* setting = new JsonValue;  // owned by the tree from append() on
    (*setting)["name"] = fmt::format("profile \"{}\" of the second office", i);
    (*setting)["server_address"] = "vpn.example.com";
    (*setting)["enable"] = i % 2 == 0;
    (*setting)["type"] = 1 << (i % 12);
    (*setting)["time"] = 1700000000LL + i;
    (*setting)["rate"] = 0.25 * i;
    (*setting)["id"] = static_cast<unsigned>(i);
    (*setting)["interface"] = "tun0";
    (*setting)["parent"];
    tree.append(setting);
  }
}

}  // namespace

void measure_log(Report& report) {
  const auto line = record(write_line).own_lines;
  report.compare("one log line", 101, 300, {.of_floor = 1.1},
                 {{"ours", write_line}, {"floor", [&line] { write_lines(line); }}});
}

void measure_notification(Report& report) {
  const rlim_t limits[] = {1024, allowed(1048576, report)};
  harness::install_notify();
  for (const size_t megabytes : {size_t{5}, size_t{500}}) {
    for (const rlim_t descriptors : limits) {
      const RawServer sender([=, is_one = false](char* body, size_t length) mutable {
        if (!std::exchange(is_one, true)) {
          become_a_daemon(megabytes, descriptors);
        }
        return answer_with_seconds(body, length);
      });
      report.compare(fmt::format("notification from {} MB, {} descriptors", megabytes, descriptors),
                     15, 20, {.of_floor = 1.3},
                     {{"ours", [&] { return ask(sender, "ours"); }},
                      {"floor", [&] { return ask(sender, "floor"); }}});
    }
  }
}

void measure_json(Report& report) {
  JsonValue tree;
  build(tree);
  std::string text;
  tree.toString(text);
  // The peers print the same tree.
  const JsonRef peer_tree(json_loads(text.c_str(), 0, nullptr));
  require(json_array_size(peer_tree.get()) == kSettings, "the tree's text cannot be read");
  const auto print = [&tree] {
    std::string out;
    tree.toString(out);
  };
  const auto dump = [&peer_tree] { dump_json(peer_tree.get(), JSON_COMPACT); };
  const auto dump_short = [&peer_tree] {
    dump_json(peer_tree.get(), JSON_COMPACT | JSON_REAL_PRECISION(6));
  };
  report.compare(
      "text of a tree of 10,000 nodes", 101, 20, {.of_peer = 1},
      {{"ours", print}, {"json_dumps", dump}, {"json_dumps, reals of six digits", dump_short}});
}

}  // namespace bench
