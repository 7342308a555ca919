// msg_utility.cpp - index upkeep after a message moves between mailboxes.
//
// The mail list shows one party per message: the sender in ordinary
// mailboxes, the first recipient in the sent-mail and draft mailboxes.
// The index record keeps that party, so a message moved from one kind of
// mailbox to the other must have its record rewritten from its headers.
// The move itself is done (and stays done) before this runs; a failure
// here is only logged.

#include "tarnmail/msgutil.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "msg_utility_internal.h"
#include "tarnmail/address.h"
#include "tarnmail/charset.h"
#include "tarnmail/decode.h"
#include "tarnmail/rcpt.h"
#include "tarnplat.h"

namespace {

constexpr const char* kErrorLog = "/quillnet/log/error.log";
constexpr int kPartySize = 256;

bool empty(const char* s) { return s == nullptr || *s == '\0'; }

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

// A recipient list whose nodes are released when it goes.
struct RcptList {
  CgiRcpt head;
  RcptList() { cgircpt_init(&head); }
  ~RcptList() { cgircpt_free(&head); }
  RcptList(const RcptList&) = delete;
  RcptList& operator=(const RcptList&) = delete;
};

// The first To recipient, or the first Cc one when there is no To header.
// A header that yields no entry is shown as it stands, without nickname.
void first_recipient(const GET_RFC822_HEADER& hdr, char* email, char* nick) {
  const bool use_to = !empty(hdr.to);
  const char* text = use_to ? hdr.to : hdr.cc;
  RcptList list;
  build_rcpt(&list.head, text, use_to ? 0 : 1, 0);
  if (!cgircpt_empty(&list.head)) {
    MSTR_Copy(email, kPartySize, list.head.addr, 0);
    MSTR_Copy(nick, kPartySize, list.head.name, 0);
  } else {
    MSTR_Copy(email, kPartySize, text != nullptr ? text : "", 0);
  }
}

// Fills the party fields and the recipient flag of rec from the message.
void refresh_record(char* content, size_t size, int nFlag, MBX_Idx& rec) {
  MIME_DECODE ctx = generalME;
  mime_decode_init(&ctx, content, static_cast<int>(size), "", MSLG_GlobalGetSentMailEnc(0));
  mime_decode_run(&ctx);
  GET_RFC822_HEADER hdr;
  std::memset(&hdr, 0, sizeof hdr);
  mime_get_rfc822_header(&ctx, &hdr);

  char email[kPartySize] = "";
  char nick[kPartySize] = "";
  if ((nFlag & MSGU_IDX_RCPT) != 0) {
    rec.nFlags |= MBX_IDX_RCPT;
    first_recipient(hdr, email, nick);
  } else {
    rec.nFlags &= ~static_cast<uint32_t>(MBX_IDX_RCPT);
    MLG_FromParse(hdr.from, email, kPartySize, nick, kPartySize, rec.nCharset);
  }
  const int cut_charset = MLC_MIMEToMLGCharset(rec.nCharset);
  MSTR_Copy(rec.szSenderEmail, sizeof rec.szSenderEmail, email, cut_charset);
  MSTR_Copy(rec.szSenderNick, sizeof rec.szSenderNick, nick, cut_charset);
  mime_decode_shutdown(&ctx);
}

}  // namespace

extern "C" {

int s_IsRcpt(const char* pszMBox) {
  if (empty(pszMBox)) return 0;
  return MSTR_NCaseCmp(pszMBox, "@.sent", 6) == 0 || MSTR_NCaseCmp(pszMBox, "@.draft", 7) == 0 ? 1 : 0;
}

TARNMAIL_API int MSGU_IdxUpd(const char* pszUserID, const char* pszMBox, const char* pszMsgID, int nFlag) {
  if (empty(pszUserID) || empty(pszMsgID)) return -2;
  if (empty(pszMBox)) return 0;
  try {
    char* raw = nullptr;
    size_t size = 0;
    MBX_Idx rec;
    const int rc = MSG_Read(pszUserID, pszMBox, pszMsgID, &raw, &size, &rec);
    std::unique_ptr<char, FreeDeleter> content(raw);
    if (rc != 0 || content == nullptr || size == 0 || size > INT_MAX) return -1;
    refresh_record(content.get(), size, nFlag, rec);
    content.reset();

    MBX* mbx = MBX_Open(pszUserID, pszMBox, MBX_MODE_UPDATE);
    if (mbx == nullptr) return -1;
    const int result = MBX_IdxUpd(mbx, pszMsgID, &rec);
    MBX_Close(mbx);
    return result;
  } catch (...) {
    return -1;  // out of memory in the recipient list
  }
}

TARNMAIL_API void MSGU_MoveCheck(const char* pszUserID, const char* pszSrcMBox, const char* pszDesMBox,
                                 const char* pszMsgID) {
  if (empty(pszUserID) || empty(pszSrcMBox) || empty(pszDesMBox) || empty(pszMsgID)) return;
  if (GINI.nLoaded == 0) MCF_GlobalLoad(nullptr);
  char id[1024];
  char domain[512];
  MUSER_IDNormalize(pszUserID, GINI.sMYDOMAIN, id, sizeof id);
  MSYS_GetIDDomain(id, domain, sizeof domain);
  if (MCF_S_IntGet("tarnapp.conf", "DS", "MAIL_MOVE_INDEX_UPDATE_DISABLE", domain, 0, 0, INT_MAX) != 0) return;

  const int from_rcpt = s_IsRcpt(pszSrcMBox);
  const int to_rcpt = s_IsRcpt(pszDesMBox);
  if (from_rcpt == to_rcpt) return;
  const int rc = MSGU_IdxUpd(pszUserID, pszDesMBox, pszMsgID, to_rcpt ? MSGU_IDX_RCPT : 0);
  if (rc != 0)
    LOG_FileLine(kErrorLog, "MSG_IdxUpd failure(%d),(%s,src:%s,dst:%s,%s).", rc, pszUserID, pszSrcMBox,
                 pszDesMBox, pszMsgID);
}

}  // extern "C"
