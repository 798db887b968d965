// The whole system in use for a long time: soak [--minutes N] [--clients N] [--rate
// CALLS_PER_SECOND]
//
// Starts the daemon, the notification tool and the platform's services in a root of their own, and
// has several clients call all methods in a random mix at a given rate. Once a minute and at the
// end it prints what the daemon holds (resident memory, descriptors, rows of the server log), and
// at the end the calls, failures and latencies of each method. Exit status 0 when nothing failed.
//
// The log and the notifications are removed from time to time, as log rotation does.
#include <fmt/format.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "harness/daemon.h"
#include "harness/test_root.h"
#include "measure.h"
#include "processes.h"
#include "zorv_calls.h"
#include "zorv_schema.h"

namespace {

using Seconds = std::chrono::duration<double>;
using Random = std::minstd_rand;

constexpr unsigned kDifferentTexts = 100;
constexpr unsigned kPagesPerFullList = 2000;
constexpr int kUnknownCode = 9;
constexpr int kStepsPerMinute = 12;

std::atomic<bool> over{false};

unsigned any_of(Random& random, unsigned count) {
  return static_cast<unsigned>(random()) % count;
}

std::string any_text(Random& random, const std::string& field = "username") {
  return field + std::to_string(any_of(random, kDifferentTexts));
}

record_int64 any_number(Random& random, const zorv::Field& field) {
  switch (field.meaning) {
    case zorv::Meaning::time:
      return time(nullptr);
    case zorv::Meaning::code:
      // One in eight is known; a connection with an unknown action is stored and not announced.
      return any_of(random, 8) == 0 ? field.words[1].code : kUnknownCode;
    default:
      return any_of(random, 1U << 30);
  }
}

int insert(const zorv::TableSchema& table, Random& random) {
  if (&table == &zorv::kUserBlock) {
    return zorv_api::count_failure(any_text(random));
  }
  std::vector<record_int64> record(table.record_size / sizeof(record_int64) + 1);
  for (const zorv::Field& field : table.fields) {
    if (field.is_text()) {
      zorv::set(field, record.data(), any_text(random, field.name));
    } else {
      const record_int64 number = any_number(random, field);
      memcpy(field.member(record.data()), &number, field.size);
    }
  }
  return zorv_api::insert(table, record.data());
}

int query(const zorv::TableSchema& table, Random& random) {
  db_query_cond cond{};
  cond.count = any_of(random, kPagesPerFullList) == 0 ? -1 : 100;
  cond.start = any_of(random, 1000);
  cond.order_style = any_of(random, 2);
  // The second column is a text in every table. A filter by a column that a table does not have
  // would cost a temporary table its rows.
  if (!table.fields.empty() && any_of(random, 4) == 0) {
    zorv::copy_text(cond.field, table.fields[1].name);
    zorv::copy_text(cond.value, any_text(random, table.fields[1].name));
  }
  zorv_api::Rows rows;
  return zorv_api::query(table, cond, rows);
}

int remove(const zorv::TableSchema& table, Random& random) {
  return &table == &zorv::kUserBlock ? zorv_api::forget_failures(any_text(random))
                                     : zorv_api::remove(table, any_of(random, 100000) + 1);
}

int make_uuid(Random& /*random*/) {
  zorv_mobile_gen_uuid_data_get uuid{};
  return zorv_api::make_uuid({1}, uuid);
}

int check_block(Random& random) {
  zorv_api::BlockAnswer answer{};
  const int status = zorv_api::check_block(any_text(random), answer);
  return answer == zorv_api::BlockAnswer::unknown ? KX_IO_FAILURE : status;
}

struct Method {
  const char* name;
  unsigned weight;
  std::function<int(Random& random)> call;  // its status
  unsigned failures = 0;
  std::vector<double> seconds{};
};

std::vector<Method> all_methods() {
  std::vector<Method> methods{{"zorv_mobile_gen_zorv_uuid", 60, make_uuid},
                              {"db_privilege_user_block_check", 100, check_block}};
  for (const zorv::TableSchema* table : zorv::kTables) {
    // Most of what is added are connections to the servers.
    const unsigned inserts = table == &zorv::kServerLog ? 240 : 60;
    const unsigned removals = table->delete_text == zorv::DeleteText::restored ? 20 : 1;
    const Method of_table[] = {
        {table->methods.insert, inserts, [=](Random& random) { return insert(*table, random); }},
        {table->methods.query, 50, [=](Random& random) { return query(*table, random); }},
        {table->methods.remove, removals, [=](Random& random) { return remove(*table, random); }},
        {table->methods.clean, 1, [=](Random&) { return zorv_api::clean(*table); }}};
    std::copy_if(std::begin(of_table), std::end(of_table), std::back_inserter(methods),
                 [](const Method& method) { return method.name != nullptr; });
  }
  return methods;
}

// A call in each interval until the run is over.
void run_client(unsigned seed, Seconds interval, std::vector<Method>& ret_methods) {
  static std::mutex counting;
  Random random(seed);
  std::vector<unsigned> weights;
  weights.reserve(ret_methods.size());
  for (const Method& method : ret_methods) {
    weights.push_back(method.weight);
  }
  std::discrete_distribution<size_t> any_method(weights.begin(), weights.end());
  while (!over) {
    Method& method = ret_methods[any_method(random)];
    int status = KX_SUCCESS;
    const double seconds = bench::seconds_of([&] { status = method.call(random); });
    {
      const std::lock_guard lock(counting);
      method.failures += status == KX_SUCCESS ? 0 : 1;
      method.seconds.push_back(seconds);
    }
    std::this_thread::sleep_for(interval - Seconds(seconds));
  }
}

void print_state(const std::string& when, pid_t pid) {
  const std::filesystem::directory_iterator open(fmt::format("/proc/{}/fd", pid));
  fmt::print("{:<12} resident {:7.0f} kB   descriptors {:3}   server log rows {}\n", when,
             bench::resident_bytes(pid) / 1024, std::distance(begin(open), end(open)),
             harness::sql("SELECT Count(*) FROM conn_server_log;").at(0));
  fflush(stdout);
}

// True when nothing failed.
bool print_figures(const std::vector<Method>& methods) {
  fmt::print("{:<32} {:>9} {:>9} {:>9} {:>9} {:>9}\n", "method", "calls", "failures", "p50 us",
             "p99 us", "max us");
  unsigned failures = 0;
  for (const Method& method : methods) {
    const auto microseconds = [&method](double part) {
      return method.seconds.empty() ? 0 : bench::quantile(method.seconds, part) * 1e6;
    };
    fmt::print("{:<32} {:>9} {:>9} {:>9.0f} {:>9.0f} {:>9.0f}\n", method.name,
               method.seconds.size(), method.failures, microseconds(0.5), microseconds(0.99),
               microseconds(1));
    failures += method.failures;
  }
  return failures == 0;
}

int soak(double minutes, unsigned client_count, double rate) {
  harness::install_notify();
  harness::write_file("/etc/config/vpn_block.conf",
                      R"({"global": {"enable": true, "limit": 3, "time": 0.1}})");
  const harness::PlatformDaemon platform;
  harness::Daemon daemon;
  // A clean that follows a delete no longer empties the log, which so grows to its bound.
  zorv_api::remove(zorv::kServerLog, 0);
  print_state("start", daemon.process().pid());

  std::vector<Method> methods = all_methods();
  std::vector<std::thread> clients;
  for (unsigned i = 0; i < client_count; ++i) {
    clients.emplace_back(run_client, i + 1, Seconds(client_count / rate), std::ref(methods));
  }
  for (int step = 1; step <= std::ceil(minutes * kStepsPerMinute) && !over; ++step) {
    std::this_thread::sleep_for(Seconds(60.0 / kStepsPerMinute));
    for (const char* file : {harness::kLogFile, harness::kNotifications}) {
      std::filesystem::remove(harness::test_root() + file);
    }
    if (step % kStepsPerMinute == 0) {
      print_state(fmt::format("minute {}", step / kStepsPerMinute), daemon.process().pid());
    }
  }
  over = true;
  for (std::thread& client : clients) {
    client.join();
  }
  print_state("end", daemon.process().pid());
  const bool clean = print_figures(methods);
  const int status = daemon.stop();
  fmt::print("the daemon stopped with status {}\n", status);
  return clean && status == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  double minutes = 1;
  unsigned clients = 4;
  double rate = 400;
  CLI::App app("The whole system in use for a long time.");
  app.add_option("--minutes", minutes)->check(CLI::PositiveNumber);
  app.add_option("--clients", clients)->check(CLI::PositiveNumber);
  app.add_option("--rate", rate, "Calls per second")->check(CLI::PositiveNumber);
  CLI11_PARSE(app, argc, argv);
  for (const int number : {SIGINT, SIGTERM}) {
    signal(number, [](int) { over = true; });
  }
  const harness::TestRoot root;
  try {
    return soak(minutes, clients, rate);
  } catch (const std::exception& failure) {
    fmt::print(stderr, "soak: {}\n", failure.what());
    return EXIT_FAILURE;
  }
}
