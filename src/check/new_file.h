// A new database made of what a damaged one still holds, and its way into the other's place.
//
// All names are of files in the current folder. Until the last step the damaged file is as it was,
// and at no moment is there none.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace check {

class Salvage {
 public:
  // `descriptor` is the damaged file, open for reading, and `file` its name.
  Salvage(int descriptor, std::string file);
  ~Salvage();  // removes the new file, unless it has taken the other's place
  Salvage(const Salvage&) = delete;
  Salvage& operator=(const Salvage&) = delete;

  // Copies every row into a new file with the owner and the mode of the damaged one. False when
  // that is not possible; complaint() then tells why. `show` is told how far it is.
  bool copy_rows(const std::function<void(uint32_t page, uint32_t pages)>& show);
  // Puts the damaged file aside, where the newest three are kept, and the new one into its place.
  bool replace();

  int64_t rows() const { return rows_; }
  const std::string& aside() const { return aside_; }
  const std::string& complaint() const { return complaint_; }

 private:
  bool complain(const std::string& what);
  bool make_new_file();
  bool link_aside();

  int descriptor_;
  std::string file_;
  std::string new_file_;
  std::string aside_{};
  std::string complaint_{};
  int64_t rows_ = 0;
  bool is_made_ = false;
};

// Whether any process has the file open, this one's `descriptor` aside. False where that cannot be
// told: only the file's owner and root may ask.
bool is_in_use(int descriptor);

}  // namespace check
