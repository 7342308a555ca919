// tarnmail tree: the entity tree of a message, one line per entity.

#include <cstdint>
#include <cstdio>
#include <string>

#include "tool.h"

namespace tarntool {
namespace {

const char* const kCtypeNames[] = {
    "none",      "message/rfc822", "text",       "html",         "image",      "multipart",
    "alternative", "mixed",        "digest",     "other",        "vcard",      "pkcs7-signature",
    "pkcs7-mime", "video",         "audio",      "flash",        "tiff",       "ms-tnef"};
const char* const kEncNames[] = {"none", "base64", "quoted-printable", "uuencode", "8bit", "7bit"};

// Prints a text on one line: control bytes and backslashes escaped.
void put_escaped(const char* s, size_t max = 80) {
  if (s == nullptr) {
    fputs("-", stdout);
    return;
  }
  putchar('"');
  size_t n = 0;
  for (; *s != '\0' && n < max; ++s, ++n) {
    unsigned char c = static_cast<unsigned char>(*s);
    if (c == '\\' || c == '"') printf("\\%c", c);
    else if (c < 0x20 || c == 0x7f) printf("\\x%02x", c);
    else putchar(c);
  }
  if (*s != '\0') fputs("...", stdout);
  putchar('"');
}

// Where a pointer of the tree lies: an offset into the message, or
// "arena" for bodies the engine converted or expanded into its own memory.
struct Buffer {
  const char* data;
  size_t size;
  void print_position(const char* label, const char* p) const {
    uintptr_t at = reinterpret_cast<uintptr_t>(p);
    uintptr_t bgn = reinterpret_cast<uintptr_t>(data);
    if (p == nullptr) printf(" %s=-", label);
    else if (at >= bgn && at - bgn <= size) printf(" %s=%zu", label, static_cast<size_t>(at - bgn));
    else printf(" %s=arena", label);
  }
};

void print_entity(const ME* me, int depth, const Buffer& buf) {
  printf("%*s", depth * 2, "");
  printf("entity offset=%d len=%d datalen=%d", me->ent_offset, me->ent_len, me->datalen);
  buf.print_position("header", me->header_bgn);
  buf.print_position("body", me->body_bgn);
  const ME_HEADER* h = me->h;
  if (h == nullptr) {
    puts(" (no header)");
    return;
  }
  const MIME_HEADER& m = h->mime;
  int ct = m.ctype;
  printf(" ctype=%d(%s) type=", ct, ct >= 0 && ct <= 17 ? kCtypeNames[ct] : "?");
  put_escaped(m.ctype_str);
  printf(" enc=%d(%s)", m.enc_type, m.enc_type >= 0 && m.enc_type <= 5 ? kEncNames[int(m.enc_type)] : "?");
  printf(" charset=%d", m.charset);
  if (m.charset_str[0] != '\0') {
    putchar('(');
    put_escaped(m.charset_str);
    putchar(')');
  }
  if (m.filename != nullptr) {
    fputs(" filename=", stdout);
    put_escaped(m.filename);
  }
  if (m.file_id[0] != '\0') printf(" file_id=%s", m.file_id);
  if (h->boundary != nullptr && h->boundary[0] != '\0') {
    fputs(" boundary=", stdout);
    put_escaped(h->boundary);
  }
  if (me->me_flag & 1) fputs(" deleted", stdout);
  putchar('\n');
}

// Depth-first print without recursion along `next` chains.
void print_tree(const ME* me, int depth, const Buffer& buf) {
  for (; me != nullptr; me = me->next) {
    print_entity(me, depth, buf);
    if (me->child != nullptr) print_tree(me->child, depth + 1, buf);
  }
}

void print_errors(int code) {
  printf("error_code=%d", code);
  struct Bit {
    int bit;
    const char* text;
  };
  const Bit bits[] = {{MIME_ERR_NO_CLOSE_BOUNDARY, "no-closing-boundary"},
                      {MIME_ERR_NO_HEADER_END, "header-without-end"},
                      {MIME_ERR_TOO_DEEP, "nesting-too-deep"}};
  const char* sep = " (";
  for (const Bit& b : bits)
    if (code & b.bit) {
      printf("%s%s", sep, b.text);
      sep = ", ";
    }
  puts(code != 0 ? ")" : "");
}

}  // namespace

int cmd_tree(const std::vector<std::string>& args) {
  std::string file;
  std::string preset_name = "general";
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--preset") {
      if (++i == args.size()) return usage_error("--preset needs a name");
      preset_name = args[i];
    } else if (file.empty()) {
      file = args[i];
    } else {
      return usage_error("tree takes one FILE");
    }
  }
  if (file.empty()) return usage_error("tree needs a FILE (- for standard input)");
  const MIME_DECODE* preset = decode_preset(preset_name);
  if (preset == nullptr) return usage_error("unknown preset '" + preset_name + "'");
  if (int rc = load_type_tables("", "")) return rc;
  auto message = read_message(file);
  if (!message) return 2;

  MIME_DECODE ctx = *preset;
  mime_decode_init(&ctx, message->bytes.data(), message->size(), file.c_str(), nullptr);
  int rc = mime_decode_run(&ctx);
  print_tree(&ctx.result.me_node, 0, Buffer{message->bytes.data(), static_cast<size_t>(message->size())});
  print_errors(rc);
  mime_decode_shutdown(&ctx);
  return 0;
}

}  // namespace tarntool
