// mime_mailhdr_tree.cpp - the header record filled from a decoded message.
//
// get_mail_hdr points the record at the decode context's own strings;
// dup_mail_hdr_ex copies the parts a caller asks for to the heap, and can
// render the message as plain text (the mailhdrDE display context) for the
// preview.  The attachment summary lists every named part as three lines:
// name, decoded size, type.

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <vector>

#include "mime_internal.h"
#include "mime_mailhdr_internal.h"
#include "tarnmail/charset.h"
#include "tarnmail/disp.h"
#include "tarnplat.h"

namespace {

constexpr int kNormalPriority = 3;
constexpr size_t kAttLineSize = 1024;
constexpr size_t kAttTypeSize = 256;
constexpr size_t kPreviewLimit = MAILHDR_DATA_SIZE - 1;

// Header fields taken from the message-level header record, with the
// dup_mail_hdr_ex bit that selects each.
struct FieldSource {
  char* mailhdr::*dst;
  char** RFC822_HEADER::*src;
  int flag;
};

constexpr FieldSource kFields[] = {
    {&mailhdr::msgid, &RFC822_HEADER::msgid, MAILHDR_DUP_MSGID},
    {&mailhdr::from, &RFC822_HEADER::from, MAILHDR_DUP_FROM},
    {&mailhdr::to, &RFC822_HEADER::to, MAILHDR_DUP_TO},
    {&mailhdr::date, &RFC822_HEADER::date, MAILHDR_DUP_DATE},
    {&mailhdr::cc, &RFC822_HEADER::cc, MAILHDR_DUP_CC},
    {&mailhdr::bcc, &RFC822_HEADER::bcc, MAILHDR_DUP_BCC},
    {&mailhdr::subject, &RFC822_HEADER::subject, MAILHDR_DUP_SUBJECT},
    {&mailhdr::reply_to, &RFC822_HEADER::reply_to, MAILHDR_DUP_REPLY_TO},
    {&mailhdr::in_reply_to, &RFC822_HEADER::in_reply_to, MAILHDR_DUP_IN_REPLY_TO},
    {&mailhdr::references, &RFC822_HEADER::references, MAILHDR_DUP_REFERENCES},
    {&mailhdr::resent_from, &RFC822_HEADER::x_forward_by, MAILHDR_DUP_PRIORITY},
};

// The fields free_dup_mail_hdr releases.
constexpr char* mailhdr::*kOwned[] = {
    &mailhdr::msgid, &mailhdr::from,         &mailhdr::resent_from, &mailhdr::subject,
    &mailhdr::bcc,   &mailhdr::cc,           &mailhdr::to,          &mailhdr::content_type,
    &mailhdr::reply_to, &mailhdr::date,      &mailhdr::in_reply_to, &mailhdr::references,
};

// MIME charset values (tarnmail/charset.h) to the names the record holds.
constexpr const char* kCharsetNames[] = {
    nullptr,      "iso-2022-jp", "big5",       "utf-8",      "euc-jp", "utf-7",  "iso-8859-1",
    "iso-8859-2", "iso-8859-3",  "iso-8859-4", "gb2312",     "euc-kr", "gb18030",
};

ME* root_of(MIME_DECODE* d) { return &d->result.me_node; }

RFC822_HEADER* message_header(ME* root) { return root->h != nullptr ? root->h->rfc822 : nullptr; }

char* first_value(const RFC822_HEADER* r, char** RFC822_HEADER::*src) {
  if (r == nullptr) return nullptr;
  char** slot = r->*src;
  return slot != nullptr ? *slot : nullptr;
}

char* root_ctype(ME* root) { return root->h != nullptr ? root->h->mime.ctype_str : nullptr; }

bool non_empty(const char* s) { return s != nullptr && *s != '\0'; }

void set_charset(mailhdr* m, const char* name) {
  MSTR_Copy(m->charset, sizeof m->charset, name != nullptr ? name : "", 0);
}

// The Subject's charset, or the message's when the Subject named none.
void set_subject_charset(mailhdr* m, ME* root) {
  const char* name = root->h != nullptr ? mime_get_subject_charset(root) : "";
  MSTR_Copy(m->subject_charset, sizeof m->subject_charset, non_empty(name) ? name : m->charset, 0);
}

// A heap copy, or the empty string of the record when the field is absent
// or the copy cannot be made.
char* dup_or_empty(mailhdr* m, const char* s) {
  if (s == nullptr) return &m->null_buf;
  char* copy = strdup(s);
  return copy != nullptr ? copy : &m->null_buf;
}

// Priority from X-Priority, overridden by an X-MSMail-Priority word; the
// e-newsletter mark from X-TARN-Enews.
void read_priority(MIME_DECODE* d, mailhdr* m) {
  const char* xp = mime_get_header_field2(d, "X-Priority");
  m->important_level = xp != nullptr ? mailhdr_atoi(xp) : kNormalPriority;
  const char* enews = mime_get_header_field2(d, "X-TARN-Enews");
  m->tarn_enews_flag = enews != nullptr ? mailhdr_atoi(enews) : 0;
  if (const char* ms = mime_get_header_field2(d, "X-MSMail-Priority")) {
    if (MSTR_NCaseCmp(ms, "low", 3) == 0)
      m->important_level = 5;
    else if (MSTR_NCaseCmp(ms, "normal", 6) == 0)
      m->important_level = kNormalPriority;
    else if (MSTR_NCaseCmp(ms, "high", 4) == 0)
      m->important_level = 1;
  }
}

// Every header whose name begins with "Received" counts one hop; an arena
// copy of its value is cut into hosts and envelope senders.  (The fields are
// walked once here rather than asked for one by one, which would take
// quadratic time on a message with many of them.)
void read_received(MIME_DECODE* d, mailhdr* m) {
  ME* root = root_of(d);
  if (root->h == nullptr) return;
  for (HE* he = root->h->he; he != nullptr; he = he->next) {
    if (he->ent_name == nullptr || he->ent_ptr == nullptr || MSTR_NCaseCmp(he->ent_name, "Received", 8) != 0)
      continue;
    ++m->hops;
    char* copy = mime_strndup(d, he->ent_ptr, std::strlen(he->ent_ptr));
    str_receive(copy, m->hosts, &m->hostnum, m->envelope, &m->envenum);
  }
}

// The parameters of a message/partial content type, or NULL.
char* partial_params(char* ctype) {
  if (ctype == nullptr || MSTR_NCaseCmp(ctype, "message/partial", 15) != 0) return nullptr;
  char* semi = std::strchr(ctype, ';');
  return semi != nullptr ? semi + 1 : nullptr;
}

// The preview: the message rendered as text by the display engine into
// the record's buffer, or into a heap buffer when the body is longer.
char* render_preview(MIME_DECODE* d, mailhdr* m) {
  ME* root = root_of(d);
  long body = 0;
  if (root->body_bgn != nullptr && root->body_end != nullptr && root->body_end > root->body_bgn)
    body = static_cast<long>(root->body_end - root->body_bgn);
  char* buf = m->data;
  long limit = static_cast<long>(kPreviewLimit);
  if (body > limit) {
    if (char* heap = static_cast<char*>(std::malloc(static_cast<size_t>(body) + 1))) {
      buf = heap;
      limit = body;
    }
  }
  // A copy of the ready context: the caller's adjustments to it count, and
  // the global keeps no pointer into this buffer.
  MIME_DISP disp = mailhdrDE;
  mime_disp_setbuf(&disp, buf, limit);
  mime_disp_init(&disp, &d->result, "", "");
  mime_disp_run(&disp);
  mime_disp_shutdown(&disp);
  return buf;
}

}  // namespace

