// What a record has to be like to be wanted: FIELD=VALUE and its relatives, as they are typed and
// as they are applied.
//
//   =     equals; a text or a code may end with * for any rest, and \* stands for the star itself;
//         an address may be a network, 192.0.2.0/24, and is found among several; a time may be
//         a whole day
//   !=    is not what = would find
//   < <= > >=   of numbers, durations and times
//   ~ !~  an extended regular expression finds something in a text, or in a code's word
#pragma once

#include <regex.h>

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "time_argument.h"
#include "zorv_schema.h"

namespace zorvctl {

// An IPv4 address is in the last bytes, behind ::ffff:0:0/96.
struct Network {
  unsigned char address[16] = {};
  int bits = -1;  // of the front that count; none without a network
};

struct Filter {
  enum class Kind { equal, between, front, expression, network };

  const zorv::Field* field;
  std::string text;              // equal: of a text field; front: its beginning
  zorv::FieldValue number = {};  // equal and between: of any other; also the first wanted
  Kind kind = Kind::equal;
  bool is_negated = false;
  bool is_limit = false;       // an order comparison
  zorv::FieldValue last = {};  // between; a range that ends before it begins holds nothing
  std::shared_ptr<const regex_t> expression = nullptr;
  Network network = {};

  bool matches(const void* record) const;
  // Of several of one field, one is enough. Otherwise each must hold.
  bool is_alternative() const { return !is_negated && !is_limit; }
  // As the daemon compares it, which knows only equality; "" for what it cannot do.
  std::string wire_text() const;
};

// The filter that a word means for one of these fields. Returns 0, or -1 with the reason, naming
// what is wrong, in *ret_error.
int read_filter(std::span<const zorv::Field> fields, std::string_view what, std::string_view word,
                time_t now, Zone zone, Filter* ret, std::string* ret_error);

// Whether a record is as all of them together want it.
bool match(std::span<const Filter> filters, const void* record);

}  // namespace zorvctl
