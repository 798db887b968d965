// The server's side of shipping: the places of one NAS, and pages of rows that move them.
//
// A page and the place behind it are one transaction, and the place moves only from where it was
// read. So whatever breaks, and whenever, the place read next is true, and a row is there once. Two
// shippers with one name on one machine take turns in that way; another machine's is refused by the
// origin that the place bears.
#pragma once

#include <array>
#include <cstddef>
#include <iterator>
#include <string>

#include "log_reader.h"
#include "server.h"

namespace ship {

enum class Opened { done, failed, other_machine, other_schema };

class Shipment {
 public:
  Shipment(std::string to, std::string name, std::string origin)
      : to_(std::move(to)), name_(std::move(name)), origin_(std::move(origin)) {}

  // Connects and reads the places, in the order of kLogs. `take_over` makes this machine the
  // origin.
  Opened open(bool take_over, std::array<Place, std::size(kLogs)>* ret_places);
  bool is_open() const { return server_.is_open(); }
  void close() { server_.close(); }

  // Hands a page over, which may be forgotten then. `place` is where the log stands, and becomes
  // where it will stand when finish() has succeeded; a failure of either leaves it to be read anew.
  bool send(const ShippedLog& log, const NewRows& rows, Place* place);
  bool finish() { return server_.finish(); }

  // Tells the server that the NAS is alive although it has no rows.
  bool say_alive();

  const std::string& error() const { return server_.error(); }

 private:
  bool copy_rows(const ShippedLog& log, const NewRows& rows);

  std::string to_;
  std::string name_;
  std::string origin_;
  std::string nas_;  // the name as a literal
  Server server_;
};

}  // namespace ship
