/*
 * mime_charset.cpp - MIME charset values, their mapping to the platform's
 * charset numbering, and the charset queries over a decoded tree.
 *
 * Two name lookups live side by side on purpose: MLC_CharsetToMIMEVal knows
 * only whole names from the list, while strip_charset judges a declared
 * charset by its prefix (so "ISO-8859-15" counts as ISO-8859-1 there).
 *
 * The tree queries visit an entity, then its child subtree, then the
 * entities after it.  `next` chains can be very long (thousands of parts),
 * so they are followed in a loop; only `child` is followed by recursion,
 * whose depth the structure walk keeps bounded.
 */
#include <array>
#include <cstddef>

#include "mime_internal.h"

extern "C" TARNMAIL_API const MIMECharsetMapEntry g_pstCharsetList[] = {
    {"iso-2022-jp", MIME_CS_ISO2022JP},
    {"euc-jp", MIME_CS_EUCJP},
    {"euc-kr", MIME_CS_EUCKR},
    {"big5", MIME_CS_BIG5},
    {"gb2312", MIME_CS_GB2312},
    {"gbk", MIME_CS_GB2312},
    {"gb18030", MIME_CS_GB18030},
    {"utf-8", MIME_CS_UTF8},
    {"utf8", MIME_CS_UTF8},
    {"utf-7", MIME_CS_UTF7},
    {"utf7", MIME_CS_UTF7},
    {"iso-8859-1", MIME_CS_ISO8859_1},
    {"iso-8859-2", MIME_CS_ISO8859_2},
    {"iso-8859-3", MIME_CS_ISO8859_3},
    {"iso-8859-4", MIME_CS_ISO8859_4},
    {nullptr, 0},
};

namespace {

struct CharsetPair {
  int mime;
  int mlg;
};

// Searched in order in both directions, so the first pair of a value wins:
// MLG 4 (Japanese) answers ISO-2022-JP, never EUC-JP.  The last real pair
// (0, 5) can never be reached and stays only to keep the table as shipped.
constexpr std::array<CharsetPair, 15> kMimeMlgPairs{{
    {MIME_CS_NONE, MLG_UNKNOWN},
    {MIME_CS_ISO2022JP, MLG_JAPANESE},
    {MIME_CS_BIG5, MLG_BIG5},
    {MIME_CS_UTF8, MLG_UTF8},
    {MIME_CS_EUCJP, MLG_JAPANESE},
    {MIME_CS_EUCKR, MLG_EUCKR},
    {MIME_CS_UTF7, MLG_UTF7},
    {MIME_CS_ISO8859_1, MLG_ISO8859_1},
    {MIME_CS_ISO8859_2, MLG_ISO8859_2},
    {MIME_CS_ISO8859_3, MLG_ISO8859_3},
    {MIME_CS_ISO8859_4, MLG_ISO8859_4},
    {MIME_CS_GB2312, MLG_GB2312},
    {MIME_CS_GB18030, MLG_GB18030},
    {MIME_CS_NONE, MLG_EUCKR},
    {-1, -1},
}};

// Prefixes of a declared charset, in the order they are tried.  "gb18030" is
// judged on its first six characters only.
struct CharsetPrefix {
  const char* prefix;
  std::size_t count;
  int value;
};
constexpr std::array<CharsetPrefix, 12> kDeclaredPrefixes{{
    {"iso-2022-jp", 11, MIME_CS_ISO2022JP},
    {"euc-jp", 6, MIME_CS_EUCJP},
    {"euc-kr", 6, MIME_CS_EUCKR},
    {"big5", 4, MIME_CS_BIG5},
    {"gb2312", 6, MIME_CS_GB2312},
    {"gb18030", 6, MIME_CS_GB18030},
    {"utf-8", 5, MIME_CS_UTF8},
    {"utf-7", 5, MIME_CS_UTF7},
    {"iso-8859-1", 10, MIME_CS_ISO8859_1},
    {"iso-8859-2", 10, MIME_CS_ISO8859_2},
    {"iso-8859-3", 10, MIME_CS_ISO8859_3},
    {"iso-8859-4", 10, MIME_CS_ISO8859_4},
}};

bool has_charset_str(const ME* me) { return me->h != nullptr && me->h->mime.charset_str[0] != '\0'; }

// First non-empty declared charset in walking order; *last follows every
// entity visited so that a failed search can answer like the last one made.
char* first_charset_str(ME* me, ME** last) {
  for (; me != nullptr; me = me->next) {
    *last = me;
    if (has_charset_str(me)) return me->h->mime.charset_str;
    if (me->child != nullptr) {
      if (char* found = first_charset_str(me->child, last)) return found;
    }
  }
  return nullptr;
}

bool any_charset_value(const ME* me, int value) {
  for (; me != nullptr; me = me->next) {
    if (me->h != nullptr && me->h->mime.charset != 0 && me->h->mime.charset == value) return true;
    if (me->child != nullptr && any_charset_value(me->child, value)) return true;
  }
  return false;
}

bool any_other_charset(const ME* me, int mlg) {
  for (; me != nullptr; me = me->next) {
    if (has_charset_str(me)) {
      const int own = MLG_CharsetWEncToValue(me->h->mime.charset_str);
      if (own != 0 && own != mlg) return true;
    }
    if (me->child != nullptr && any_other_charset(me->child, mlg)) return true;
  }
  return false;
}

}  // namespace

