// The whole spool, for whoever hands its records to the daemon: root, or the user whose the folder
// is.
//
// Whatever lies there is somebody else's. What counts is the folder of a user who may call the
// daemon, and in it the plain files with a record's name, of that user's own, of one link, that
// hold a record; anything else is left lying and complained of. A folder's files are taken out of
// at most 20,000 names.
//
// Not thread-safe; throws bad_alloc.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "descriptor.h"
#include "spool_file.h"

namespace zorv::spool {

struct Entry {
  uid_t owner;
  std::string name;

  std::string path() const { return std::to_string(owner) + "/" + name; }  // below the spool
  uint64_t time() const;  // when it was put there, in seconds since the epoch
};

using Complain = std::function<void(const std::string& path, const char* why)>;

class SpoolReader {
 public:
  explicit SpoolReader(Complain complain) : complain_(std::move(complain)) {}

  // Returns 0 or errno. Where the spool is to be delivered nobody else does so until the object
  // ends (EWOULDBLOCK: somebody does), and those who may call have their folders then.
  int open_to_list();
  int open_to_deliver();

  // Oldest first, over all users. Of each user ten complaints are made at most.
  std::vector<Entry> entries();

  // False after a complaint, or where the file is gone.
  bool read(const Entry& entry, Record& ret_record);

  // Takes the entry out; returns 0 or errno.
  int remove(const Entry& entry) const;
  // Until then a power cut may bring back what was removed.
  void sync_removals() const;

 private:
  int open_folder();
  void make_folders() const;
  void list_folder(uid_t owner, std::vector<Entry>& entries);
  void complain(uid_t owner, const std::string& path, const char* why);

  Complain complain_;
  std::map<uid_t, unsigned> complaints_;
  os::Descriptor folder_;
};

}  // namespace zorv::spool
