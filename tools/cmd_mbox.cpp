// tarnmail mbox: a user's mailboxes from the command line (under
// QUILLNET_ROOT, "/quillnet" unless set).
//
//   mbox create USER MBOX          make the mailbox
//   mbox append USER MBOX FILE     store a message, print its id
//   mbox list USER MBOX            one line per index record
//   mbox move USER SRC DST MSGID   move a message, then refresh its record

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

#include "msg_utility_internal.h"
#include "sha256.h"
#include "tarnmail/msgutil.h"
#include "tool.h"

namespace tarntool {
namespace {

int fail(const std::string& what, int rc) {
  if (rc == MBX_ENOTFOUND) fprintf(stderr, "tarnmail: %s: no such message\n", what.c_str());
  else if (rc == MBX_EEXIST) fprintf(stderr, "tarnmail: %s: message already there\n", what.c_str());
  else if (rc == -2) fprintf(stderr, "tarnmail: %s: unusable name\n", what.c_str());
  else fprintf(stderr, "tarnmail: %s: %s\n", what.c_str(), strerror(errno));
  return 1;
}

// The Message-ID without its angle brackets and blanks.  A message without
// one gets a new id; one too long for the index is replaced by its digest,
// so the same message always gets the same key.
std::string message_id(const char* header) {
  std::string id;
  for (const char* p = header != nullptr ? header : ""; *p != '\0'; ++p)
    if (*p != '<' && *p != '>' && *p != ' ' && *p != '\t' && *p != '\r' && *p != '\n') id += *p;
  if (id.empty()) {
    char made[64];
    snprintf(made, sizeof made, "%ld.%d.%ld@tarnmail", static_cast<long>(time(nullptr)), static_cast<int>(getpid()),
             random());
    return made;
  }
  if (id.size() >= sizeof(MBX_Idx::szMsgID)) return "sha256-" + sha256_hex(id).substr(0, 64);
  return id;
}

// The record a delivery would write: id, subject, charset of the texts.
// The party (sender or first recipient) is filled in afterwards by the
// index upkeep, which knows which one the mailbox shows.
MBX_Idx new_record(Message& msg, std::string& id) {
  MBX_Idx rec;
  std::memset(&rec, 0, sizeof rec);
  std::vector<char> copy = msg.bytes;  // the engine decodes in place
  MIME_DECODE ctx = generalME;
  mime_decode_init(&ctx, copy.data(), msg.size(), "", MSLG_GlobalGetSentMailEnc(0));
  mime_decode_run(&ctx);
  GET_RFC822_HEADER hdr;
  mime_get_rfc822_header(&ctx, &hdr);
  id = message_id(hdr.msgid);
  const ME_HEADER* root = ctx.result.me_node.h;
  rec.nCharset = static_cast<uint8_t>(root != nullptr ? root->mime.charset : 0);
  MSTR_Copy(rec.szSubject, sizeof rec.szSubject, hdr.subject != nullptr ? hdr.subject : "",
            MLC_MIMEToMLGCharset(rec.nCharset));
  mime_decode_shutdown(&ctx);
  return rec;
}

int create(const std::vector<std::string>& a) {
  MBX* m = MBX_Open(a[0].c_str(), a[1].c_str(), MBX_MODE_CREATE);
  if (m == nullptr) return fail(a[1], -1);
  MBX_Close(m);
  return 0;
}

int append(const std::vector<std::string>& a) {
  std::optional<Message> msg = read_message(a[2]);
  if (!msg) return 1;
  std::string id;
  const MBX_Idx rec = new_record(*msg, id);
  MBX* m = MBX_Open(a[0].c_str(), a[1].c_str(), MBX_MODE_UPDATE);
  if (m == nullptr) return fail(a[1], -1);
  const int rc = MBX_MsgAppend(m, id.c_str(), msg->bytes.data(), static_cast<size_t>(msg->size()), &rec);
  MBX_Close(m);
  if (rc != 0) return fail(id, rc);
  const int upd = MSGU_IdxUpd(a[0].c_str(), a[1].c_str(), id.c_str(), s_IsRcpt(a[1].c_str()) ? MSGU_IDX_RCPT : 0);
  if (upd != 0) return fail(id, upd);
  puts(id.c_str());
  return 0;
}

// Tab-separated: id, flags (hex), size, creation time, party, nickname,
// subject.
int list(const std::vector<std::string>& a) {
  MBX* m = MBX_Open(a[0].c_str(), a[1].c_str(), MBX_MODE_READ);
  if (m == nullptr) return fail(a[1], -1);
  MBX_Idx* recs = nullptr;
  size_t n = 0;
  const int rc = MBX_IdxList(m, &recs, &n);
  MBX_Close(m);
  if (rc != 0) return fail(a[1], rc);
  for (size_t i = 0; i < n; ++i) {
    const MBX_Idx& r = recs[i];
    printf("%s\t%x\t%u\t%lld\t%s\t%s\t%s\n", r.szMsgID, r.nFlags, r.nMailSize, static_cast<long long>(r.tCreateTime),
           r.szSenderEmail, r.szSenderNick, r.szSubject);
  }
  free(recs);
  return 0;
}

int move(const std::vector<std::string>& a) {
  const int rc = MBX_MsgMove(a[0].c_str(), a[1].c_str(), a[2].c_str(), a[3].c_str());
  if (rc != 0) return fail(a[3], rc);
  MSGU_MoveCheck(a[0].c_str(), a[1].c_str(), a[2].c_str(), a[3].c_str());
  return 0;
}

}  // namespace

int cmd_mbox(const std::vector<std::string>& args) {
  struct Sub {
    const char* name;
    size_t nargs;
    int (*run)(const std::vector<std::string>&);
  };
  static const Sub kSubs[] = {{"create", 2, create}, {"append", 3, append}, {"list", 2, list}, {"move", 4, move}};
  if (args.empty()) return usage_error("mbox: missing subcommand");
  for (const Sub& s : kSubs) {
    if (args[0] != s.name) continue;
    if (args.size() != s.nargs + 1) return usage_error(std::string("mbox ") + s.name + ": wrong number of arguments");
    return s.run(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  return usage_error("mbox: unknown subcommand '" + args[0] + "'");
}

}  // namespace tarntool
