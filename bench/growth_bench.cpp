// What a call costs as there is more to do: inserts into a log that grows to its bound and drops
// its oldest rows, and calls of 1, 8 and 64 clients at once.
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <new>
#include <stdexcept>
#include <vector>

#include "child.h"
#include "families.h"
#include "harness/daemon.h"
#include "kxbus.h"
#include "server_log.h"
#include "zorv_api_db.h"
#include "zorv_api_mobile.h"

namespace bench {
namespace {

constexpr int kSizes[] = {0, 1000, 10000, 25000, 50000, 75000, 100000};
constexpr int kBound = 101999;
constexpr unsigned kClients[] = {1, 8, 64};

double insert_one() {
  const double seconds = seconds_of([] {
    db_conn_server_log record = sample_record();
    if (add_conn_server_log(&record) != KX_SUCCESS) {
      throw std::runtime_error("the daemon did not insert");
    }
  });
  await_orphan();
  return seconds;
}

double inserts_per_second(int rows, int count) {
  fill_server_log(rows);
  const harness::Daemon daemon;
  std::vector<double> seconds;
  for (int i = 0; i < count; ++i) {
    seconds.push_back(insert_one());
  }
  return 1 / median(std::move(seconds));
}

// The insert that finds the log full and drops 2,000 rows.
double recycling_insert() {
  fill_server_log(kBound);
  const harness::Daemon daemon;
  return insert_one();
}

void measure_inserts(Report& report) {
  const OneProcessor together;
  const int passes = report.quick() ? 1 : 5;
  const int count = report.quick() ? 20 : 100;
  std::vector<std::vector<double>> rates(std::size(kSizes));
  std::vector<double> recycling;
  for (int pass = 0; pass < passes; ++pass) {
    for (size_t i = 0; i < std::size(kSizes); ++i) {
      rates[i].push_back(inserts_per_second(kSizes[i], count));
    }
    recycling.push_back(recycling_insert());
  }
  for (size_t i = 0; i < std::size(kSizes); ++i) {
    report.add("inserts at " + std::to_string(kSizes[i]) + " rows", Unit::per_second, {},
               {Result{Role::ours, "add_conn_server_log", std::move(rates[i])}});
  }
  report.add("the insert that recycles 2,000 rows", Unit::seconds, {},
             {Result{Role::ours, "add_conn_server_log", std::move(recycling)}});
}

// What clients count and when they begin and end, in memory that they share.
struct Course {
  std::atomic<bool> running{false};
  std::atomic<bool> over{false};
  std::atomic<unsigned long long> calls{0};
  std::atomic<unsigned long long> failures{0};
};
static_assert(std::atomic<unsigned long long>::is_always_lock_free);

void call_until_over(Course& course, const Child::Ready& ready) {
  ready();
  while (!course.over) {
    zorv_mobile_gen_uuid_data_set kind{1};
    zorv_mobile_gen_uuid_data_get uuid{};
    zorv_mobile_gen_uuid_data_get* get = &uuid;
    zorv_mobile_gen_zorv_uuid(&kind, &get);
    if (course.running) {
      ++(uuid.zorv_uuid[0] != '\0' ? course.calls : course.failures);
    }
  }
}

double calls_per_second(unsigned clients, unsigned milliseconds) {
  void* shared =
      mmap(nullptr, sizeof(Course), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  auto& course = *new (shared) Course;
  std::deque<Child> children;
  for (unsigned i = 0; i < clients; ++i) {
    children.emplace_back([&course](const Child::Ready& ready) { call_until_over(course, ready); });
  }
  course.running = true;
  const double seconds = seconds_of([milliseconds] { usleep(milliseconds * 1000); });
  course.running = false;
  course.over = true;
  children.clear();
  const double rate = static_cast<double>(course.calls) / seconds;
  const bool failed = course.failures != 0;
  munmap(shared, sizeof(Course));
  if (failed) {
    throw std::runtime_error("calls failed with " + std::to_string(clients) + " clients");
  }
  return rate;
}

void measure_calls(Report& report) {
  fill_server_log(0);
  const harness::Daemon daemon;
  const int passes = report.quick() ? 2 : 7;
  const unsigned milliseconds = report.quick() ? 200 : 1000;
  std::vector<std::vector<double>> rates(std::size(kClients));
  for (int pass = 0; pass < passes; ++pass) {
    for (size_t i = 0; i < std::size(kClients); ++i) {
      rates[i].push_back(calls_per_second(kClients[i], milliseconds));
    }
  }
  for (size_t i = 0; i < std::size(kClients); ++i) {
    report.add("calls of " + std::to_string(kClients[i]) + (i == 0 ? " client" : " clients"),
               Unit::per_second, {},
               {Result{Role::ours, "zorv_mobile_gen_zorv_uuid", std::move(rates[i])}});
  }
}

}  // namespace

void measure_growth(Report& report) {
  harness::install_notify();
  measure_inserts(report);
  measure_calls(report);
}

}  // namespace bench
