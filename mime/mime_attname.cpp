// Attachment names and file ids: the name parameters of a part (with their
// RFC 2231 segments), generated names, the run's list of names and the
// short ids that readers use to address a part.

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "mime_internal.h"

namespace {

constexpr char kSkip[] = "* \n\t";
constexpr size_t kNameSize = 512;
constexpr size_t kCharsetSize = 64;

fileTMP* append_name_node(MIME_DECODE* decode_info) {
  ME_INFO& info = decode_info->result.me_info;
  fileTMP* node = info.fileTMP_ptr == nullptr ? &info._fileTMP
                                               : static_cast<fileTMP*>(mime_alloc(decode_info, sizeof(fileTMP)));
  if (info.fileTMP_ptr != nullptr) info.fileTMP_ptr->next = node;
  info.fileTMP_ptr = node;
  return node;
}

char* skip_any(char* p, const char* set) {
  while (*p != '\0' && strchr(set, *p) != nullptr) ++p;
  return p;
}

// Hex digit value after folding to upper case; like the rest of the
// segment reading it does not check that the byte is a digit at all.
unsigned char loose_hex(char c) {
  unsigned char u = static_cast<unsigned char>(toupper(static_cast<unsigned char>(c)));
  return static_cast<unsigned char>(u >= 'A' ? u - 'A' + 10 : u - '0');
}

// Appends an unencoded segment only when it fits whole.
void append_whole(char* buf, int size, const char* value) {
  size_t fill = strlen(buf);
  size_t len = strlen(value);
  if (fill + len < static_cast<size_t>(size)) memcpy(buf + fill, value, len + 1);
}

// Appends an encoded segment byte by byte, undoing %XY; what does not fit
// is dropped.
void append_percent_decoded(char* buf, int size, const char* value) {
  size_t fill = strlen(buf);
  for (const char* p = value; *p != '\0'; ++p) {
    unsigned char c = static_cast<unsigned char>(*p);
    if (*p == '%' && p[1] != '\0' && p[2] != '\0') {
      c = static_cast<unsigned char>((loose_hex(p[1]) << 4) | loose_hex(p[2]));
      p += 2;
    }
    if (fill + 1 < static_cast<size_t>(size)) buf[fill++] = static_cast<char>(c);
  }
  buf[fill] = '\0';
}

// The next single quote, for the charset part of first encoded segments.
// The search runs to the end of the whole text, so each answer is kept
// while it still lies ahead: a text of many such segments is read once,
// not once for each of them.  Only text behind the reading is ever cut.
struct Quotes {
  char* from = nullptr;  // where the last search started
  char* at = nullptr;    // the first quote at or after it; nullptr: none
  char* next(char* p) {
    if (from == nullptr || p < from || (at != nullptr && at < p)) {
      at = strchr(p, '\'');
      from = p;
    }
    return at;
  }
};

// The charset part of a first encoded segment: "utf-8''..." names its
// charset before the second single quote.  Returns where the value starts.
char* take_charset(char* value, char* csbuf, int cssize, Quotes* quotes) {
  char* q1 = quotes->next(value);
  char* q2 = q1 != nullptr ? quotes->next(q1 + 1) : nullptr;
  if (q2 == nullptr) {
    MSTR_Copy(csbuf, static_cast<size_t>(cssize), value, 0);
    return value;
  }
  MSTR_NCopy(csbuf, static_cast<size_t>(cssize), value, static_cast<size_t>(q2 - value - 1));
  return q2 + 1;
}

// The name of a plain parameter as it stands in the header: a quoted value
// is kept whole for unquote to strip; an unquoted one ends at the next
// parameter or line, so "name=a.pdf; size=10" names "a.pdf".
char* copy_plain_value(const char* value, MIME_DECODE* decode_info) {
  size_t len = strlen(value);
  if (*value != '"') {
    len = strcspn(value, ";\r\n");
    while (len > 0 && (value[len - 1] == ' ' || value[len - 1] == '\t')) --len;
  }
  return mime_strndup(decode_info, value, len);
}

// A name taken from the parameters is decoded from encoded words and
// converted by its charset.  The choice made here: in the UTF-8 display
// mode (decode_level 0x400) every name becomes UTF-8, and a part that
// declares no charset of its own is then marked "utf-8"; otherwise,
// with Japanese conversion on, JIS and EUC names become Shift_JIS.
char* convert_name(char* name, const char* param_charset, MIME_HEADER* mime, MIME_DECODE* decode_info) {
  char charset[kCharsetSize];
  MSTR_Copy(charset, sizeof charset, *param_charset != '\0' ? param_charset : mime->charset_str, 0);
  if (strstr(name, "=?") != nullptr) {
    const char* words = MSTR_Decode(name);
    if (words != nullptr && *words != '\0') MSTR_Copy(charset, sizeof charset, words, 0);
  }
  int mlg = MLG_CharsetWEncToValue(charset);
  if (decode_info->decode_level & MIME_DL_UTF8) {
    size_t out_len = 0;
    char* utf8 = mlg != MLG_UNKNOWN && mlg != MLG_UTF8 ? MUC_Text2UTF8N(name, strlen(name), mlg, &out_len) : nullptr;
    if (utf8 != nullptr) {
      name = mime_strndup(decode_info, utf8, out_len);
      free(utf8);
      if (mime->charset_str[0] == '\0') MSTR_Copy(mime->charset_str, sizeof mime->charset_str, "utf-8", 0);
    }
    return name;
  }
  if (decode_info->auto_convert & 1) {
    int jp = charset_prefix_value(charset, 0);
    if (jp == MIME_CS_ISO2022JP || jp == MIME_CS_EUCJP) {
      if (char* sjis = mime_jp_to_sjis(name, jp, decode_info)) name = sjis;
    }
  }
  return name;
}

// Name from the parameters, or NULL.
char* name_from_parameters(MIME_HEADER* mime, MIME_DECODE* decode_info) {
  char buf[kNameSize];
  char cs[kCharsetSize];
  char* found = mime->contdisp != nullptr ? s_ParamCont(mime->contdisp, "name", buf, sizeof buf, cs, sizeof cs)
                                          : nullptr;
  if ((found == nullptr || *found == '\0') && mime->ctype_str != nullptr)
    found = s_ParamCont(mime->ctype_str, "name", buf, sizeof buf, cs, sizeof cs);
  if (found == nullptr || *found == '\0') return nullptr;
  char* name = found == buf ? mime_strndup(decode_info, buf, strlen(buf)) : copy_plain_value(found, decode_info);
  name = convert_name(name, found == buf ? cs : "", mime, decode_info);
  return *name != '\0' ? dup_att_name(name, decode_info) : nullptr;
}

// Unquotes the name and makes it safe as a file name, in its own block.
void make_name_safe(MIME_HEADER* mime, MIME_DECODE* decode_info) {
  char safe[kNameSize];
  char* unquoted = unquote(mime->filename);
  int len = MLG_SafeFileName(unquoted, safe, sizeof safe, MLG_CharsetWEncToValue(mime->charset_str));
  if (static_cast<size_t>(len) + 1 > strlen(mime->filename) + 1)
    mime->filename = static_cast<char*>(mime_alloc(decode_info, static_cast<size_t>(len) + 1));
  memcpy(mime->filename, safe, static_cast<size_t>(len) + 1);
}

bool has_text(const char* s) { return s != nullptr && *s != '\0'; }

}  // namespace

