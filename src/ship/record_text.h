// A record as a line of COPY, and its digest.
//
// The server takes UTF-8 only and the daemon any bytes: a byte that is part of no character is sent
// as the private character U+10FE00 + byte. So are the bytes of such a character itself, which
// makes it reversible; every other text stays as it is. An unsigned number that bigint does not
// hold is sent as the largest it does.
#pragma once

#include <string>

#include "zorv_schema.h"

namespace ship {

// Of a value that is no text.
std::string number_text(const zorv::FieldValue& value);

// Appends the fields in their order, with tabs between them and a newline behind.
void append_copy_line(const zorv::TableSchema& table, const void* record, std::string* ret_text);

// 16 hexadecimal digits that tell rows of one id apart. They are kept on servers: not to be
// changed.
std::string digest_of(const zorv::TableSchema& table, const void* record);

}  // namespace ship
