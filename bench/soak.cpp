// The whole system in use for a long time: soak [--minutes N] [--clients N] [--rate
// CALLS_PER_SECOND]
//
// Starts the daemon, the notification tool and the platform's services in a root of their own, and
// has several clients call all 24 methods in a random mix at a given rate. Once a minute and at the
// end it prints what the daemon holds (resident memory, descriptors, rows of the server log), and
// at the end the calls, failures and latencies of each method. Exit status 0 when nothing failed.
//
// The log and the notifications are removed from time to time, as log rotation does.
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "harness/daemon.h"
#include "harness/test_root.h"
#include "kxbus.h"
#include "zorv_api_db.h"
#include "zorv_api_mobile.h"

namespace {

using std::chrono::steady_clock;

using Random = std::minstd_rand;

constexpr unsigned kUsers = 50;
constexpr unsigned kDevices = 200;
constexpr long long kPage = 100;
constexpr unsigned kPagesPerFullList = 2000;
constexpr auto kClientTimeout = std::chrono::seconds(5);

std::atomic<bool> stopping{false};

unsigned any_of(Random& random, unsigned count) {
  return static_cast<unsigned>(random()) % count;
}

template <size_t Size>
void put(char (&field)[Size], const std::string& text) {
  memcpy(field, text.c_str(), std::min(text.size() + 1, Size));
}

std::string any_user(Random& random) {
  return "user" + std::to_string(any_of(random, kUsers));
}

std::string any_mac(Random& random) {
  return "02:00:00:00:00:" + std::to_string(any_of(random, kDevices));
}

bool add_server(Random& random) {
  db_conn_server_log record{};
  put(record.username, any_user(random));
  put(record.device_info, "linux 6.1, OpenVPN 2.6.3");
  put(record.source_ip, "10.99.0.2");
  put(record.vpn_ip, "10.8.0.2");
  record.vpn_type = 4;
  record.time = static_cast<record_uint64>(time(nullptr));
  record.tx_total = any_of(random, 1U << 30);
  // One in eight is announced; the others are of a kind that is stored and not announced.
  record.action = any_of(random, 8) == 0 ? 2 : 9;
  return add_conn_server_log(&record) == KX_SUCCESS;
}

bool add_client(Random& random) {
  db_conn_client_log_data record{};
  put(record.username, any_user(random));
  record.vpn_type = 0x400;
  record.time = static_cast<record_uint64>(time(nullptr));
  put(record.country_code, "DE");
  record.action = any_of(random, 8) == 0 ? 3 : 9;
  return add_conn_client_log(&record) == KX_SUCCESS;
}

bool add_event(Random& /*random*/) {
  db_event_data record;
  return add_event_data(&record) == KX_SUCCESS;
}

bool add_session(Random& random) {
  db_server_list_data record{};
  put(record.uuid, std::to_string(random()));
  put(record.username, any_user(random));
  return add_server_list(&record) == KX_SUCCESS;
}

bool add_device(Random& random) {
  db_device_info_data record{};
  put(record.mac, any_mac(random));
  zorv_mobile_gen_uuid_data_get uuid{};
  return add_device_info(&record, &uuid) == KX_SUCCESS && uuid.zorv_uuid[0] != '\0';
}

// A filter by a column that the table has: any other would cost a temporary table its rows.
template <class Record>
void filter(db_query_cond& cond, Random& random) {
  if constexpr (requires(Record record) { record.username; }) {
    put(cond.field, "username");
    put(cond.value, any_user(random));
  } else if constexpr (requires(Record record) { record.mac; }) {
    put(cond.field, "mac");
    put(cond.value, any_mac(random));
  }
}

template <class Query, int (*List)(db_query_cond*, Query**)>
bool list(Random& random) {
  constexpr record_uint64 kUntouched = ~record_uint64{0};
  db_query_cond cond{};
  cond.count = any_of(random, kPagesPerFullList) == 0 ? -1 : kPage;
  cond.start = any_of(random, 1000);
  cond.order_style = any_of(random, 2);
  if (any_of(random, 4) == 0) {
    filter<typename Query::record_type>(cond, random);
  }
  Query query{};
  query.count = kUntouched;
  Query* result = &query;
  List(&cond, &result);
  free(static_cast<void*>(query.data));
  return query.count != kUntouched;
}

template <int (*Delete)(db_delete_cond*)>
bool remove_one(Random& random) {
  db_delete_cond which{any_of(random, 100000) + 1};
  return Delete(&which) == KX_SUCCESS;
}

template <int (*Clean)()>
bool clean(Random& /*random*/) {
  return Clean() == KX_SUCCESS;
}

bool fail_login(Random& random) {
  return add_privilege_user_block(any_user(random).data()) == KX_SUCCESS;
}

bool unblock(Random& random) {
  return delete_privilege_user_block(any_user(random).data()) == KX_SUCCESS;
}

// 1 is both "blocked" and the status of a time-out.
bool check(Random& random) {
  const auto start = steady_clock::now();
  const int answer = check_privilege_user_block(any_user(random).data());
  return answer == 0 || (answer == 1 && steady_clock::now() - start < kClientTimeout);
}

bool make_uuid(Random& /*random*/) {
  zorv_mobile_gen_uuid_data_set kind{1};
  zorv_mobile_gen_uuid_data_get uuid{};
  zorv_mobile_gen_uuid_data_get* get = &uuid;
  zorv_mobile_gen_zorv_uuid(&kind, &get);
  return uuid.zorv_uuid[0] != '\0';
}

struct Method {
  const char* name;
  unsigned weight;
  bool (*call)(Random& random);  // true when it was answered
};

constexpr Method kMethods[] = {
    {"db_conn_insert", 240, add_server},
    {"db_conn_server_log_query", 100, list<db_conn_server_log_query, list_conn_server_log>},
    {"db_conn_server_log_del", 1, remove_one<delete_conn_server_log>},
    {"db_conn_server_log_clean", 1, clean<clean_conn_server_log>},
    {"db_conn_client_log_insert", 80, add_client},
    {"db_conn_client_log_query", 60, list<db_conn_client_log_query, list_conn_client_log>},
    {"db_conn_client_log_del", 1, remove_one<delete_conn_client_log>},
    {"db_conn_client_log_clean", 1, clean<clean_conn_client_log>},
    {"db_event_insert", 20, add_event},
    {"db_event_query", 20, list<db_event_query, list_event_data>},
    {"db_server_list_insert", 40, add_session},
    {"db_server_list_query", 40, list<db_server_list_query, list_server_list>},
    {"db_server_list_del", 1, remove_one<delete_server_list>},
    {"db_server_list_clean", 1, clean<clean_server_list>},
    {"db_device_info_insert", 60, add_device},
    {"db_device_info_query", 40, list<db_device_info_query, list_device_info>},
    {"db_device_info_del", 20, remove_one<delete_device_info>},
    {"db_device_info_clean", 1, clean<clean_device_info>},
    {"zorv_mobile_gen_zorv_uuid", 60, make_uuid},
    {"db_privilege_user_block_insert", 60, fail_login},
    {"db_privilege_user_block_query", 40,
     list<db_privilege_user_block_query, list_privilege_user_block>},
    {"db_privilege_user_block_del", 20, unblock},
    {"db_privilege_user_block_clean", 1, clean<clean_privilege_user_block>},
    {"db_privilege_user_block_check", 100, check},
};
static_assert(std::size(kMethods) == 24);

struct Tally {
  std::vector<uint32_t> microseconds;
  unsigned long long failures = 0;
};
using Tallies = std::vector<Tally>;

size_t any_method(Random& random) {
  static const unsigned total = [] {
    unsigned sum = 0;
    for (const Method& method : kMethods) {
      sum += method.weight;
    }
    return sum;
  }();
  unsigned ticket = any_of(random, total);
  size_t index = 0;
  while (ticket >= kMethods[index].weight) {
    ticket -= kMethods[index++].weight;
  }
  return index;
}

void run_client(unsigned seed, steady_clock::duration interval, steady_clock::time_point end,
                Tallies& ret_tallies) {
  Random random(seed);
  for (auto next = steady_clock::now(); next < end && !stopping;
       next = std::max(next + interval, steady_clock::now())) {
    std::this_thread::sleep_until(next);
    const size_t index = any_method(random);
    const auto start = steady_clock::now();
    const bool answered = kMethods[index].call(random);
    const auto spent = steady_clock::now() - start;
    Tally& tally = ret_tallies[index];
    tally.failures += answered ? 0 : 1;
    tally.microseconds.push_back(static_cast<uint32_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(spent).count()));
  }
}

