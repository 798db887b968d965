// Where an interface's sessions outlast the watcher: one file of JSON an interface, which one
// watcher at a time holds.
#pragma once

#include <string>

#include "descriptor.h"
#include "session_book.h"

namespace wireguard {

// The book as text. A text that is none reads as nothing.
std::string book_text(const Book& book);
std::optional<Book> read_book(std::string_view text);

class BookFile {
 public:
  // FOLDER/INTERFACE.json, and a lock beside it.
  BookFile(std::string_view folder, const std::string& interface);

  // Takes the lock. False when another watcher has it, or there can be none, which is reported.
  bool lock();

  // What the file says; an empty book where there is none. A damaged file is put aside as
  // "INTERFACE.json.damaged" and reported, so is one that cannot be read, which gives nothing.
  std::optional<Book> read() const;

  // In the place of the old one, on the disk when this returns. A failure leaves the old one.
  bool write(const Book& book) const;

 private:
  std::string path_;
  os::Descriptor lock_;
};

}  // namespace wireguard
