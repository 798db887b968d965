#include "shipment.h"

#include <fmt/format.h>

#include <cstdlib>

#include "record_text.h"
#include "schema.h"
#include "statements.h"

namespace ship {
namespace {

constexpr size_t kCopyBlock = size_t{64} << 10;

}  // namespace

Opened Shipment::open(bool take_over, std::array<Place, std::size(kLogs)>* ret_places) {
  if (!server_.connect(to_)) {
    return Opened::failed;
  }
  nas_ = server_.literal(name_);
  const Result version = server_.run("SELECT version FROM zorv.schema_version");
  if (version == nullptr) {
    return Opened::failed;
  }
  if (value_of(version, 0, 0) != std::to_string(kSchemaVersion)) {
    server_.fail(fmt::format("the schema there has version {}, and this program is for {}",
                             value_of(version, 0, 0), kSchemaVersion));
    return Opened::other_schema;
  }
  std::string statements;
  for (const ShippedLog& log : kLogs) {
    statements += fmt::format(
        "INSERT INTO zorv.place (nas, log, origin) VALUES ({}, '{}', {}) ON CONFLICT DO "
        "NOTHING;{};",
        nas_, log.name, server_.literal(origin_), make_staging(log));
  }
  if (take_over) {
    statements += fmt::format("UPDATE zorv.place SET origin = {} WHERE nas = {};",
                              server_.literal(origin_), nas_);
  }
  if (server_.run(statements) == nullptr) {
    return Opened::failed;
  }
  for (size_t index = 0; index < std::size(kLogs); ++index) {
    const Result row =
        server_.run(fmt::format("SELECT generation, last_id, digest, origin FROM zorv.place "
                                "WHERE nas = {} AND log = '{}'",
                                nas_, kLogs[index].name));
    if (row == nullptr) {
      return Opened::failed;
    }
    if (PQntuples(row.get()) != 1) {
      server_.fail(fmt::format("the place of {} cannot be read", name_));
      return Opened::failed;
    }
    if (value_of(row, 0, 3) != origin_) {
      return Opened::other_machine;
    }
    (*ret_places)[index] = {std::strtoll(PQgetvalue(row.get(), 0, 0), nullptr, 10),
                            std::strtoll(PQgetvalue(row.get(), 0, 1), nullptr, 10),
                            std::string(value_of(row, 0, 2))};
  }
  return Opened::done;
}

bool Shipment::send(const ShippedLog& log, const NewRows& rows, Place* place) {
  const void* const last = rows.page.record(rows.page.count - 1);
  const Place next{rows.from.generation, id_of(*log.table, last), digest_of(*log.table, last)};
  const std::string move = fmt::format(
      "UPDATE zorv.place SET generation = {}, last_id = {}, digest = '{}', last_time = {}, "
      "shipped = shipped + {}, lost = lost + {}, seen = now() "
      "WHERE nas = {} AND log = '{}' AND generation = {} AND last_id = {} AND digest = {}",
      next.generation, next.last_id, next.digest,
      timestamp_of(number_text(zorv::get(*log.table->time, last)) + "::bigint"),
      rows.page.count - rows.first, rows.lost, nas_, log.name, place->generation, place->last_id,
      server_.literal(place->digest));
  int moved = 0;
  if (!server_.start_copy(fmt::format("BEGIN;{};{}", move, copy_into_staging(log)), &moved)) {
    return false;
  }
  if (moved != 1) {
    server_.fail(fmt::format("another zorv-ship has moved the place of {}", name_));
    return false;
  }
  if (!copy_rows(log, rows) ||
      !server_.end_copy(insert_from_staging(log, nas_, next.generation) + ";COMMIT")) {
    return false;
  }
  *place = next;
  return true;
}

bool Shipment::copy_rows(const ShippedLog& log, const NewRows& rows) {
  std::string lines;
  for (record_uint64 index = rows.first; index < rows.page.count; ++index) {
    append_copy_line(*log.table, rows.page.record(index), &lines);
    const bool is_last = index + 1 == rows.page.count;
    if (lines.size() >= kCopyBlock || is_last) {
      if (!server_.copy(lines)) {
        return false;
      }
      lines.clear();
    }
  }
  return true;
}

bool Shipment::say_alive() {
  return server_.run(fmt::format("UPDATE zorv.place SET seen = now() WHERE nas = {}", nas_)) !=
         nullptr;
}

}  // namespace ship