void s_generate_file_id(MIME_HEADER* pstMimeHeader, int nFileNo, char* pszFileID, size_t nzFileID) {
  if (pstMimeHeader == nullptr) {
    MSTR_Printf(pszFileID, nzFileID, "%d", nFileNo);
    return;
  }
  bool inline_ref = has_text(pstMimeHeader->contid) || has_text(pstMimeHeader->contLocation);
  MSTR_Printf(pszFileID, nzFileID, inline_ref ? "%dI" : "%dA", nFileNo);
}

void mime_next_file_id(MIME_HEADER* mime, MIME_DECODE* decode_info) {
  int id = ++decode_info->result.me_info._FILE_ID;
  s_generate_file_id(mime, id, mime->file_id, sizeof mime->file_id);
}

char* des2att_name(char* des, MIME_DECODE* decode_info) {
  append_name_node(decode_info)->filename = des;
  return des;
}

char* dup_att_name(char* name, MIME_DECODE* decode_info) {
  char* copy = mime_strndup(decode_info, name, strlen(name));
  append_name_node(decode_info)->filename = copy;
  return copy;
}

char* random_att_name(int x, MIME_HEADER* mime, MIME_DECODE* decode_info) {
  fileTMP* node = append_name_node(decode_info);
  const char* ext = ct2ext(mime->ctype_str, mime->filename);
  bool has_ext = ext != nullptr && *ext != '\0';
  int n = decode_info->result.me_info.tmp_i++;
  char formatted[64];
  if (x != 0)
    has_ext ? MSTR_Printf(formatted, sizeof formatted, "%02d.%s", n, ext) : MSTR_Printf(formatted, sizeof formatted, "%02d", n);
  else
    has_ext ? MSTR_Printf(formatted, sizeof formatted, "Message_%02d.%s", n, ext)
            : MSTR_Printf(formatted, sizeof formatted, "Message_%02d", n);
  constexpr size_t kBlock = 65;
  char* name = static_cast<char*>(mime_alloc(decode_info, kBlock));
  MSTR_Copy(name, kBlock, formatted, 0);
  size_t len = strlen(name);
  bool ends_eml = len > 3 && strcmp(name + len - 4, ".eml") == 0;
  if (mime->ctype == MIME_CT_RFC822 && !ends_eml) MSTR_Cat(name, kBlock, ".eml", 0);
  node->filename = name;
  return name;
}

