/*
 * mime_tnef_name.cpp - what a TNEF record answers about itself: its best
 * file name and the charset name of its code page.
 */
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "mime_tnef_internal.h"
#include "tarnplat.h"

namespace tnef {

constexpr uint16_t kPropAttachExtension = 0x3703;
constexpr uint16_t kTypeUnicode = 31;

/* Higher wins; a later property of the same priority replaces the name.
 * The attAttachTitle text stands at 1, "Untitled" + extension at 2. */
const FileNamePrior rg_stFileNamePrior[] = {
    {0x3707, 10},  // long file name
    {0x3001, 9},   // display name
    {0x3704, 6},   // short (8.3) file name
    {0, 0},
};

const OEM_CP_t rg_stCharsetTable[] = {
    {"ibm852", 852, "Central European (DOS)"},
    {"ibm866", 866, "Cyrillic (DOS)"},
    {"windows-874", 874, "Thai (Windows)"},
    {"shift-jis", 932, "Japanese (Shift-JIS)"},
    {"gb2312", 936, "Chinese Simplified (GB2312)"},
    {"gb18030", 54936, "Chinese Simplified (GB18030)"},
    {"ks_c_5601", 949, "Korean"},
    {"big5", 950, "Chinese Traditional (Big5)"},
    {"unicode", 1200, "Unicode"},
    {"unicodeFEFF", 1201, "Unicode (Big-Endian)"},
    {"windows-1250", 1250, "Central European (Windows)"},
    {"windows-1251", 1251, "Cyrillic (Windows)"},
    {"windows-1252", 1252, "Western European (Windows)"},
    {"windows-1253", 1253, "Greek (Windows)"},
    {"windows-1254", 1254, "Turkish (Windows)"},
    {"windows-1255", 1255, "Hebrew (Windows)"},
    {"windows-1256", 1256, "Arabic (Windows)"},
    {"windows-1257", 1257, "Baltic (Windows)"},
    {"windows-1258", 1258, "Vietnamese (Windows)"},
    {"irv", 20105, "Western European (IA5)"},
    {"DIN_66003", 20106, "German (IA5)"},
    {"SEN_850200_B", 20107, "Swedish (IA5)"},
    {"NS_4551-1", 20108, "Norwegian (IA5)"},
    {"koi8-r", 20866, "Cyrillic (KOI8-R)"},
    {"iso-8859-1", 28591, "Western European (ISO)"},
    {"iso-8859-2", 28592, "Central European (ISO)"},
    {"iso-8859-3", 28593, "Latin 3 (ISO)"},
    {"iso-8859-4", 28594, "Baltic (ISO)"},
    {"iso-8859-5", 28595, "Cyrillic (ISO)"},
    {"iso-8859-6", 28596, "Arabic (ISO)"},
    {"iso-8859-7", 28597, "Greek (ISO)"},
    {"iso-8859-8", 28598, "Hebrew (ISO-Visual)"},
    {"x-user-defined", 50000, "User Defined"},
    {"iso-2022-jp", 50220, "Japanese (JIS)"},
    {"csISO2022JP", 50221, "Japanese (JIS-Allow 1 byte Kana)"},
    {"iso-2022-jp", 50222, "Japanese (JIS-Allow 1 byte Kana - SO/SI)"},
    {"iso-2022-kr", 50225, "Korean (ISO)"},
    {"_autodetect", 50932, "Japanese (Auto-Select)"},
    {"_autodetect_kr", 50949, "Korean (Auto-Select)"},
    {"x-euc", 51932, "Japanese (EUC)"},
    {"euc-kr", 51949, "Korean (EUC)"},
    {"hz-gb-2312", 52936, "Chinese Simplified (HZ)"},
    {"utf-7", 65000, "Unicode (UTF-7)"},
    {"utf-8", 65001, "Unicode (UTF-8)"},
    {nullptr, 0, nullptr},
};

namespace {

/* A bounded output text: never writes past its size, always terminated,
 * and never ends inside a UTF-8 sequence it was given as UTF-8. */
class NameBuf {
 public:
  NameBuf(char* buf, size_t size) : buf_(buf), size_(size) { set("", false); }

  void set(std::string_view text, bool utf8) {
    len_ = 0;
    append(text, utf8);
  }
  void append(std::string_view text, bool utf8) {
    size_t room = size_ - 1 - len_;
    size_t n = text.size() < room ? text.size() : room;
    if (utf8 && n < text.size())
      while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;  // n is a lead byte
    std::memcpy(buf_ + len_, text.data(), n);
    len_ += n;
    buf_[len_] = '\0';
  }

 private:
  char* buf_;
  size_t size_;
  size_t len_ = 0;
};

/* The first value of a property as text: bytes up to the first NUL, or a
 * UTF-16 value converted to UTF-8 (heap, owned by the Text). */
class Text {
 public:
  explicit Text(const MAPI_Prop_t& prop) {
    if (prop.unCount == 0 || prop.pstVals == nullptr || prop.pstVals[0].pvData == nullptr) return;
    const MAPI_Val_t& v = prop.pstVals[0];
    if ((prop.unType & 0xFFFF) == kTypeUnicode) {
      converted_ = MUC_UTF16LE2UTF8(v.pvData, v.unSize);
      if (converted_ == nullptr) return;
      text_ = converted_;
      utf8_ = true;
    } else {
      const char* p = static_cast<const char*>(v.pvData);
      const void* nul = std::memchr(p, '\0', v.unSize);
      text_ = std::string_view(p, nul ? static_cast<const char*>(nul) - p : v.unSize);
    }
    ok_ = true;
  }
  ~Text() { std::free(converted_); }
  Text(const Text&) = delete;
  Text& operator=(const Text&) = delete;

