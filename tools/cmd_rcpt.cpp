// tarnmail rcpt: a typed recipient text as the compose page parses it, one
// entry per line, and the base64 form a draft keeps it in.

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tarnmail/rcpt.h"
#include "tool.h"

namespace tarntool {
namespace {

struct RcptOptions {
  std::string text;
  bool have_text = false;
  int charset = 0;
  std::string domain;
  bool have_domain = false;
};

const char* type_name(int type) {
  switch (type) {
    case RCPT_TYPE_TO: return "to";
    case RCPT_TYPE_CC: return "cc";
    case RCPT_TYPE_BCC: return "bcc";
    default: return "other";
  }
}

// A MIME charset value given as a number or as a charset name.
bool parse_charset(const std::string& s, int* out) {
  if (s.empty()) return false;
  errno = 0;
  char* end = nullptr;
  long v = strtol(s.c_str(), &end, 10);
  if (*end == '\0') {
    if (errno != 0 || v < 0 || v > INT_MAX) return false;
    *out = static_cast<int>(v);
    return true;
  }
  *out = MLC_CharsetToMIMEVal(s.c_str());
  return *out != 0;
}

bool read_stdin(std::string* out) {
  char chunk[65536];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, stdin)) > 0) out->append(chunk, n);
  return ferror(stdin) == 0;
}

int parse_args(const std::vector<std::string>& args, RcptOptions* o) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--charset") {
      if (i + 1 == args.size() || !parse_charset(args[++i], &o->charset))
        return usage_error("--charset needs a charset value or name");
    } else if (a == "--domain") {
      if (i + 1 == args.size()) return usage_error("--domain needs a domain");
      o->domain = args[++i];
      o->have_domain = true;
    } else if (!o->have_text) {
      o->text = a;
      o->have_text = true;
    } else {
      return usage_error("rcpt takes one TEXT");
    }
  }
  if (!o->have_text) return usage_error("rcpt needs a TEXT (- for standard input)");
  if (o->text == "-") {
    o->text.clear();
    if (!read_stdin(&o->text)) return usage_error("cannot read standard input");
  }
  return 0;
}

}  // namespace

int cmd_rcpt(const std::vector<std::string>& args) {
  RcptOptions o;
  if (int rc = parse_args(args, &o)) return rc;

  CgiRcpt list;
  cgircpt_init(&list);
  int rc = 0;
  if (build_rcpt_charset(&list, o.text.c_str(), RCPT_TYPE_TO, 0, o.charset) != 1) {
    fputs("tarnmail: out of memory\n", stderr);
    rc = 2;
  }
  if (o.have_domain) cgircpt_normalize(&list, o.domain.c_str());
  if (cgircpt_count(&list) > 0) {
    for (const CgiRcpt* node = &list; node != nullptr; node = node->next)
      printf("%s\t%s\t%s\n", type_name(node->type), field(node->name).c_str(), field(node->addr).c_str());
  }
  char* b64 = nullptr;
  RCPT_SaveToB64(&list, &b64);
  printf("base64\t%s\n", b64 != nullptr ? b64 : "-");
  free(b64);
  cgircpt_free(&list);
  return rc;
}

}  // namespace tarntool
