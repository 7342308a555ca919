// Shared pieces of the tarnmail command-line program.
#ifndef TARN_TOOL_H
#define TARN_TOOL_H

#include <optional>
#include <string>
#include <vector>

#include "tarnmail.h"

namespace tarntool {

// A message read into a buffer one byte longer than the message, as the
// decoding engine needs.
struct Message {
  std::vector<char> bytes;  // message plus the terminator byte
  int size() const { return static_cast<int>(bytes.size()) - 1; }
};

// Reads FILE ("-" for standard input); prints a one-line error and returns
// nothing when it cannot.
std::optional<Message> read_message(const std::string& path);

// The decode preset of a name ("imap", "general", "msgread", "mailerd").
const MIME_DECODE* decode_preset(const std::string& name);

// Command entry points: arguments after the command name.
int cmd_tree(const std::vector<std::string>& args);
int cmd_parts(const std::vector<std::string>& args);
int cmd_mbox(const std::vector<std::string>& args);
int cmd_render(const std::vector<std::string>& args);
int cmd_hdr(const std::vector<std::string>& args);
int cmd_rcpt(const std::vector<std::string>& args);

int usage_error(const std::string& message);

// One field of a tab-separated output line: control bytes (tabs
// included) and backslashes escaped, "-" for a NULL or empty text.
std::string field(const char* s);

// Points the engine's type tables at the magic and mime.types files: those
// given, else the installed ones when present, else the source tree's.
// Returns 0, or 2 after a one-line error.
int load_type_tables(const std::string& magic_file, const std::string& mime_types_file);

}  // namespace tarntool

#endif
