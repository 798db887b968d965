#include "new_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <set>

#include "descriptor.h"
#include "row_pages.h"
#include "soundness.h"
#include "whole_file.h"
#include "zorvd_db_helper.h"

namespace check {
namespace {

constexpr size_t kKeptAside = 3;
constexpr const char* kCompanions[] = {"-journal", "-wal", "-shm"};

struct EndStatement {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, EndStatement>;

void bind(sqlite3_stmt* statement, int index, const RawRow& row, size_t number, int encoding) {
  const RawColumn& column = row.columns[number];
  const Bytes bytes = row.bytes(column);
  if (column.type == 0) {
    sqlite3_bind_null(statement, index);
  } else if (column.type == 7) {
    const uint64_t bits = uint64_t{big_endian(bytes, 0, 4)} << 32 | big_endian(bytes, 4, 4);
    double real = 0;
    std::memcpy(&real, &bits, sizeof real);
    sqlite3_bind_double(statement, index, real);
  } else if (column.type < 12) {
    sqlite3_bind_int64(statement, index, row.integer(number));
  } else if (column.is_text()) {
    sqlite3_bind_text64(statement, index, reinterpret_cast<const char*>(bytes.data()), bytes.size(),
                        SQLITE_STATIC, static_cast<unsigned char>(encoding));
  } else {
    sqlite3_bind_blob64(statement, index, bytes.data(), bytes.size(), SQLITE_STATIC);
  }
}

// The new file: the daemon's own tables, filled in one transaction that nobody else sees.
class NewDatabase {
 public:
  explicit NewDatabase(const std::string& file) {
    std::vector<std::string> texts;
    for (const zorv::TableSchema* schema : zorv::kTables) {
      if (is_kept(*schema)) {
        store::Table table(*schema);
        store::create(table, file.c_str());
        texts.emplace_back(table.__db_create_str.c_str());
      }
    }
    sqlite3* db = nullptr;
    result_ = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    db_.reset(db);
    run("PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF; BEGIN");
    // They are there, or now it shows why not.
    for (const std::string& text : texts) {
      run(text.c_str());
    }
  }

  int insert(const zorv::TableSchema& table, const RawRow& row, int encoding) {
    Statement& statement = inserts_[&table];
    if (statement == nullptr) {
      std::string text = std::string("INSERT OR IGNORE INTO ") + table.name + " VALUES (?";
      for (size_t i = 1; i < table.fields.size(); ++i) {
        text += ", ?";
      }
      statement = prepare((text + ")").c_str());
    }
    if (result_ == SQLITE_OK) {
      sqlite3_bind_int64(statement.get(), 1, row.id);
      for (size_t i = 1; i < row.columns.size(); ++i) {
        bind(statement.get(), static_cast<int>(i) + 1, row, i, encoding);
      }
      step(statement);
      rows_ += sqlite3_changes(db_.get());
    }
    return result_;
  }

  // No id is given twice, also where its row is gone. One near the end of all numbers is damage.
  void set_highest(const HighestIds& highest) {
    Statement make = prepare(
        "INSERT INTO sqlite_sequence SELECT ?1, 0 WHERE NOT EXISTS "
        "(SELECT * FROM sqlite_sequence WHERE name = ?1)");
    Statement raise = prepare("UPDATE sqlite_sequence SET seq = max(seq, ?2) WHERE name = ?1");
    for (const auto& [table, id] : highest) {
      if (result_ == SQLITE_OK && id > 0 && id < INT32_MAX) {
        sqlite3_bind_text(make.get(), 1, table->name, -1, SQLITE_STATIC);
        step(make);
        sqlite3_bind_text(raise.get(), 1, table->name, -1, SQLITE_STATIC);
        sqlite3_bind_int64(raise.get(), 2, id);
        step(raise);
      }
    }
  }

  int finish() {
    inserts_.clear();
    run("COMMIT");
    return result_;
  }

  int64_t rows() const { return rows_; }
  const char* error() const { return error_.c_str(); }

 private:
  void note(int result) {
    if (result != SQLITE_OK && result != SQLITE_DONE && result_ == SQLITE_OK) {
      result_ = result;
      error_ = sqlite3_errmsg(db_.get());
    }
  }
  void run(const char* text) {
    if (result_ == SQLITE_OK) {
      note(sqlite3_exec(db_.get(), text, nullptr, nullptr, nullptr));
    }
  }
  Statement prepare(const char* text) {
    sqlite3_stmt* statement = nullptr;
    if (result_ == SQLITE_OK) {
      note(sqlite3_prepare_v2(db_.get(), text, -1, &statement, nullptr));
    }
    return Statement(statement);
  }
  void step(const Statement& statement) {
    note(sqlite3_step(statement.get()));
    sqlite3_reset(statement.get());
  }

