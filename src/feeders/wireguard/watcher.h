// Watches one WireGuard interface of this machine and records its sessions.
#pragma once

#include <string>

#include "book_file.h"
#include "peer_names.h"

namespace wireguard {

struct Places {
  std::string names_file;    // empty for none
  std::string quick_folder;  // of wg-quick's INTERFACE.conf
  std::string state_folder;
};

class Watcher {
 public:
  Watcher(std::string interface, const Places& places);

  // Takes up what was open. False when another watcher has the interface, or its file is of no use.
  bool open();

  // One look at the interface, and what follows from it. False when something is left to be done:
  // the interface could not be looked at, a row not be recorded or the file not be written. Each is
  // reported once.
  bool look();

  // Writes down the figures as they are.
  bool save();

 private:
  bool is_due_to_be_saved(uint64_t now) const;
  bool deliver();
  void report(std::string* last, const std::string& now);

  std::string interface_;
  PeerNames names_;
  BookFile file_;
  Book book_;
  Book saved_;
  uint64_t saved_at_ = 0;     // on the steady clock
  std::string look_trouble_;  // what was reported last, "" for nothing
  std::string call_trouble_;
  std::string file_trouble_;
};

}  // namespace wireguard
