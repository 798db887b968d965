// The allow list of a service, /etc/config/kxbus/SERVICE.allow: whom it deals with besides uid 0
// and its own uid.
//
//   user NAME     this user may call
//   group NAME    whoever has this group, primary or supplementary, may call
//   server NAME   the service may run as this user, so a client trusts such a listener
//
// NAME is a name or a number; '#' begins a comment. The file counts only when it is a plain file of
// root's that nobody else may write; under a root of one's own (ZORV_ROOT, not run by uid 0) one's
// own file counts too. A file that does not count is logged once and read as empty.
//
// Read when somebody is met whom it must vouch for, and again when it has changed. One thread at a
// time.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "kx_peer.h"

namespace kxbus {

class AllowList {
 public:
  explicit AllowList(std::string_view service)
      : plain_path_("/etc/config/kxbus/" + std::string(service) + ".allow") {}

  bool admits_caller(int socket, const Peer& peer);
  bool admits_listener(const Peer& peer);

 private:
  void refresh();
  void load(const std::string& path);
  void parse_line(std::string_view line);

  std::string plain_path_;
  struct stat seen_ {};    // the file that was read or refused last; no inode for none
  time_t read_again_ = 0;  // when unknown names are looked up once more; 0 for never
  std::vector<uid_t> users_;
  std::vector<gid_t> groups_;
  std::vector<uid_t> servers_;
};

}  // namespace kxbus