void m_fakefree(mailhdr* mhdr, char** field) {
  if (*field != nullptr && *field != &mhdr->null_buf) std::free(*field);
  *field = nullptr;
}

void free_hosts_envelope(mailhdr* mhdr) {
  for (char*& host : mhdr->hosts) {
    if (host == nullptr) break;
    std::free(host);
    host = nullptr;
  }
  for (char*& env : mhdr->envelope) {
    if (env == nullptr) break;
    std::free(env);
    env = nullptr;
  }
  mhdr->hostnum = 0;
  mhdr->envenum = 0;
}

void dup_hosts_envelope(mailhdr* mhdr) {
  auto dup_list = [](char** list, int* count, int max) {
    const int n = *count < 0 ? 0 : *count > max ? max : *count;
    for (int i = 0; i < n; ++i) {
      list[i] = list[i] != nullptr ? strdup(list[i]) : nullptr;
      if (list[i] == nullptr) {
        *count = i;
        break;
      }
    }
    for (int i = *count; i < max; ++i) list[i] = nullptr;
  };
  dup_list(mhdr->hosts, &mhdr->hostnum, MAILHDR_MAX_HOSTS);
  dup_list(mhdr->envelope, &mhdr->envenum, MAILHDR_MAX_ENVELOPES);
}

