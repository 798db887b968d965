/* What is said about a block, and how a name is shown in syslog. */
#ifndef BLOCK_TEXT_H
#define BLOCK_TEXT_H

#include <stddef.h>
#include <stdint.h>

/* "blocked, try again in 4 minutes"; a time that is not known is "later". Rounded up, so that who
 * waits that long has waited long enough. */
void block_text(uint64_t seconds_left, char* ret_text, size_t size);

/* The front of a text with '_' for each control character of ASCII, which would forge lines. */
void shown_text(const char* text, char* ret_text, size_t size);

#endif
