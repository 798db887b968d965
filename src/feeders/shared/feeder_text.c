#include "feeder_text.h"

#include <inttypes.h>
#include <stdbool.h>
#include <stdio.h>

#include "zorv.h"

void block_text(enum block_text_form form, uint64_t seconds_left, char* ret_text, size_t size) {
  static const struct {
    uint64_t seconds;
    uint64_t up_to; /* of this unit, before the next is used */
    const char* word;
  } units[] = {
      {1, 59, "second"}, {60, 119, "minute"}, {3600, 47, "hour"}, {86400, UINT64_MAX, "day"}};
  enum { MINUTE = 1 };
  const bool in_minutes = form == BLOCK_TEXT_MINUTES;
  size_t unit = in_minutes ? MINUTE : 0;
  uint64_t count = 0;
  if (seconds_left == ZORV_SECONDS_UNKNOWN) {
    snprintf(ret_text, size, in_minutes ? "Blocked" : "blocked, try again later");
    return;
  }
  if (seconds_left == 0 && !in_minutes) {
    snprintf(ret_text, size, "blocked, try again now");
    return;
  }
  for (;; ++unit) {
    count = seconds_left / units[unit].seconds + (seconds_left % units[unit].seconds != 0);
    if (in_minutes || count <= units[unit].up_to) {
      break;
    }
  }
  snprintf(ret_text, size, "%s, try again in %" PRIu64 " %s%s", in_minutes ? "Blocked" : "blocked",
           count, units[unit].word, count == 1 ? "" : "s");
}

void shown_text(const char* text, char* ret_text, size_t size) {
  size_t length = 0;
  for (; text != NULL && text[length] != '\0' && length + 1 < size; ++length) {
    const unsigned char byte = (unsigned char)text[length];
    ret_text[length] = text[length];
    if (byte < 0x20 || byte == 0x7f) {
      ret_text[length] = '_';
    }
  }
  ret_text[length] = '\0';
}
