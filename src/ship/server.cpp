#include "server.h"

#include <cstdlib>

namespace ship {
namespace {

// A server notices as soon as its caller that the other side is gone, and lets go of its locks.
constexpr const char* kSession =
    "SET client_min_messages = warning; SET tcp_keepalives_idle = 30;"
    "SET tcp_keepalives_interval = 10; SET tcp_keepalives_count = 3;"
    "SET lock_timeout = '10s'; SET datestyle = 'ISO'; SET timezone = 'UTC'";

}  // namespace

std::string one_line(std::string_view text) {
  std::string line(text.substr(0, text.find('\n')));
  for (char& byte : line) {
    if (static_cast<unsigned char>(byte) < ' ' || byte == 0x7F) {
      byte = '?';
    }
  }
  return line;
}

bool Server::connect(const std::string& to) {
  setenv("PGCONNECT_TIMEOUT", "10", 0);
  // The connection string comes last and has the last word.
  static constexpr const char* kKeywords[] = {
      "fallback_application_name", "keepalives_idle", "keepalives_interval", "keepalives_count",
      "tcp_user_timeout",          "dbname",          "client_encoding",     nullptr};
  const char* const values[] = {"zorv-ship", "30", "10", "3", "60000", to.c_str(), "UTF8", nullptr};
  connection_.reset(PQconnectdbParams(kKeywords, values, 1));
  if (PQstatus(connection_.get()) != CONNECTION_OK) {
    return fail(nullptr);
  }
  PQsetNoticeProcessor(
      connection_.get(), [](void*, const char*) {}, nullptr);
  return run(kSession) != nullptr;
}

bool Server::fail(const PGresult* result) {
  const char* const text = result != nullptr && *PQresultErrorMessage(result) != '\0'
                               ? PQresultErrorMessage(result)
                               : PQerrorMessage(connection_.get());
  fail(std::string(text));
  return false;
}

void Server::fail(const std::string& error) {
  error_ = error.empty() ? "the connection broke" : one_line(error);
  close();
}

Result Server::run(const std::string& statements) {
  Result result(PQexec(connection_.get(), statements.c_str()));
  const ExecStatusType status = PQresultStatus(result.get());
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
    fail(result.get());
    return nullptr;
  }
  return result;
}

bool Server::start_copy(const std::string& statements, int* ret_moved) {
  if (PQsendQuery(connection_.get(), statements.c_str()) == 0) {
    return fail(nullptr);
  }
  while (true) {
    const Result result(PQgetResult(connection_.get()));
    const ExecStatusType status = PQresultStatus(result.get());
    if (status == PGRES_COPY_IN) {
      return true;
    }
    if (status != PGRES_COMMAND_OK) {
      return fail(result.get());
    }
    if (const char* const rows = PQcmdTuples(result.get()); *rows != '\0') {
      *ret_moved = std::atoi(rows);
    }
  }
}

bool Server::copy(std::string_view lines) {
  return PQputCopyData(connection_.get(), lines.data(), static_cast<int>(lines.size())) == 1 ||
         fail(nullptr);
}

bool Server::end_copy(const std::string& statements) {
  if (PQputCopyEnd(connection_.get(), nullptr) != 1) {
    return fail(nullptr);
  }
  while (const Result result{PQgetResult(connection_.get())}) {
    if (PQresultStatus(result.get()) != PGRES_COMMAND_OK) {
      return fail(result.get());
    }
  }
  return PQsendQuery(connection_.get(), statements.c_str()) == 1 || fail(nullptr);
}

bool Server::finish() {
  std::string last;
  while (const Result result{PQgetResult(connection_.get())}) {
    if (PQresultStatus(result.get()) != PGRES_COMMAND_OK) {
      return fail(result.get());
    }
    last = PQcmdStatus(result.get());
  }
  if (last != "COMMIT") {
    return fail(nullptr);
  }
  return true;
}

std::string Server::literal(std::string_view text) const {
  const std::unique_ptr<char, void (*)(void*)> quoted(
      PQescapeLiteral(connection_.get(), text.data(), text.size()), PQfreemem);
  return quoted != nullptr ? quoted.get() : "''";
}

bool holds_password(const std::string& to, std::string* ret_complaint) {
  // As libpq has it: what is no list of options is the name of a database.
  const bool is_options = to.find('=') != std::string::npos || to.starts_with("postgres://") ||
                          to.starts_with("postgresql://");
  if (!is_options) {
    return false;
  }
  char* raw_complaint = nullptr;
  const std::unique_ptr<PQconninfoOption, void (*)(PQconninfoOption*)> options(
      PQconninfoParse(to.c_str(), &raw_complaint), PQconninfoFree);
  const std::unique_ptr<char, void (*)(void*)> complaint(raw_complaint, PQfreemem);
  if (options == nullptr) {
    *ret_complaint = one_line(complaint != nullptr ? complaint.get() : "no memory");
    return false;
  }
  for (const PQconninfoOption* option = options.get(); option->keyword != nullptr; ++option) {
    if (std::string_view(option->keyword).ends_with("password") && option->val != nullptr) {
      return true;
    }
  }
  return false;
}

}  // namespace ship