unsigned long long resident_kilobytes(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) {
      return strtoull(line.c_str() + strlen("VmRSS:"), nullptr, 10);
    }
  }
  return 0;
}

long descriptors(pid_t pid) {
  std::error_code ignored;
  const std::filesystem::directory_iterator open("/proc/" + std::to_string(pid) + "/fd", ignored);
  return std::distance(begin(open), end(open));
}

void print_state(const char* when, pid_t pid) {
  const auto rows = harness::sql("SELECT Count(*) FROM conn_server_log;");
  printf("%-12s resident %7llu kB   descriptors %3ld   server log rows %s\n", when,
         resident_kilobytes(pid), descriptors(pid), rows.empty() ? "?" : rows[0].c_str());
  fflush(stdout);
}

uint32_t percentile(const std::vector<uint32_t>& sorted, unsigned percent) {
  return sorted.empty() ? 0 : sorted[(sorted.size() - 1) * percent / 100];
}

void print_line(const char* name, Tally& tally) {
  std::sort(tally.microseconds.begin(), tally.microseconds.end());
  printf("%-32s %9zu %9llu %9u %9u %9u\n", name, tally.microseconds.size(), tally.failures,
         percentile(tally.microseconds, 50), percentile(tally.microseconds, 99),
         percentile(tally.microseconds, 100));
}

