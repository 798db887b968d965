/* What is said about a block, and how a name is shown in logs. */
#ifndef ZORV_FEEDER_TEXT_H
#define ZORV_FEEDER_TEXT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum block_text_form {
  BLOCK_TEXT_SENTENCE, /* "blocked, try again in 4 hours"; one that is not known is "later" */
  BLOCK_TEXT_MINUTES   /* "Blocked, try again in 240 minutes", or just "Blocked" */
};

/* Rounded up, so that who waits that long has waited long enough. */
void block_text(enum block_text_form form, uint64_t seconds_left, char* ret_text, size_t size);

/* The front of a text with '_' for each control character of ASCII, which would forge lines. */
void shown_text(const char* text, char* ret_text, size_t size);

#ifdef __cplusplus
}
#endif

#endif
