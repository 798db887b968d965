// A connection to PostgreSQL, and what went wrong with it.
//
// After a failure the connection is closed: what was under way is rolled back by the server, and
// whoever goes on opens another one. For one thread.
#pragma once

#include <libpq-fe.h>

#include <memory>
#include <string>
#include <string_view>

namespace ship {

struct FreeResult {
  void operator()(PGresult* result) const { PQclear(result); }
};
using Result = std::unique_ptr<PGresult, FreeResult>;

inline std::string_view value_of(const Result& result, int row, int column) {
  return {PQgetvalue(result.get(), row, column),
          static_cast<size_t>(PQgetlength(result.get(), row, column))};
}

// The first line of a server's text, without what a terminal would take for more than text.
std::string one_line(std::string_view text);

class Server {
 public:
  // `to` is a connection string of libpq's, or "" for what its environment says. Where it leaves
  // that open, a server that does not answer is given up after a minute at most.
  bool connect(const std::string& to);
  void close() { connection_.reset(); }
  bool is_open() const { return connection_ != nullptr; }

  // The last statement's result; null after a failure.
  Result run(const std::string& statements);

  // Statements of which the last is a COPY FROM STDIN, then its lines, then statements behind it,
  // whose end is waited for by finish(). False after a failure; finish() also unless the last
  // statement was a COMMIT that took place. `moved` counts the rows that an UPDATE before the COPY
  // changed.
  bool start_copy(const std::string& statements, int* ret_moved);
  bool copy(std::string_view lines);
  bool end_copy(const std::string& statements);
  bool finish();

  std::string literal(std::string_view text) const;
  // One line: why the last call failed.
  const std::string& error() const { return error_; }
  void fail(const std::string& error);

 private:
  struct End {
    void operator()(PGconn* connection) const { PQfinish(connection); }
  };
  bool fail(const PGresult* result);

  std::unique_ptr<PGconn, End> connection_;
  std::string error_;
};

// Whether a connection string holds a password, which other users of the machine could read.
// An invalid one gives false and its complaint.
bool holds_password(const std::string& to, std::string* ret_complaint);

}  // namespace ship
