#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

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

int usage_error(const std::string& message) {
  fprintf(stderr, "tarnmail: %s\n", message.c_str());
  return 2;
}

}  // namespace tarntool
