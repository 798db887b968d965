// The daemon as a process: from its start to its first answer, its end, its memory while idle, and
// the size of its program. And what a call costs as there is more to do: inserts into a log that
// grows to its bound and drops its oldest rows, and calls of 1, 8 and 64 clients at once.
//
// The floor of the process is an empty program that opens the same database five times, runs what
// sets a connection up and makes the tables, and answers one raw exchange (floor_process.cpp).
#include <fmt/format.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <filesystem>
#include <memory>

#include "floor.h"
#include "harness/daemon.h"
#include "harness/test_root.h"
#include "kxbus.h"
#include "measure.h"
#include "processes.h"
#include "raw_bus.h"
#include "zorv_api_db.h"
#include "zorv_api_mobile.h"

namespace bench {
namespace {

constexpr int kBound = 101999;

bool daemon_answers() {
  const kx_io_owner io(kx_io_create());
  return kx_call(kZorvdAddress, "no such method", io.get(), 5, -1) == KX_IS_INVALID;
}

bool floor_answers(const std::string& name) {
  try {
    return raw_call(name, "").empty();
  } catch (const std::exception&) {
    return false;
  }
}

struct Subject {
  const char* what;
  std::vector<std::string> command;
  std::function<bool()> answers;
};

struct Life {
  double start;   // seconds
  double memory;  // bytes
  double stop;    // seconds
};

// A process from its start over its first answer to its end.
Life live(const Subject& subject) {
  Life life{};
  std::unique_ptr<harness::Process> process;
  life.start = seconds_of([&] {
    process = std::make_unique<harness::Process>(subject.command);
    while (!subject.answers()) {
      require(process->running(), "a process does not answer");
      usleep(20);
    }
  });
  life.memory = resident_bytes(process->pid());
  life.stop = seconds_of([&process] {
    process->send(SIGTERM);
    siginfo_t ended{};
    waitid(P_PID, static_cast<id_t>(process->pid()), &ended, WEXITED | WNOWAIT);
  });
  require(process->wait() == 0, "a process did not stop well");
  return life;
}

// The median of so many inserts after one another, each with its notification's end awaited.
double insert_seconds(int rows, int count) {
  fill_server_log(rows);
  const harness::Daemon daemon;
  std::vector<double> seconds;
  for (int i = 0; i < count; ++i) {
    seconds.push_back(seconds_of(insert_sample));
    await_orphan();
  }
  return quantile(std::move(seconds), 0.5);
}

bool make_uuid() {
  zorv_mobile_gen_uuid_data_set kind{1};
  zorv_mobile_gen_uuid_data_get uuid{};
  zorv_mobile_gen_uuid_data_get* get = &uuid;
  zorv_mobile_gen_zorv_uuid(&kind, &get);
  return uuid.zorv_uuid[0] != '\0';
}

double calls_per_second(unsigned clients, unsigned milliseconds) {
  // In memory that the clients share, which starts as zeros.
  using Counter = std::atomic<unsigned>;
  void* shared =
      mmap(nullptr, 2 * sizeof(Counter), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Counter& calls = static_cast<Counter*>(shared)[0];
  Counter& failures = static_cast<Counter*>(shared)[1];
  std::deque<harness::Child> children;
  for (unsigned i = 0; i < clients; ++i) {
    children.emplace_back([&]() -> int {
      for (;;) {
        ++(make_uuid() ? calls : failures);
      }
    });
  }
  while (calls + failures < clients) {
    usleep(1000);
  }
  const unsigned before = calls;
  const double seconds = seconds_of([milliseconds] { usleep(milliseconds * 1000); });
  const double rate = (calls - before) / seconds;
  require(failures == 0, "calls failed");
  children.clear();
  munmap(shared, 2 * sizeof(Counter));
  return rate;
}

std::vector<double> rounds_of(int passes, const std::function<double()>& figure) {
  std::vector<double> rounds(static_cast<size_t>(passes));
  std::generate(rounds.begin(), rounds.end(), figure);
  return rounds;
}

}  // namespace

void measure_process(Report& report) {
  fill_server_log(10000);
  const std::string name = harness::test_root() + "/process";
  const std::string database = harness::test_root() + harness::kDatabase;
  const Subject subjects[] = {{"ours", {harness::program("zorvd")}, daemon_answers},
                              {"floor",
                               {harness::program("floor_process"), database, name},
                               [&name] { return floor_answers(name); }}};
  std::vector<Contender> starts;
  std::vector<Contender> stops;
  std::vector<Result> memory;
  for (const Subject& subject : subjects) {
    starts.push_back({subject.what, [&subject] { return live(subject).start; }});
    stops.push_back({subject.what, [&subject] { return live(subject).stop; }});
    memory.push_back({subject.what, {live(subject).memory}});
  }
  report.compare("start to first answer", 21, 5, {.of_floor = 1.5}, starts);
  report.compare("stop", 21, 5, {.of_floor = 1.5}, stops);
  report.add("resident memory while idle", Unit::bytes, {.of_floor = 1.5, .of_itself = 6e6},
             memory);
  const std::string stripped = harness::test_root() + "/stripped";
  run_program({"/usr/bin/strip", "-o", stripped, harness::program("zorvd")});
  const auto size = static_cast<double>(std::filesystem::file_size(stripped));
  report.add("size of the stripped program", Unit::bytes, {.of_itself = 6e6}, {{"ours", {size}}});
}

void measure_inserts(Report& report) {
  harness::install_notify();
  const int passes = report.quick() ? 1 : 5;
  const int count = report.quick() ? 20 : 100;
  for (const int rows : {0, 1000, 10000, 25000, 50000, 75000, 100000}) {
    report.add(fmt::format("inserts at {} rows", rows), Unit::per_second, {},
               {{"ours", rounds_of(passes, [=] { return 1 / insert_seconds(rows, count); })}});
  }
  report.add("the insert that recycles 2,000 rows", Unit::seconds, {},
             {{"ours", rounds_of(passes, [] { return insert_seconds(kBound, 1); })}});
}

void measure_clients(Report& report) {
  fill_server_log(0);
  const harness::Daemon daemon;
  const int passes = report.quick() ? 2 : 7;
  const unsigned milliseconds = report.quick() ? 200 : 1000;
  for (const unsigned clients : {1U, 8U, 64U}) {
    report.add(
        fmt::format("calls of {} client{}", clients, clients == 1 ? "" : "s"), Unit::per_second, {},
        {{"ours", rounds_of(passes, [=] { return calls_per_second(clients, milliseconds); })}});
  }
}

}  // namespace bench
