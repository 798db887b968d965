// The daemon as a process: from its start to its first answer, its end, its memory while idle, and
// the size of its program.
//
// The floor is an empty program that opens the same database five times, runs what sets a
// connection up and makes the tables, and answers one raw exchange (floor_process.cpp).
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <stdexcept>

#include "families.h"
#include "harness/daemon.h"
#include "harness/process.h"
#include "harness/test_root.h"
#include "kxbus.h"
#include "memory.h"
#include "raw_bus.h"
#include "server_log.h"

namespace bench {
namespace {

constexpr useconds_t kPause = 20;
constexpr int kTries = 500000;

void stop(harness::Process& process) {
  if (process.terminate() != 0) {
    throw std::runtime_error("a process did not stop well");
  }
}

// Asks until it is answered.
template <class Answered>
void wait_for(Answered answered) {
  for (int i = 0; i < kTries; ++i) {
    if (answered()) {
      return;
    }
    usleep(kPause);
  }
  throw std::runtime_error("a process does not answer");
}

bool daemon_answers() {
  kx_io* io = kx_io_create();
  const int status = kx_call("@/var/run/zorvd.sock", "no such method", io, 5, -1);
  kx_io_free(io);
  return status == KX_IS_INVALID;
}

bool floor_answers(const std::string& name) {
  try {
    char packet[kRawPacket] = {};
    return raw_call(name, packet, kRawHead) == kRawHead;
  } catch (const std::exception&) {
    return false;
  }
}

struct Subject {
  std::vector<std::string> command;
  std::function<bool()> answers;
};

double time_start(const Subject& subject) {
  std::unique_ptr<harness::Process> process;
  const double seconds = seconds_of([&] {
    process = std::make_unique<harness::Process>(subject.command);
    wait_for(subject.answers);
  });
  stop(*process);
  return seconds;
}

double time_stop(const Subject& subject) {
  harness::Process process(subject.command);
  wait_for(subject.answers);
  return seconds_of([&process] { stop(process); });
}

double idle_memory(const Subject& subject) {
  harness::Process process(subject.command);
  wait_for(subject.answers);
  const double bytes = resident_bytes(process.pid());
  stop(process);
  return bytes;
}

double stripped_size(const std::string& program) {
  const std::string stripped = harness::test_root() + "/stripped";
  if (harness::run({"/usr/bin/strip", "-o", stripped, program}).status != 0) {
    return 0;
  }
  return static_cast<double>(std::filesystem::file_size(stripped));
}

}  // namespace

void measure_process(Report& report) {
  fill_server_log(10000);
  const std::string name = harness::test_root() + "/process";
  const Subject ours{{harness::program("zorvd")}, daemon_answers};
  const Subject floor{
      {harness::program("floor_process"), harness::test_root() + harness::kDatabase, name},
      [&name] { return floor_answers(name); }};
  const char* const what = "five connections and a raw answer";
  report.compare("start to first answer", {21, 5}, {.of_floor = 1.5},
                 {{Role::ours, "zorvd", [&ours] { return time_start(ours); }},
                  {Role::floor, what, [&floor] { return time_start(floor); }}});
  report.compare("stop", {21, 5}, {.of_floor = 1.5},
                 {{Role::ours, "zorvd", [&ours] { return time_stop(ours); }},
                  {Role::floor, what, [&floor] { return time_stop(floor); }}});
  report.add("resident memory while idle", Unit::bytes, {.of_floor = 1.5, .of_itself = 6e6},
             {Result{Role::ours, "zorvd", {idle_memory(ours)}},
              Result{Role::floor, what, {idle_memory(floor)}}});
  if (const double size = stripped_size(harness::program("zorvd")); size > 0) {
    report.add("size of the stripped program", Unit::bytes, {.of_itself = 6e6},
               {Result{Role::ours, "zorvd", {size}}});
  } else {
    report.miss("no strip");
  }
}

}  // namespace bench
