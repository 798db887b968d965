// zorv-check [--repair] [FILE]: checks the database before the daemon opens it, and repairs it.
//
// The exit status is that of fsck(8), so that what starts the daemon can tell how it went.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "descriptor.h"
#include "logger.h"
#include "new_file.h"
#include "rooted.h"
#include "soundness.h"
#include "zorvd_db_helper.h"

namespace {

LogModule log_module{"zorv_check"};

using check::Finding;
using check::Verdict;

// As bits: several may hold.
enum Status : int {
  kSound = 0,
  kCorrected = 1,
  kLeft = 4,
  kFailed = 8,
  kUsage = 16,
  kCancelled = 32,
};

// How far it is, in one line of a terminal that goes away in the end.
class Progress {
 public:
  explicit Progress(const std::string& file) : file_(file), is_shown_(isatty(STDERR_FILENO) == 1) {}
  ~Progress() { show("\r\033[K"); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void checking() const { show("\r" + file_ + ": checking"); }
  void rebuilding() const { show("\r\033[K" + file_ + ": rebuilding indexes"); }
  void copying(uint32_t page, uint32_t pages) {
    const auto percent = static_cast<int>(uint64_t{page} * 100 / pages);
    if (percent != percent_) {
      percent_ = percent;
      show("\r\033[K" + file_ + ": copying rows, " + std::to_string(percent) + " %");
    }
  }

 private:
  void show(const std::string& text) const {
    if (is_shown_) {
      std::fputs(text.c_str(), stderr);
    }
  }

  std::string file_;
  bool is_shown_;
  int percent_ = -1;
};

// Says in the log, and to whoever waits, how it ended.
int report(int status, const std::string& file, const std::string& text) {
  if (status == kCorrected) {
    std::printf("%s: %s\n", file.c_str(), text.c_str());
    ZORV_LOG(warn, "%s: %s\n", file.c_str(), text.c_str());
  } else {
    std::fprintf(stderr, "zorv-check: %s: %s\n", file.c_str(), text.c_str());
    ZORV_LOG(error, "%s: %s\n", file.c_str(), text.c_str());
  }
  return status;
}

// The cheapest repair that holds. `path` is for people, `name` the file in the current folder.
int repair(const std::string& path, const std::string& name, int descriptor, const Finding& found,
           Progress& progress) {
  if (found.verdict == Verdict::indexes) {
    progress.rebuilding();
    if (check::rebuild_indexes(name) == 0 && check::look(name, true).verdict == Verdict::sound) {
      return report(kCorrected, path, found.text + "; indexes rebuilt");
    }
  }
  check::Salvage salvage(descriptor, name);
  if (check::is_cancelled() || !salvage.copy_rows([&progress](uint32_t page, uint32_t pages) {
        progress.copying(page, pages);
      }) ||
      !salvage.replace()) {
    return report(kLeft | (check::is_cancelled() ? kCancelled : kFailed), path,
                  found.text + "; not repaired: " +
                      (salvage.complaint().empty() ? "cancelled" : salvage.complaint()));
  }
  const std::string folder = std::filesystem::path(path).parent_path();
  return report(
      kCorrected, path,
      found.text + "; " + std::to_string(salvage.rows()) +
          " rows copied into a new file, the damaged one is " +
          (std::filesystem::path(folder) / std::filesystem::path(salvage.aside()).filename())
              .string());
}

int check_file(const std::string& path, bool is_repair) {
  // The file itself, so that a link to it stays one.
  char real[PATH_MAX];
  if (realpath(os::rooted(path).c_str(), real) == nullptr) {
    return errno == ENOENT ? kSound : report(kFailed, path, std::strerror(errno));
  }
  const os::Descriptor file(open(real, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0) {
    return report(kFailed, path, std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    return report(kFailed, path, "not a regular file");
  }
  if (status.st_size == 0) {
    return kSound;
  }
  if (is_repair && check::is_in_use(file.get())) {
    return report(kFailed, path, "in use by another program: stop the daemon first");
  }
  const std::filesystem::path place(real);
  if (chdir(place.parent_path().c_str()) != 0) {
    return report(kFailed, path, std::strerror(errno));
  }
  const std::string name = "./" + place.filename().string();

  Progress progress(path);
  progress.checking();
  const Finding finding = check::look(name, is_repair);
  if (check::is_cancelled()) {
    return report(kCancelled, path, "cancelled");
  }
  switch (finding.verdict) {
    case Verdict::sound:
      return kSound;
    case Verdict::unknown:
      return report(kFailed, path, finding.text);
    case Verdict::indexes:
    case Verdict::damaged:
      break;
  }
  return is_repair ? repair(path, name, file.get(), finding, progress)
                   : report(kLeft, path, finding.text + "; not repaired without --repair");
}

int run(int count, char** words) {
  CLI::App program("Checks the database of the VPN service's record daemon.", "zorv-check");
  bool is_repair = false;
  std::string file = store::kDatabaseFile;
  program.add_flag("--repair", is_repair, "Repair what is damaged; the daemon must not run");
  program.add_option("FILE", file, "The database")->capture_default_str();
  program.set_version_flag("--version", "zorv-check " ZORV_VERSION, "Print the version");
  try {
    program.parse(count, words);
  } catch (const CLI::ParseError& error) {
    return program.exit(error) == 0 ? kSound : kUsage;
  }
  // What the store says of its own on the way is not for this log.
  __cur_level__ = static_cast<int>(LogLevel::warn);
  check::end_on_signals();
  return check_file(file, is_repair);
}

}  // namespace

int main(int count, char** words) {
  try {
    return run(count, words);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zorv-check: %s\n", error.what());
    return kFailed;
  }
}
