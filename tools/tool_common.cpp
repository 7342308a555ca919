#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <unistd.h>

#include "tool.h"

namespace tarntool {

std::optional<Message> read_message(const std::string& path) {
  FILE* in = path == "-" ? stdin : fopen(path.c_str(), "rb");
  if (in == nullptr) {
    fprintf(stderr, "tarnmail: cannot open %s: %s\n", path.c_str(), strerror(errno));
    return std::nullopt;
  }
  Message m;
  char chunk[65536];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, in)) > 0) m.bytes.insert(m.bytes.end(), chunk, chunk + n);
  bool failed = ferror(in) != 0;
  int err = errno;
  if (in != stdin) fclose(in);
  if (failed) {
    fprintf(stderr, "tarnmail: cannot read %s: %s\n", path.c_str(), strerror(err));
    return std::nullopt;
  }
  if (m.bytes.size() > 0x7ffffffe) {
    fprintf(stderr, "tarnmail: %s: message too large\n", path.c_str());
    return std::nullopt;
  }
  m.bytes.push_back('\0');
  return m;
}

const MIME_DECODE* decode_preset(const std::string& name) {
  struct Named {
    std::string_view name;
    const MIME_DECODE* preset;
  };
  const Named presets[] = {
      {"imap", &imapME}, {"general", &generalME}, {"msgread", &msgreadME}, {"mailerd", &mailerdME}};
  for (const Named& p : presets)
    if (p.name == name) return p.preset;
  return nullptr;
}

namespace {

bool readable(const std::string& path) { return access(path.c_str(), R_OK) == 0; }

// The file given, else the installed one when present, else the source
// tree's.  The engine keeps at most 127 bytes of a path.
int table_path(const std::string& given, const char* name, std::string* out) {
  if (!given.empty()) {
    if (!readable(given)) return usage_error("cannot read " + given + ": " + strerror(errno));
    *out = given;
  } else {
    std::string installed = std::string(TARN_DATADIR) + "/" + name;
    *out = readable(installed) ? installed : std::string(TARN_SOURCE_DATADIR) + "/" + name;
  }
  if (out->size() >= MIMETYPE_PATHSIZE) return usage_error("path too long for the type tables: " + *out);
  return 0;
}

}  // namespace

int load_type_tables(const std::string& magic_file, const std::string& mime_types_file) {
  std::string magic, mime_types;
  if (int rc = table_path(magic_file, "magic", &magic)) return rc;
  if (int rc = table_path(mime_types_file, "mime.types", &mime_types)) return rc;
  mime_type_init(mime_types.c_str(), magic.c_str());
  return 0;
}

std::string field(const char* s) {
  if (s == nullptr || *s == '\0') return "-";
  std::string out;
  for (; *s != '\0'; ++s) {
    unsigned char c = static_cast<unsigned char>(*s);
    if (c == '\\') {
      out += "\\\\";
    } else if (c < 0x20 || c == 0x7f) {
      char esc[8];
      snprintf(esc, sizeof esc, "\\x%02x", c);
      out += esc;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

int usage_error(const std::string& message) {
  fprintf(stderr, "tarnmail: %s\n", message.c_str());
  return 2;
}

}  // namespace tarntool
