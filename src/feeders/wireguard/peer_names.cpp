#include "peer_names.h"

#include <strings.h>

#include <fstream>
#include <sstream>

#include "rooted.h"

namespace wireguard {
namespace {

constexpr std::string_view kBlanks = " \t\r";

std::string_view without(std::string_view edges, std::string_view text) {
  const size_t begin = text.find_first_not_of(edges);
  if (begin == std::string_view::npos) {
    return "";
  }
  return text.substr(begin, text.find_last_not_of(edges) + 1 - begin);
}

template <class Take>
void for_each_line(std::string_view text, Take take) {
  while (!text.empty()) {
    const size_t length = std::min(text.find('\n'), text.size());
    take(without(kBlanks, text.substr(0, length)));
    text.remove_prefix(std::min(length + 1, text.size()));
  }
}

bool same_word(std::string_view text, const char* word) {
  return strncasecmp(text.data(), word, text.size()) == 0 && word[text.size()] == '\0';
}

std::string file_text(const std::string& path) {
  std::ifstream file(os::rooted(path));
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace

Names read_name_lines(std::string_view text) {
  Names names;
  for_each_line(text, [&](std::string_view line) {
    const size_t end = line.find_first_of(kBlanks);
    if (!line.starts_with('#') && end != std::string_view::npos) {
      names.emplace(line.substr(0, end), without(kBlanks, line.substr(end)));
    }
  });
  return names;
}

Names read_quick_comments(std::string_view text) {
  Names names;
  std::string_view comment;
  std::string_view name;
  for_each_line(text, [&](std::string_view line) {
    if (line.starts_with('#')) {
      comment = without("# \t\r", line);
      return;
    }
    if (line.empty()) {
      return;
    }
    if (line.starts_with('[')) {
      name = same_word(line, "[Peer]") ? comment : "";
    }
    comment = "";
    const size_t equals = line.find('=');
    if (!name.empty() && equals != std::string_view::npos &&
        same_word(without(kBlanks, line.substr(0, equals)), "PublicKey")) {
      const std::string_view value = line.substr(equals + 1);
      names.emplace(without(kBlanks, value.substr(0, value.find('#'))), name);
    }
  });
  return names;
}

PeerNames::PeerNames(std::string names_file, std::string quick_file)
    : names_file_(std::move(names_file)), quick_file_(std::move(quick_file)) {}

void PeerNames::refresh() {
  names_ = names_file_.empty() ? Names() : read_name_lines(file_text(names_file_));
  names_.merge(read_quick_comments(file_text(quick_file_)));
}

std::string PeerNames::name_of(const std::string& key) const {
  const auto found = names_.find(key);
  return found != names_.end() ? found->second : key;
}

}  // namespace wireguard