  bool ok() const { return ok_; }
  bool utf8() const { return utf8_; }
  std::string_view view() const { return text_; }

 private:
  char* converted_ = nullptr;
  std::string_view text_;
  bool ok_ = false;
  bool utf8_ = false;
};

const FileNamePrior* prior_row(uint16_t id, int current) {
  for (const FileNamePrior* row = rg_stFileNamePrior; row->unID != 0; ++row)
    if (row->unID == id && row->nPrior >= current) return row;
  return nullptr;
}

const char* charset_of(uint64_t codepage) {
  for (const OEM_CP_t* row = rg_stCharsetTable; row->unCodePage != 0; ++row)
    if (row->unCodePage == codepage) return row->pszCharset;
  return nullptr;
}

}  // namespace
}  // namespace tnef

extern "C" TARNMAIL_API int MLC_TNEFFilename(const TNEF_Attach* pstObject, char* psFileBuf, size_t stLen,
                                             int* pnCSetValue) {
  if (psFileBuf == nullptr || stLen == 0) return TNEF_ERR_ARG;
  if (pnCSetValue != nullptr) *pnCSetValue = 0;
  if (pstObject == nullptr || pstObject->pvFileData == nullptr) return TNEF_ERR_ARG;

  tnef::NameBuf name(psFileBuf, stLen);
  int prior = 0;
  bool converted = false;
  name.set("Untitled", false);
  if (pstObject->pszFileName != nullptr && pstObject->pszFileName[0] != '\0') {
    name.set(pstObject->pszFileName, false);
    prior = 1;
  }
  const TNEF_MAPI_t& block = pstObject->stMAPI;
  for (uint32_t i = 0; block.pstProps != nullptr && i < block.unCount; ++i) {
    const MAPI_Prop_t& prop = block.pstProps[i];
    if (const tnef::FileNamePrior* row = tnef::prior_row(prop.unID, prior)) {
      tnef::Text text(prop);
      if (!text.ok()) continue;
      name.set(text.view(), text.utf8());
      converted = text.utf8();
      prior = row->nPrior;
    } else if (prior == 0 && prop.unID == tnef::kPropAttachExtension) {
      tnef::Text text(prop);
      if (!text.ok()) continue;
      name.append(text.view(), text.utf8());
      converted = text.utf8();
      prior = 2;
    }
  }
  if (pnCSetValue != nullptr && converted) *pnCSetValue = 1;
  return 0;
}

extern "C" TARNMAIL_API int MLC_TNEFCharset2(const TNEF_Attach* pstObject, const char** ppszCharset) {
  if (ppszCharset == nullptr) return TNEF_ERR_ARG;
  *ppszCharset = "";
  if (pstObject == nullptr) return TNEF_ERR_ARG;
  const char* name = tnef::charset_of(pstObject->unCodePage);
  if (name == nullptr) return TNEF_ERR_CODEPAGE;
  *ppszCharset = name;
  return 0;
}

extern "C" TARNMAIL_API int MLC_TNEFCharset(const TNEF_Attach* pstObject, char* psCharset, size_t stLen) {
  if (psCharset == nullptr || stLen == 0) return TNEF_ERR_ARG;
  psCharset[0] = '\0';
  const char* name = nullptr;
  const int rc = MLC_TNEFCharset2(pstObject, &name);
  if (rc == 0) tnef::NameBuf(psCharset, stLen).set(name, false);
  return rc;
}

/* Kept as it has always worked: the i-th character is the 32-bit word
 * 4 * i bytes in (i stepping by 2), and 0x7FF already takes three bytes.
 * The walk ends at the first word that would reach past the input. */
extern "C" TARNMAIL_API char* s_UTF16XUTF8(unsigned int unLen, const char* szUTF16) {
  static char out[4096];
  if (szUTF16 == nullptr || static_cast<uint64_t>(unLen) * 3 / 2 >= sizeof out) return nullptr;
  const auto* in = reinterpret_cast<const unsigned char*>(szUTF16);
  size_t o = 0;
  for (uint64_t i = 0; i + 1 < unLen; i += 2) {
    const uint64_t at = 4 * i;
    if (at + 4 > unLen) break;
    const uint32_t c = tnef::s_IntFormat(in + at);
    if (c <= 0x7F) {
      out[o++] = static_cast<char>(c);
    } else if (c <= 0x7FE) {
      out[o++] = static_cast<char>(0xC0 | ((c >> 6) & 0x1F));
      out[o++] = static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out[o++] = static_cast<char>(0xE0 | ((c >> 12) & 0x0F));
      out[o++] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out[o++] = static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  out[o] = '\0';
  return out;
}