extern "C" {

TARNMAIL_API void MailHdrGetAttInfo(ME* me, char* attachment) {
  if (attachment == nullptr) return;
  size_t used = strnlen(attachment, MAILHDR_ATTACHMENT_SIZE - 1);
  attachment[used] = '\0';
  // The next entity of each sibling list being walked, innermost last: an
  // entity, then its children, then its next sibling.
  std::vector<ME*> lists;
  try {
    lists.push_back(me);
  } catch (const std::bad_alloc&) {
    return;
  }
  while (!lists.empty()) {
    ME* e = lists.back();
    if (e == nullptr) {
      lists.pop_back();
      continue;
    }
    lists.back() = e->next;
    if (e->me_flag & 1) continue;  // removed by message editing
    if (e->h != nullptr && non_empty(e->h->mime.filename)) {
      char type[kAttTypeSize];
      MSTR_Copy(type, sizeof type, e->h->mime.ctype_str != nullptr ? e->h->mime.ctype_str : "", 0);
      type[std::strcspn(type, "; \t")] = '\0';
      char line[kAttLineSize];
      MSTR_Printf(line, sizeof line, "%s\n%d\n%s\n", e->h->mime.filename, e->datalen, type);
      const size_t n = std::strlen(line);
      if (used + n > MAILHDR_ATTACHMENT_SIZE - 1) {
        // This list ends here; the lists around it go on, and a shorter
        // line there may still fit.
        lists.pop_back();
        continue;
      }
      std::memcpy(attachment + used, line, n + 1);
      used += n;
    }
    if (e->child == nullptr) continue;
    try {
      lists.push_back(e->child);
    } catch (const std::bad_alloc&) {
      return;  // the summary so far stays, terminated
    }
  }
}

TARNMAIL_API int get_mail_hdr(MIME_DECODE* decode_info, mailhdr* mhdr, const char* charset, int size) {
  if (decode_info == nullptr || mhdr == nullptr) return -2;
  std::memset(mhdr, 0, sizeof *mhdr);
  ME* root = root_of(decode_info);
  const RFC822_HEADER* r = message_header(root);
  // A message without any header reads as one whose fields are all absent.
  for (const FieldSource& f : kFields) {
    char* v = first_value(r, f.src);
    mhdr->*f.dst = v != nullptr ? v : &mhdr->null_buf;
  }
  char* notify = first_value(r, &RFC822_HEADER::notification_to);
  mhdr->notification_to = notify != nullptr ? notify : &mhdr->null_buf;
  char* ctype = root_ctype(root);
  mhdr->content_type = ctype != nullptr ? ctype : &mhdr->null_buf;

  const int cs = root->h != nullptr ? root->h->mime.charset : 0;
  if (cs == 0)
    set_charset(mhdr, charset);
  else if (cs > 0 && cs < static_cast<int>(std::size(kCharsetNames)))
    set_charset(mhdr, kCharsetNames[cs]);
  set_subject_charset(mhdr, root);

  mhdr->text = root->body_bgn;
  mhdr->size = size;
  read_received(decode_info, mhdr);
  read_priority(decode_info, mhdr);
  if (char* params = partial_params(mhdr->content_type)) {
    char* id = nullptr;
    size_t idlen = 0;
    mailhdr_partial_params(mhdr, params, &id, &idlen);
    if (id != nullptr) {
      id[idlen] = '\0';  // inside the decode context's string
      mhdr->msgid = id;
    }
  }
  MailHdrGetAttInfo(root, mhdr->attachment);
  return 0;
}

TARNMAIL_API int dup_mail_hdr_ex(MIME_DECODE* decode_info, mailhdr* mhdr, const char* charset, int size,
                                 int flags) {
  if (decode_info == nullptr || mhdr == nullptr) return -2;
  std::memset(mhdr, 0, sizeof *mhdr);
  ME* root = root_of(decode_info);
  const RFC822_HEADER* r = message_header(root);
  for (const FieldSource& f : kFields)
    if (flags & f.flag) mhdr->*f.dst = dup_or_empty(mhdr, first_value(r, f.src));

  if (flags & MAILHDR_DUP_CTYPE) {
    mhdr->content_type = dup_or_empty(mhdr, root_ctype(root));
    if (char* params = partial_params(mhdr->content_type)) {
      char* id = nullptr;
      size_t idlen = 0;
      mailhdr_partial_params(mhdr, params, &id, &idlen);
      if (id != nullptr) {
        if (char* copy = strndup(id, idlen)) {
          m_fakefree(mhdr, &mhdr->msgid);
          mhdr->msgid = copy;
        }
      }
    }
  }
  if (flags & MAILHDR_DUP_CHARSET) {
    const char* declared = mime_get_charset(root);
    set_charset(mhdr, non_empty(declared) ? declared : charset);
    set_subject_charset(mhdr, root);
  }
  mhdr->size = size;
  if (flags & MAILHDR_DUP_RECEIVED) {
    read_received(decode_info, mhdr);
    dup_hosts_envelope(mhdr);
  }
  if (flags & MAILHDR_DUP_PRIORITY) {
    read_priority(decode_info, mhdr);
  } else {
    mhdr->important_level = kNormalPriority;
    mhdr->tarn_enews_flag = 0;
  }
  if (flags & MAILHDR_DUP_ATTACHMENT) MailHdrGetAttInfo(root, mhdr->attachment);
  if (flags & MAILHDR_DUP_TEXT) mhdr->text = render_preview(decode_info, mhdr);
  return 0;
}

TARNMAIL_API int dup_mail_hdr(MIME_DECODE* decode_info, mailhdr* mhdr, const char* charset, int size) {
  return dup_mail_hdr_ex(decode_info, mhdr, charset, size, MAILHDR_DUP_ALL);
}

TARNMAIL_API void free_dup_mail_hdr(mailhdr* mhdr) {
  if (mhdr == nullptr) return;
  if (mhdr->text != mhdr->data && mhdr->text != &mhdr->null_buf) std::free(mhdr->text);
  mhdr->text = nullptr;
  for (char* mailhdr::*field : kOwned) m_fakefree(mhdr, &(mhdr->*field));
  free_hosts_envelope(mhdr);
}

}  // extern "C"
