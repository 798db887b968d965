// Names for public keys: from a file of "KEY NAME" lines, or else from the comments above the
// [Peer] sections of an interface's wg-quick file.
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace wireguard {

using Names = std::map<std::string, std::string, std::less<>>;

// What the texts of the two files say. Empty lines and comments of the first do not count.
Names read_name_lines(std::string_view text);
Names read_quick_comments(std::string_view text);

class PeerNames {
 public:
  // Either path may be empty, and either file may be missing.
  PeerNames(std::string names_file, std::string quick_file);

  // Reads the files again.
  void refresh();

  // The name of a key, and the key itself where it has none.
  std::string name_of(const std::string& key) const;

 private:
  std::string names_file_;
  std::string quick_file_;
  Names names_;
};

}  // namespace wireguard