char* s_ParamCont(char* pszStr, const char* pszParamName, char* pszBuf, int nBufSize, char* pszCharsetBuf,
                  int nCharsetBufSize) {
  if (pszBuf != nullptr && nBufSize > 0) pszBuf[0] = '\0';
  if (pszCharsetBuf != nullptr && nCharsetBufSize > 0) pszCharsetBuf[0] = '\0';
  if (pszStr == nullptr || pszParamName == nullptr || pszBuf == nullptr || nBufSize <= 0) return nullptr;
  const size_t name_len = strlen(pszParamName);
  bool taken = false;
  Quotes quotes;
  for (char* pos = pszStr;;) {
    char* at = MSTR_LocStrCase(pos, pszParamName, 0);
    if (at == nullptr) return taken ? pszBuf : nullptr;
    char* p = at + name_len;
    if (*p != '*') return MSTR_TokPtr(at, pszParamName, kSkip, "=", 0, 0);
    ++p;
    bool first = true;
    if (isdigit(static_cast<unsigned char>(*p))) first = *p++ == '0';
    p = skip_any(p, kSkip);
    // A segment number of two digits ends up here too: plain lookup.
    if (*p != '=') return MSTR_TokPtr(at, pszParamName, kSkip, "=", 0, 0);
    bool encoded = p[-1] == '*';
    char* value = skip_any(p + 1, encoded ? "* \n\t\"" : kSkip);
    char* end;
    if (!encoded && *value == '"') {
      ++value;
      end = strchr(value, '"');
    } else {
      if (encoded && first && pszCharsetBuf != nullptr && nCharsetBufSize > 0)
        value = take_charset(value, pszCharsetBuf, nCharsetBufSize, &quotes);
      end = strpbrk(value, " \t;\"");
    }
    if (end != nullptr) *end = '\0';
    encoded ? append_percent_decoded(pszBuf, nBufSize, value) : append_whole(pszBuf, nBufSize, value);
    taken = true;
    // Go on one byte after the position that follows the terminator.
    if (end == nullptr || end[1] == '\0') return pszBuf;
    pos = end + 2;
  }
}

void get_filename(MIME_HEADER* mime, MIME_DECODE* decode_info) {
  char* name = nullptr;
  if (has_text(mime->filename)) {
    name = mime->filename;
    if (mime->file_id[0] == '\0') mime_next_file_id(mime, decode_info);
  } else {
    name = name_from_parameters(mime, decode_info);
  }
  if (name != nullptr) mime->filename = name;

  if (mime->ctype_str != nullptr && MSTR_NCaseCmp(mime->ctype_str, "multipart", 9) != 0) {
    bool numbered = false;
    if (name == nullptr) {
      if (mime->contdisp != nullptr && mime->contdes != nullptr) {
        name = mime->filename = des2att_name(mime->contdes, decode_info);
        mime_next_file_id(mime, decode_info);
        numbered = true;
      } else if (mime->contid == nullptr && mime->contLocation == nullptr && mime->contdisp == nullptr) {
        numbered = true;  // an inline part: no name, no id
      } else if (mime->ctype == MIME_CT_RFC822) {
        numbered = true;  // named below, as a message
      } else {
        name = mime->filename = random_att_name(1, mime, decode_info);
      }
    }
    if (!numbered) mime_next_file_id(mime, decode_info);
  }
  if (name == nullptr && mime->ctype == MIME_CT_RFC822) {
    name = mime->filename = random_att_name(1, mime, decode_info);
    mime_next_file_id(mime, decode_info);
    mime->file_name_flags |= 1;
  }
  if (name == nullptr && mime->ctype == MIME_CT_OTHER) {
    name = mime->filename = random_att_name(1, mime, decode_info);
    mime_next_file_id(mime, decode_info);
  }
  if (name == nullptr) return;
  decode_info->result.me_info._attachment |= 1;
  make_name_safe(mime, decode_info);
}
