// The form that a caller's text has in the records: what zorv.h promises of every text.
#pragma once

#include <cstddef>
#include <string>

namespace libzorv {

// The front of `text` that fits into `longest` bytes, with '_' for each control character (of ASCII
// or, in UTF-8, U+0080 to U+009F). No character is cut in two; bytes that are no UTF-8 stay. Null
// is the empty text. Of a longer text nothing is read behind its cut.
std::string record_text(const char* text, size_t longest);

}  // namespace libzorv