extern "C" TARNMAIL_API int MLC_CharsetToMIMEVal(const char* pszCharset) {
  if (pszCharset == nullptr || *pszCharset == '\0') return 0;
  for (const MIMECharsetMapEntry* e = g_pstCharsetList; e->pszCharset != nullptr; ++e)
    if (MSTR_CaseCmp(e->pszCharset, pszCharset) == 0) return e->nValue;
  return 0;
}

extern "C" TARNMAIL_API int MLC_MIMEToMLGCharset(int nCharset) {
  for (const CharsetPair& pair : kMimeMlgPairs) {
    if (pair.mime == -1) break;
    if (pair.mime == nCharset) return pair.mlg;
  }
  return 0;
}

extern "C" TARNMAIL_API int MLC_MLGToMIMECharset(int nCharset) {
  for (const CharsetPair& pair : kMimeMlgPairs) {
    if (pair.mlg == -1) break;
    if (pair.mlg == nCharset) return pair.mime;
  }
  return 0;
}

int strip_charset(char* ctype_str, MIME_DECODE* decode_info, char* charset_str, int len) {
  const int fallback = decode_info != nullptr ? decode_info->default_enc_cset : 0;
  if (charset_str == nullptr || len <= 0) return fallback;
  charset_str[0] = '\0';
  if (ctype_str == nullptr) return fallback;

  MSTR_TokVal(ctype_str, "charset", " \n\t", "=", " \n\t;", "\"", 0, 0, charset_str,
              static_cast<std::size_t>(len), MSTR_TOK_ANYWHERE);
  return charset_prefix_value(charset_str, fallback);
}

int charset_prefix_value(const char* charset_name, int fallback) {
  if (charset_name == nullptr) return fallback;
  for (const CharsetPrefix& p : kDeclaredPrefixes)
    if (MSTR_NCaseCmp(charset_name, p.prefix, p.count) == 0) return p.value;
  return fallback;
}

extern "C" TARNMAIL_API int mime_has_charset(ME* me, int nMIME_Charset) {
  return any_charset_value(me, nMIME_Charset) ? 1 : 0;
}

extern "C" TARNMAIL_API char* mime_get_charset(ME* me) {
  ME* last = nullptr;
  if (char* found = first_charset_str(me, &last)) return found;
  // Nothing declared: the last entity looked at answers, with its (empty)
  // name when it has a header block, else with NULL.
  return (last != nullptr && last->h != nullptr) ? last->h->mime.charset_str : nullptr;
}

extern "C" TARNMAIL_API char* mime_get_subject_charset(ME* me) {
  static char subject_charset[32];
  subject_charset[0] = '\0';
  if (me == nullptr || me->h == nullptr) return subject_charset;
  for (const HE* he = me->h->he; he != nullptr; he = he->next) {
    if (he->ent_name != nullptr && MSTR_CaseCmp(he->ent_name, "Subject") == 0) {
      const char* name = MLG_CharsetToMEncName(he->ent_charset);
      if (name != nullptr) MSTR_Copy(subject_charset, sizeof subject_charset, name, 0);
      break;
    }
  }
  return subject_charset;
}

extern "C" TARNMAIL_API int mime_diff_charset(ME* me, char* charset) {
  if (charset == nullptr) return 0;
  const int mlg = MLG_CharsetWEncToValue(charset);
  if (mlg == 0) return 0;
  return any_other_charset(me, mlg) ? 1 : 0;
}

extern "C" TARNMAIL_API int mime_refill_charset(ME* me, char* charset_str) {
  if (me == nullptr || me->h == nullptr || charset_str == nullptr) return 0;
  MIME_HEADER& mime = me->h->mime;
  if (mime.charset_str[0] != '\0') return 0;
  MSTR_Copy(mime.charset_str, sizeof mime.charset_str, charset_str, 0);
  mime.charset = MLC_MLGToMIMECharset(MLG_CharsetWEncToValue(charset_str));
  return 0;
}
