#include "book_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "json_ref.h"
#include "rooted.h"
#include "whole_file.h"

namespace wireguard {
namespace {

// A member of one of the structures, by its name in the file.
template <class Owner>
struct Member {
  const char* name;
  uint64_t Owner::*number;
  std::string Owner::*text = nullptr;
};

constexpr Member<Setup> kSetup[] = {{"boot", nullptr, &Setup::boot}, {"index", &Setup::index}};
constexpr Member<KnownPeer> kPeer[] = {{"handshake", &KnownPeer::handshake},
                                       {"received", &KnownPeer::received},
                                       {"sent", &KnownPeer::sent},
                                       {"heard", &KnownPeer::heard}};
constexpr Member<Session> kSession[] = {{"name", nullptr, &Session::name},
                                        {"source_ip", nullptr, &Session::source_ip},
                                        {"vpn_ip", nullptr, &Session::vpn_ip},
                                        {"start", &Session::start},
                                        {"last", &Session::last},
                                        {"received_then", &Session::received_then},
                                        {"sent_then", &Session::sent_then}};
constexpr Member<Event> kEvent[] = {{"name", nullptr, &Event::name},
                                    {"source_ip", nullptr, &Event::source_ip},
                                    {"vpn_ip", nullptr, &Event::vpn_ip},
                                    {"time", &Event::time},
                                    {"uptime", &Event::uptime},
                                    {"received", &Event::received},
                                    {"sent", &Event::sent}};

// Names and addresses are whatever somebody wrote into a file: bytes that are no UTF-8 become '?'.
JsonRef text_of(const std::string& text) {
  JsonRef json(json_stringn(text.data(), text.size()));
  if (json == nullptr) {
    std::string plain = text;
    for (char& c : plain) {
      c = static_cast<unsigned char>(c) < 0x80 ? c : '?';
    }
    json.reset(json_stringn(plain.data(), plain.size()));
  }
  return json;
}

JsonRef number_of(uint64_t number) {
  return JsonRef(json_integer(static_cast<json_int_t>(number)));
}

template <class Owner, size_t kCount>
JsonRef written(const Owner& owner, const Member<Owner> (&members)[kCount]) {
  JsonRef json(json_object());
  for (const Member<Owner>& member : members) {
    JsonRef value =
        member.text != nullptr ? text_of(owner.*member.text) : number_of(owner.*member.number);
    json_object_set_new(json.get(), member.name, value.release());
  }
  return json;
}

template <class Owner, size_t kCount>
bool read(const json_t* json, const Member<Owner> (&members)[kCount], Owner* ret) {
  Owner owner;
  for (const Member<Owner>& member : members) {
    const json_t* value = json_object_get(json, member.name);
    if (member.text != nullptr && json_is_string(value)) {
      owner.*member.text = std::string(json_string_value(value), json_string_length(value));
    } else if (member.number != nullptr && json_is_integer(value) &&
               json_integer_value(value) >= 0) {
      owner.*member.number = static_cast<uint64_t>(json_integer_value(value));
    } else {
      return false;
    }
  }
  *ret = std::move(owner);
  return true;
}

bool read_peers(json_t* json, Book* ret_book) {
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(json, key, value) {
    KnownPeer peer;
    Session session;
    const json_t* open = json_object_get(value, "session");
    if (!read(value, kPeer, &peer) || (open != nullptr && !read(open, kSession, &session))) {
      return false;
    }
    if (open != nullptr) {
      peer.session = std::move(session);
    }
    ret_book->peers.emplace(key, std::move(peer));
  }
  return json_is_object(json);
}

bool read_pending(json_t* json, Book* ret_book) {
  size_t index = 0;
  json_t* value = nullptr;
  json_array_foreach(json, index, value) {
    Event event;
    if (!read(value, kEvent, &event)) {
      return false;
    }
    event.is_login = json_is_true(json_object_get(value, "login"));
    ret_book->pending.push_back(std::move(event));
  }
  return json_is_array(json);
}

bool complain(const std::string& path) {
  fmt::print(stderr, "zorv-wireguard: {}: {}\n", path, std::strerror(errno));
  return false;
}

}  // namespace

std::string book_text(const Book& book) {
  const JsonRef json(json_object());
  json_object_set_new(json.get(), "setup", written(book.setup, kSetup).release());
  json_object_set_new(json.get(), "looked", number_of(book.looked).release());
  json_t* peers = json_object();
  json_object_set_new(json.get(), "peers", peers);
  for (const auto& [key, peer] : book.peers) {
    JsonRef entry = written(peer, kPeer);
    if (peer.session) {
      json_object_set_new(entry.get(), "session", written(*peer.session, kSession).release());
    }
    json_object_set_new(peers, key.c_str(), entry.release());
  }
  json_t* pending = json_array();
  json_object_set_new(json.get(), "pending", pending);
  for (const Event& event : book.pending) {
    JsonRef entry = written(event, kEvent);
    json_object_set_new(entry.get(), "login", json_boolean(event.is_login));
    json_array_append_new(pending, entry.release());
  }
  const JsonText text = dump_json(json.get(), JSON_INDENT(1));
  return text != nullptr ? std::string(text.get()) + "\n" : "";
}

std::optional<Book> read_book(std::string_view text) {
  const JsonRef json(json_loadb(text.data(), text.size(), 0, nullptr));
  const json_t* looked = json_object_get(json.get(), "looked");
  Book book;
  if (!json_is_integer(looked) || json_integer_value(looked) < 0 ||
      !read(json_object_get(json.get(), "setup"), kSetup, &book.setup) ||
      !read_peers(json_object_get(json.get(), "peers"), &book) ||
      !read_pending(json_object_get(json.get(), "pending"), &book)) {
    return std::nullopt;
  }
  book.looked = static_cast<uint64_t>(json_integer_value(looked));
  return book;
}

BookFile::BookFile(std::string_view folder, const std::string& interface)
    : path_(os::rooted(fmt::format("{}/{}.json", folder, interface))) {}

bool BookFile::lock() {
  const std::string path = path_ + ".lock";
  lock_.reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (lock_.valid() && flock(lock_.get(), LOCK_EX | LOCK_NB) == 0) {
    return true;
  }
  if (errno != EWOULDBLOCK) {
    return complain(path);
  }
  fmt::print(stderr, "zorv-wireguard: {} is held by another zorv-wireguard\n", path);
  return false;
}

std::optional<Book> BookFile::read() const {
  std::ifstream file(path_);
  std::ostringstream text;
  text << file.rdbuf();
  if (!file) {
    return errno == ENOENT || complain(path_) ? std::optional<Book>(Book()) : std::nullopt;
  }
  std::optional<Book> book = read_book(text.str());
  if (!book) {
    const std::string aside = path_ + ".damaged";
    fmt::print(stderr, "zorv-wireguard: {} is damaged and put aside as {}\n", path_, aside);
    return rename(path_.c_str(), aside.c_str()) == 0 || complain(aside)
               ? std::optional<Book>(Book())
               : std::nullopt;
  }
  return book;
}

bool BookFile::write(const Book& book) const {
  const std::string text = book_text(book);
  const std::string next = path_ + ".new";
  os::Descriptor file(
      open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (text.empty() || !file.valid() || !os::write_all(file.get(), text) || fsync(file.get()) != 0 ||
      rename(next.c_str(), path_.c_str()) != 0) {
    return false;
  }
  return os::sync_folder_of(path_);
}

}  // namespace wireguard
