#include "watcher.h"

#include <fmt/format.h>
#include <net/if.h>
#include <time.h>
#include <zorv.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "feeder_text.h"
#include "wg_run.h"

namespace wireguard {
namespace {

constexpr uint64_t kSaveInterval = 60;  // seconds, of figures alone: flash wears out
constexpr uint32_t kDeadline = 2000;    // milliseconds a row
constexpr size_t kMostWaiting = 10000;  // rows, while the daemon is away

uint64_t seconds_of(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<uint64_t>(time.tv_sec);
}

std::string boot_identifier() {
  std::ifstream file("/proc/sys/kernel/random/boot_id");
  std::string text;
  std::getline(file, text);
  return text.empty() ? "unknown" : text;
}

int record(const Event& event, const std::string& interface) {
  zorv_call call{};
  call.size = sizeof call;
  call.deadline_ms = kDeadline;
  zorv_server_record row{};
  row.size = sizeof row;
  row.vpn_type = ZORV_WIREGUARD_SERVER;
  row.username = event.name.c_str();
  row.source_ip = event.source_ip.c_str();
  row.vpn_ip = event.vpn_ip.c_str();
  row.outgoing = interface.c_str();
  row.time = event.time;
  row.uptime = event.uptime;
  row.tx_total = event.sent;
  row.rx_total = event.received;
  return event.is_login ? zorv_record_login(&row, &call) : zorv_record_logout(&row, &call);
}

}  // namespace

Watcher::Watcher(std::string interface, const Places& places)
    : interface_(std::move(interface)),
      names_(places.names_file, fmt::format("{}/{}.conf", places.quick_folder, interface_)),
      file_(places.state_folder, interface_) {}

bool Watcher::open() {
  if (!file_.lock()) {
    return false;
  }
  std::optional<Book> book = file_.read();
  if (book) {
    book_ = std::move(*book);
    saved_ = book_;
  }
  return book.has_value();
}

bool Watcher::look() {
  const Setup setup{boot_identifier(), if_nametoindex(interface_.c_str())};
  std::optional<std::vector<Peer>> peers = std::vector<Peer>();
  if (setup.index != 0) {
    peers = dump_interface(interface_, !look_trouble_.empty());
  }
  report(&look_trouble_, peers ? "" : "wg does not tell its peers; what is open stays so");
  const Times now{seconds_of(CLOCK_REALTIME), seconds_of(CLOCK_BOOTTIME)};
  if (peers) {
    names_.refresh();
    wireguard::look(book_, setup, *peers, now,
                    [this](const std::string& key) { return names_.name_of(key); });
  }
  while (book_.pending.size() > kMostWaiting) {
    char name[256];
    shown_text(book_.pending.front().name.c_str(), name, sizeof name);
    fmt::print(stderr, "zorv-wireguard: {}: a row of {} is lost, too many wait\n", interface_,
               name);
    book_.pending.pop_front();
  }
  const bool is_saved = !is_due_to_be_saved(now.steady) || save();
  return deliver() && is_saved && peers.has_value();
}

// A row to come is on the disk before it goes out, so that it is not lost on the way. When nothing
// happens nothing is written.
bool Watcher::is_due_to_be_saved(uint64_t now) const {
  if (book_.pending != saved_.pending || book_.setup != saved_.setup) {
    return true;
  }
  return now - saved_at_ >= kSaveInterval && book_.peers != saved_.peers;
}

bool Watcher::save() {
  const bool is_saved = file_.write(book_);
  report(&file_trouble_, is_saved ? "" : std::string("state: ") + std::strerror(errno));
  if (is_saved) {
    saved_ = book_;
    saved_at_ = seconds_of(CLOCK_BOOTTIME);
  }
  return is_saved;
}

// In order, up to the first that does not go.
bool Watcher::deliver() {
  const size_t waiting = book_.pending.size();
  int status = ZORV_DONE;
  while (!book_.pending.empty() && status == ZORV_DONE) {
    status = record(book_.pending.front(), interface_);
    if (status == ZORV_DONE) {
      book_.pending.pop_front();
    }
  }
  report(&call_trouble_, status == ZORV_DONE ? ""
                                             : fmt::format("rows wait to be recorded: {}",
                                                           zorv_status_text(status)));
  const bool is_saved = book_.pending.size() == waiting || save();
  return status == ZORV_DONE && is_saved;
}

// Says what is wrong when that changes, and that it is over.
void Watcher::report(std::string* last, const std::string& now) {
  if (now != *last) {
    fmt::print(stderr, "zorv-wireguard: {}: {}\n", interface_, now.empty() ? "works again" : now);
    *last = now;
  }
}

}  // namespace wireguard
