// Parameter values: strip the quotes of a quoted value, or cut an unquoted
// one at the end of its line.

#include <cstring>

#include "mime_internal.h"

extern "C" char* unquote(char* data) {
  if (data == nullptr) return nullptr;
  while (*data == ' ') ++data;
  if (*data != '"') {
    if (char* lf = strchr(data, '\n')) *lf = '\0';
    return data;
  }
  ++data;
  char* close = strchr(data, '"');
  if (close == nullptr) return data;
  // A line break before the closing quote ends the value there instead.
  char* lf = static_cast<char*>(memchr(data, '\n', static_cast<size_t>(close - data)));
  *(lf != nullptr ? lf : close) = '\0';
  return data;
}