// All clients' figures, by method and in sum. True when nothing failed.
bool print_figures(const std::vector<Tallies>& clients) {
  printf("%-32s %9s %9s %9s %9s %9s\n", "method", "calls", "failures", "p50 us", "p99 us",
         "max us");
  Tally all;
  for (size_t method = 0; method < std::size(kMethods); ++method) {
    Tally sum;
    for (const Tallies& tallies : clients) {
      const Tally& part = tallies[method];
      sum.microseconds.insert(sum.microseconds.end(), part.microseconds.begin(),
                              part.microseconds.end());
      sum.failures += part.failures;
    }
    all.microseconds.insert(all.microseconds.end(), sum.microseconds.begin(),
                            sum.microseconds.end());
    all.failures += sum.failures;
    print_line(kMethods[method].name, sum);
  }
  print_line("all", all);
  return all.failures == 0;
}

struct Options {
  double minutes = 1;
  unsigned clients = 4;
  unsigned rate = 400;
};

bool parse(int argc, char** argv, Options& ret_options) {
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string_view name = argv[i];
    const double value = atof(argv[i + 1]);
    if (name == "--minutes") {
      ret_options.minutes = value;
    } else if (name == "--clients") {
      ret_options.clients = static_cast<unsigned>(value);
    } else if (name == "--rate") {
      ret_options.rate = static_cast<unsigned>(value);
    } else {
      return false;
    }
  }
  return argc % 2 == 1 && ret_options.minutes > 0 && ret_options.clients > 0 &&
         ret_options.rate > 0;
}

int soak(const Options& options) {
  harness::install_notify();
  harness::write_file("/etc/config/vpn_block.conf",
                      R"({"global": {"enable": true, "limit": 3, "time": 0.1}})");
  harness::PlatformDaemon platform;
  harness::Daemon daemon;
  const pid_t pid = daemon.process().pid();
  // A clean that follows a delete no longer empties the log, which so grows to its bound.
  db_delete_cond none{0};
  delete_conn_server_log(&none);
  print_state("start", pid);

  const auto start = steady_clock::now();
  const auto end = start + std::chrono::duration_cast<steady_clock::duration>(
                               std::chrono::duration<double, std::ratio<60>>(options.minutes));
  const auto interval = std::chrono::duration_cast<steady_clock::duration>(
      std::chrono::duration<double>(static_cast<double>(options.clients) / options.rate));
  std::vector<Tallies> tallies(options.clients, Tallies(std::size(kMethods)));
  std::vector<std::thread> clients;
  for (unsigned i = 0; i < options.clients; ++i) {
    clients.emplace_back(run_client, i + 1, interval, end, std::ref(tallies[i]));
  }
  int minute = 0;
  for (auto next = start; next < end && !stopping;) {
    next = std::min(next + std::chrono::seconds(5), end);
    std::this_thread::sleep_until(next);
    std::error_code ignored;
    std::filesystem::remove(harness::test_root() + harness::kLogFile, ignored);
    std::filesystem::remove(harness::test_root() + harness::kNotifications, ignored);
    if (next - start >= std::chrono::minutes(minute + 1) && next < end) {
      print_state(("minute " + std::to_string(++minute)).c_str(), pid);
    }
  }
  for (std::thread& client : clients) {
    client.join();
  }
  print_state("end", pid);
  const bool clean = print_figures(tallies);
  const int status = daemon.stop();
  printf("the daemon stopped with status %d\n", status);
  return clean && status == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, options)) {
    fprintf(stderr, "usage: soak [--minutes N] [--clients N] [--rate CALLS_PER_SECOND]\n");
    return 2;
  }
  for (const int number : {SIGINT, SIGTERM}) {
    signal(number, [](int) { stopping = true; });
  }
  harness::make_test_root();
  int status = EXIT_FAILURE;
  try {
    status = soak(options);
  } catch (const std::exception& failure) {
    fprintf(stderr, "soak: %s\n", failure.what());
  }
  harness::remove_test_root();
  return status;
}
