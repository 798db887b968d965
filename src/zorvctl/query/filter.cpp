#include "filter.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <optional>

#include "display_text.h"
#include "value_text.h"
#include "whole_number.h"

namespace zorvctl {
namespace {

constexpr int kAddressBits = 128;
constexpr int kIpv4Front = 96;  // bits in front of an IPv4 address
constexpr unsigned char kIpv4Mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

enum class Order { none, below, at_most, above, at_least };

struct Operator {
  std::string_view sign;
  bool is_negated;
  bool is_expression;
  Order order;
};
// Where one begins with another, the longer stands in front.
constexpr Operator kOperators[] = {
    {"!=", true, false, Order::none},     {"!~", true, true, Order::none},
    {"<=", false, false, Order::at_most}, {">=", false, false, Order::at_least},
    {"<", false, false, Order::below},    {">", false, false, Order::above},
    {"=", false, false, Order::none},     {"~", false, true, Order::none},
};

struct Words {
  std::string_view name;
  const Operator* sign;
  std::string_view value;
};

std::optional<Words> words_of(std::string_view word) {
  const size_t end = std::min(word.find_first_of("!<>=~"), word.size());
  for (const Operator& one : kOperators) {
    if (word.substr(end).starts_with(one.sign)) {
      return Words{word.substr(0, end), &one, word.substr(end + one.sign.size())};
    }
  }
  return std::nullopt;
}

bool read_address(std::string_view text, Network* ret) {
  const std::string terminated(text.substr(0, text.find('%')));  // of a zone, the address
  in_addr ipv4{};
  if (inet_pton(AF_INET, terminated.c_str(), &ipv4) == 1) {
    *ret = {};
    std::memcpy(ret->address, kIpv4Mapped, sizeof kIpv4Mapped);
    std::memcpy(ret->address + sizeof kIpv4Mapped, &ipv4, sizeof ipv4);
    ret->bits = kAddressBits - kIpv4Front;
    return true;
  }
  const bool read = inet_pton(AF_INET6, terminated.c_str(), ret->address) == 1;
  ret->bits = read ? kAddressBits : ret->bits;
  return read;
}

// An address alone is a network of one.
bool read_network(std::string_view text, Network* ret) {
  const size_t slash = text.find('/');
  Network network;
  if (!read_address(text.substr(0, slash), &network)) {
    return false;
  }
  int bits = network.bits;
  if (slash != std::string_view::npos &&
      (!whole_number(text.substr(slash + 1), &bits) || bits < 0 || bits > network.bits)) {
    return false;
  }
  network.bits = kAddressBits - network.bits + bits;
  *ret = network;
  return true;
}

bool holds(const Network& network, std::string_view address_text) {
  Network address;
  if (!read_address(address_text, &address)) {
    return false;
  }
  const bool is_ipv4 = std::memcmp(address.address, kIpv4Mapped, sizeof kIpv4Mapped) == 0;
  if (is_ipv4 && network.bits < kIpv4Front) {
    return false;  // ::/0 is all of IPv6
  }
  const auto bytes = static_cast<size_t>(network.bits) / 8;
  const int rest = network.bits % 8;
  return std::memcmp(network.address, address.address, bytes) == 0 &&
         (rest == 0 || ((network.address[bytes] ^ address.address[bytes]) >> (8 - rest)) == 0);
}

bool holds_one_of(const Network& network, std::string_view addresses) {
  while (true) {
    const size_t comma = addresses.find(',');
    if (holds(network, addresses.substr(0, comma))) {
      return true;
    }
    if (comma == std::string_view::npos) {
      return false;
    }
    addresses.remove_prefix(comma + 1);
  }
}

// Null after a complaint in *ret_error.
std::shared_ptr<const regex_t> compiled(const std::string& text, std::string* ret_error) {
  use_utf8_characters();
  auto expression = std::make_unique<regex_t>();
  const int error = regcomp(expression.get(), text.c_str(), REG_EXTENDED | REG_NOSUB);
  if (error != 0) {
    char reason[128];
    regerror(error, expression.get(), reason, sizeof reason);
    *ret_error = fmt::format("'{}' is not a regular expression: {}", display_text(text), reason);
    return nullptr;
  }
  return {expression.release(), [](regex_t* done) {
            regfree(done);
            delete done;  // NOLINT(cppcoreguidelines-owning-memory): the deleter of its owner
          }};
}

FieldValue next(const FieldValue& value, int step) {
  const auto* number = std::get_if<record_int64>(&value);
  return number != nullptr
             ? FieldValue(*number + step)
             : FieldValue(std::get<record_uint64>(value) +
                          static_cast<record_uint64>(static_cast<record_int64>(step)));
}

template <class Number>
Filter range_of(Filter filter, Order order) {
  constexpr Number kLeast = std::numeric_limits<Number>::min();
  constexpr Number kMost = std::numeric_limits<Number>::max();
  const FieldValue first = filter.number;
  const FieldValue last = filter.last;
  filter.kind = Filter::Kind::between;
  filter.is_limit = true;
  filter.number = FieldValue(kLeast);
  filter.last = FieldValue(kMost);
  const bool is_empty = (order == Order::below && first == FieldValue(kLeast)) ||
                        (order == Order::above && last == FieldValue(kMost));
  if (is_empty) {
    filter.number = FieldValue(Number{1});
    filter.last = FieldValue(Number{0});
  } else if (order == Order::below) {
    filter.last = next(first, -1);
  } else if (order == Order::at_most) {
    filter.last = last;
  } else if (order == Order::above) {
    filter.number = next(last, 1);
  } else {
    filter.number = first;
  }
  return filter;
}

// "al*" is a front, "al\*" the text "al*".
int read_text(std::string_view value, Filter* filter, std::string* ret_error) {
  if (value.ends_with("\\*")) {
    value.remove_suffix(2);
    filter->text = std::string(value) + "*";
  } else if (value.ends_with('*')) {
    value.remove_suffix(1);
    filter->kind = Filter::Kind::front;
    filter->text = value;
  } else {
    filter->text = value;
  }
  FieldValue held;
  return filter->field->is_text()
             ? read_value(*filter->field, filter->text, 0, Zone::utc, &held, ret_error)
             : 0;
}

int read_address_value(std::string_view value, Filter* filter, std::string* ret_error) {
  if (value.find('/') == std::string_view::npos) {
    const bool is_one_of_several =
        filter->field->meaning == Meaning::addresses && read_network(value, &filter->network);
    filter->kind = is_one_of_several ? Filter::Kind::network : filter->kind;
    return is_one_of_several ? 0 : read_text(value, filter, ret_error);
  }
  filter->kind = Filter::Kind::network;
  if (!read_network(value, &filter->network)) {
    *ret_error = fmt::format("'{}' is not a network such as 192.0.2.0/24 or 2001:db8::/32",
                             display_text(value));
    return -1;
  }
  return 0;
}

bool is_known_front(const Field& field, std::string_view front) {
  return std::any_of(field.words.begin(), field.words.end(), [&](const zorv::CodeWord& word) {
    return is_same_typed(front, typed_value(field, record_int64{word.code}), true);
  });
}

int read_code(std::string_view value, time_t now, Zone zone, Filter* filter,
              std::string* ret_error) {
  if (value.ends_with('*') && is_known_front(*filter->field, value.substr(0, value.size() - 1))) {
    return read_text(value, filter, ret_error);
  }
  const int status = read_value(*filter->field, value, now, zone, &filter->number, ret_error);
  if (const auto* word = std::get_if<std::string_view>(&filter->number)) {
    filter->text = std::string(*word);
    filter->number = {};
  }
  return status;
}

int read_time(std::string_view value, time_t now, Zone zone, Filter* filter,
              std::string* ret_error) {
  TimeSpan span{};
  const int status = parse_time_span(value, now, zone, &span);
  if (status != 0 || span.first == span.last) {
    return read_value(*filter->field, value, now, zone, &filter->number, ret_error);
  }
  filter->kind = Filter::Kind::between;
  filter->number = record_uint64{span.first};
  filter->last = record_uint64{span.last};
  return 0;
}

int read_equal(std::string_view value, time_t now, Zone zone, Filter* filter,
               std::string* ret_error) {
  switch (filter->field->meaning) {
    case Meaning::text:
      return read_text(value, filter, ret_error);
    case Meaning::address:
    case Meaning::addresses:
      return read_address_value(value, filter, ret_error);
    case Meaning::code:
      return read_code(value, now, zone, filter, ret_error);
    case Meaning::time:
      return read_time(value, now, zone, filter, ret_error);
    default:
      return read_value(*filter->field, value, now, zone, &filter->number, ret_error);
  }
}

bool is_word(const Field& field) {
  return field.is_text() || field.meaning == Meaning::code;
}

}  // namespace

int read_filter(std::span<const zorv::Field> fields, std::string_view what, std::string_view word,
                time_t now, Zone zone, Filter* ret, std::string* ret_error) {
  const auto words = words_of(word);
  if (!words) {
    *ret_error = fmt::format("'{}' is not FIELD=VALUE", display_text(word));
    return -1;
  }
  Filter filter{field_called(fields, words->name), ""};
  if (filter.field == nullptr) {
    *ret_error = fmt::format("'{}' is not a field of {}; it has: {}", display_text(words->name),
                             what, field_names(fields));
    return -1;
  }
  const Operator& sign = *words->sign;
  const std::string name = typed_name(*filter.field);
  filter.is_negated = sign.is_negated;
  if (sign.order != Order::none ? is_word(*filter.field)
                                : sign.is_expression && !is_word(*filter.field)) {
    *ret_error =
        sign.is_expression
            ? fmt::format("'{}' is for texts and codes, and {} is neither", sign.sign, name)
            : fmt::format("'{}' is for numbers and times, and {} is neither", sign.sign, name);
    return -1;
  }
  if (sign.is_expression) {
    filter.kind = Filter::Kind::expression;
    filter.expression = compiled(std::string(words->value), ret_error);
    if (filter.expression == nullptr) {
      return -1;
    }
  } else if (read_equal(words->value, now, zone, &filter, ret_error) != 0) {
    return -1;
  }
  if (sign.order != Order::none) {
    if (filter.kind == Filter::Kind::equal) {
      filter.last = filter.number;
    }
    filter = std::holds_alternative<record_int64>(filter.number)
                 ? range_of<record_int64>(std::move(filter), sign.order)
                 : range_of<record_uint64>(std::move(filter), sign.order);
  }
  *ret = std::move(filter);
  return 0;
}

bool Filter::matches(const void* record) const {
  const zorv::FieldValue value = get(*field, record);
  const auto* stored = std::get_if<std::string_view>(&value);
  bool found = false;
  switch (kind) {
    case Kind::equal:
      found = stored != nullptr ? *stored == text : value == number;
      break;
    case Kind::between:
      found = number <= value && value <= last;
      break;
    case Kind::front:
      found = field->is_text() ? stored->starts_with(text)
                               : is_same_typed(text, typed_value(*field, value), true);
      break;
    case Kind::expression:
      found = regexec(expression.get(), typed_value(*field, value).c_str(), 0, nullptr, 0) == 0;
      break;
    case Kind::network:
      found = holds_one_of(network, *stored);
      break;
  }
  return found != is_negated;
}

std::string Filter::wire_text() const {
  if (kind != Kind::equal || is_negated || field->is_computed) {
    return "";
  }
  return field->is_text() ? text : number_digits(number);
}

bool match(std::span<const Filter> filters, const void* record) {
  return std::all_of(filters.begin(), filters.end(), [&](const Filter& filter) {
    return filter.matches(record) ||
           (filter.is_alternative() &&
            std::any_of(filters.begin(), filters.end(), [&](const Filter& other) {
              return other.field == filter.field && other.is_alternative() && other.matches(record);
            }));
  });
}

}  // namespace zorvctl
