// tarnmail hdr: the flat header record of a message, as mail lists see it.
//
// By default the record is filled from the decoded message (generalME),
// every part of it, the preview rendered as plain text by the engine; with
// --raw it is parsed from the raw header text alone, the way a list of a
// mail folder fills it without decoding anything.

#include <memory>
#include <string>

#include "tool.h"

namespace tarntool {
namespace {

// Charset assumed for text that declares none.
constexpr char kDefaultCharset[] = "utf-8";

struct HdrOptions {
  std::string file;
  bool raw = false;
};

int parse_args(const std::vector<std::string>& args, HdrOptions* o) {
  for (const std::string& a : args) {
    if (a == "--raw") {
      o->raw = true;
    } else if (a.size() > 1 && a[0] == '-') {
      return usage_error("hdr: unknown option '" + a + "'");
    } else if (o->file.empty()) {
      o->file = a;
    } else {
      return usage_error("hdr takes one FILE");
    }
  }
  if (o->file.empty()) return usage_error("hdr needs a FILE (- for standard input)");
  return 0;
}

// From the raw text: a header block longer than the record's buffer is
// kept whole on the heap (it then has no preview).
void dump_raw(const Message& message, mailhdr* record) {
  mailhdr_init2(record, kDefaultCharset, message.bytes.data(), message.size());
  mailhdr_parse(record);
  mailhdr_dump(record);
  mailhdr_free(record);
}

void dump_decoded(Message& message, mailhdr* record) {
  MIME_DECODE dec = generalME;
  mime_decode_init(&dec, message.bytes.data(), message.size(), nullptr, nullptr);
  mime_decode_run(&dec);
  dup_mail_hdr(&dec, record, kDefaultCharset, message.size());
  mailhdr_dump(record);
  free_dup_mail_hdr(record);
  mime_decode_shutdown(&dec);
}

}  // namespace

int cmd_hdr(const std::vector<std::string>& args) {
  HdrOptions o;
  if (int rc = parse_args(args, &o)) return rc;
  if (!o.raw)
    if (int rc = load_type_tables("", "")) return rc;
  auto message = read_message(o.file);
  if (!message) return 2;
  // About 13 KiB: not on the stack.
  auto record = std::make_unique<mailhdr>();
  if (o.raw) dump_raw(*message, record.get());
  else dump_decoded(*message, record.get());
  return fflush(stdout) == 0 ? 0 : 2;
}

}  // namespace tarntool