  store::Database db_{};
  std::map<const zorv::TableSchema*, Statement> inserts_{};
  int result_ = SQLITE_OK;
  std::string error_ = "out of memory";
  int64_t rows_ = 0;
};

// What other programs keep beside a database is for the damaged one only.
bool move_companions(const std::string& from, const std::string& to) {
  for (const char* companion : kCompanions) {
    if (rename((from + companion).c_str(), (to + companion).c_str()) != 0 && errno != ENOENT) {
      return false;
    }
  }
  return true;
}

void drop_oldest(const std::string& file, const std::string& newest) {
  std::set<std::string> kept;  // in the order of their dates
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(".", ignored)) {
    const std::string name = entry.path();
    if (name.starts_with(file + "@") && name.ends_with("~") && name != newest) {
      kept.insert(name);
    }
  }
  for (; kept.size() >= kKeptAside; kept.erase(kept.begin())) {
    unlink(kept.begin()->c_str());
    for (const char* companion : kCompanions) {
      unlink((*kept.begin() + companion).c_str());
    }
  }
}

}  // namespace

Salvage::Salvage(int descriptor, std::string file)
    : descriptor_(descriptor), file_(std::move(file)), new_file_(file_ + ".new") {}

Salvage::~Salvage() {
  if (is_made_) {
    unlink(new_file_.c_str());
  }
}

bool Salvage::complain(const std::string& what) {
  complaint_ = what;
  return false;
}

// As the damaged one is, also while it is filled.
bool Salvage::make_new_file() {
  struct stat status {};
  unlink(new_file_.c_str());  // of a repair that was cut off
  unlink((new_file_ + "-journal").c_str());
  const os::Descriptor made(open(new_file_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  is_made_ = made.valid();
  if (!is_made_ || fstat(descriptor_, &status) != 0) {
    return false;
  }
  const bool is_ours = status.st_uid == geteuid() && status.st_gid == getegid();
  return (is_ours || fchown(made.get(), status.st_uid, status.st_gid) == 0) &&
         fchmod(made.get(), status.st_mode & 07777) == 0;
}

bool Salvage::copy_rows(const std::function<void(uint32_t, uint32_t)>& show) {
  if (!make_new_file()) {
    return complain(std::strerror(errno));
  }
  const Pages pages(descriptor_);
  NewDatabase made(new_file_);
  const auto take = [&](const zorv::TableSchema& table, const RawRow& row) {
    return made.insert(table, row, pages.encoding());
  };
  const auto tick = [&show](uint32_t page, uint32_t count) {
    show(page, count);
    return is_cancelled() ? SQLITE_INTERRUPT : SQLITE_OK;
  };
  HighestIds highest;
  if (read_rows(pages, {take, tick}, highest) == SQLITE_INTERRUPT) {
    return complain("cancelled");
  }
  made.set_highest(highest);
  if (made.finish() != SQLITE_OK) {
    return complain(made.error());
  }
  rows_ = made.rows();
  if (const Finding finding = look(new_file_, false); finding.verdict != Verdict::sound) {
    return complain("the copy: " + finding.text);
  }
  const os::Descriptor written(open(new_file_.c_str(), O_RDWR | O_CLOEXEC));
  return (written.valid() && fsync(written.get()) == 0) || complain(std::strerror(errno));
}

bool Salvage::link_aside() {
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  char date[32];
  const size_t length = strftime(date, sizeof date, "@%Y-%m-%dT%H-%M-%S~", &local);
  const std::string name = file_ + std::string(date, length);
  aside_ = name;
  for (int i = 2; link(file_.c_str(), aside_.c_str()) != 0; ++i) {
    if (errno != EEXIST || i > 99) {
      return false;
    }
    aside_ = name + std::to_string(i) + "~";
  }
  return true;
}

bool Salvage::replace() {
  if (is_in_use(descriptor_)) {
    return complain("another program has opened it");
  }
  if (!link_aside()) {
    return complain(std::strerror(errno));
  }
  if (!move_companions(file_, aside_) || !os::sync_folder_of(file_) ||
      rename(new_file_.c_str(), file_.c_str()) != 0) {
    const std::string reason = std::strerror(errno);
    move_companions(aside_, file_);
    unlink(aside_.c_str());
    return complain(reason);
  }
  is_made_ = false;
  drop_oldest(file_, aside_);
  return os::sync_folder_of(file_) || complain(std::strerror(errno));
}

bool is_in_use(int descriptor) {
  // A lease is given to a file's only user; whoever opens it meanwhile would wait for its end.
  if (fcntl(descriptor, F_SETLEASE, F_WRLCK) != 0) {
    return errno == EAGAIN;
  }
  fcntl(descriptor, F_SETLEASE, F_UNLCK);
  return false;
}

}  // namespace check
