// The display context: the ready contexts of the pages, binding a context to
// a decoded message, the set-up calls and the release of what a rendering
// owns.

#include <cstdlib>
#include <cstring>

#include "mime_disp_internal.h"

int MMIME_ConvertUtf72Utf8 = 0;

namespace {

// Search URL prefix for query highlights; the URI-escaped word follows it.
constexpr const char* kQueryLink = "/cgi-bin/newsSearch?keyword=";

template <size_t N>
constexpr void set_text(char (&field)[N], const char* text) {
  size_t i = 0;
  for (; i + 1 < N && text[i] != '\0'; ++i) field[i] = text[i];
  field[i] = '\0';
}

// What differs from one page's context to the next; everything else is
// common to all of them.
struct PresetRow {
  const char* header_form;
  const char* vcard_form;
  int disp_flag;
  int text2disp_flag;
  int html2disp_flag;
  int disp_image_flag;
  int disp_alt_flag;
};

constexpr MIME_DISP make_preset(const PresetRow& row) {
  MIME_DISP d{};
  set_text(d.header_form, row.header_form);
  set_text(d.vcard_form, row.vcard_form);
  d.att_cache_level = 2;
  set_text(d.filedownload, ".");
  d.disp_flag = row.disp_flag;
  d.text2disp_flag = row.text2disp_flag;
  d.html2disp_flag = row.html2disp_flag;
  d.disp_image_flag = row.disp_image_flag;
  d.disp_alt_flag = row.disp_alt_flag;
  d.mark_begin = 1;
  d.Q_mark_begin = 2;
  d.Q_mark_end = 3;
  d.mark_end = 4;
  d.Q_link = kQueryLink;
  d.Q_mark_color = "red";
  d.mark_color = "darkgreen";
  set_text(d.reply_sign, ">");
  d.is_first_header = 1;
  d.txt_show_size = 20480;
  d.nTotalBytesRetrict = 0x40000000L;
  set_text(d.cgipath, "/cgi-bin/downfile");
  set_text(d.webrelatepath, "filedownload");
  return d;
}

constexpr char kHtml[] = "mail_header_html.dat";
constexpr char kHtmlDraft[] = "mail_header_html_draft.dat";
constexpr char kVcard[] = "vcard.dat";
constexpr char kNone[] = "";

// Copies `src` into a fixed field when it is neither null nor empty;
// otherwise the field keeps its value.
template <size_t N>
void copy_if_given(char (&field)[N], const char* src) {
  if (src != nullptr && *src != '\0') MSTR_Copy(field, N, src, 0);
}

// Copies `src` into a fixed field, emptying it for a null `src`.
template <size_t N>
void copy_or_clear(char (&field)[N], const char* src) {
  if (src != nullptr)
    MSTR_Copy(field, N, src, 0);
  else
    field[0] = '\0';
}

int set_filter(MIME_DISP* disp_info, filter_func_ptr MIME_DISP::*slot, filter_func_ptr FFP) {
  if (disp_info != nullptr) disp_info->*slot = FFP;
  return 0;
}

}  // namespace

void* mime_disp_alloc(MIME_DISP* disp_info, size_t size) {
  return my_Xalloc(&disp_info->MIME_ptr, size);
}

char* mime_disp_form_path(const MIME_DISP* disp_info, const char* form, char* pszPath, size_t nzPath) {
  if (pszPath == nullptr || nzPath == 0) return pszPath;
  if (form == nullptr) form = "";
  if (disp_info != nullptr && disp_info->form_base[0] != '\0')
    MSTR_Printf(pszPath, nzPath, "%s/%s", disp_info->form_base, form);
  else
    MSTR_Copy(pszPath, nzPath, form, 0);
  return pszPath;
}

extern "C" {

constinit MIME_DISP mailhdrDE = make_preset({"mail_header_text_wap.dat", kNone, 0x184, 0, 0, 0, 3});
constinit MIME_DISP imapDE = make_preset({kHtml, kVcard, 0x40, 0, 0, 0, 0});
constinit MIME_DISP downfileDE =
    make_preset({"downfile_header_html.dat", kVcard, 0x40, 0x3a7, 0x208, 1, 3});
constinit MIME_DISP mailprnDE = make_preset({"mail_prn_html.dat", kVcard, 0x40, 0x83a7, 0x827f8, 1, 3});
constinit MIME_DISP mailreadDE = make_preset({kHtml, kVcard, 0x50, 0x3a7, 0x807f8, 0xf, 3});
constinit MIME_DISP msgreadDE = make_preset({kHtml, kVcard, 0x50, 0x83a7, 0xda590, 0xf, 7});
constinit MIME_DISP html_incDE = make_preset({"mail_header_html_inc.dat", kNone, 0x43, 0x1c27, 0x20e, 0, 3});
constinit MIME_DISP html_fwdDE = make_preset({"mail_header_html_fwd.dat", kNone, 0x4b, 0x1c27, 0x20e, 0, 3});
constinit MIME_DISP html_replyDE =
    make_preset({"mail_header_html_reply.dat", kNone, 0x43, 0x3a7, 0x20e, 0, 3});
constinit MIME_DISP html_draftDE = make_preset({kHtmlDraft, kNone, 0x43, 0x3a7, 0x20e, 0, 3});
constinit MIME_DISP text_incDE = make_preset({"mail_header_text_inc.dat", kNone, 0x47, 0x8380, 0x208, 0, 1});
constinit MIME_DISP text_fwdDE = make_preset({"mail_header_text_fwd.dat", kNone, 0x4f, 0x8380, 0x208, 0, 1});
constinit MIME_DISP text_replyDE =
    make_preset({"mail_header_text_reply.dat", kNone, 0x47, 0x8388, 0x208, 0, 1});
constinit MIME_DISP text_draftDE =
    make_preset({"mail_header_text_draft.dat", kNone, 0x47, 0x8380, 0x208, 0, 1});
constinit MIME_DISP imodeDE = make_preset({"mail_header_text_imode.dat", kNone, 0x45, 0x3a7, 0x20c, 0, 2});
constinit MIME_DISP wapDE = make_preset({"mail_header_text.dat", kNone, 0x47, 0, 0, 0, 2});
constinit MIME_DISP show_htmlDE = make_preset({kHtmlDraft, kNone, 0x41, 0x3a7, 0x20e, 0, 3});
constinit MIME_DISP mailsendDE = make_preset({"mail_send_html.dat", kVcard, 0x40, 0x3a7, 0x208, 1, 7});
constinit MIME_DISP show_syslogDE = make_preset({kHtmlDraft, kNone, 0x41, 0x3a7, 0x20a, 0, 3});

int mime_disp_init(MIME_DISP* disp_info, HME* hme, const char* disp_base, const char* form_base) {
  if (disp_info == nullptr) return 0;
  disp_info->showdata = hme;
  if (disp_base != nullptr) MSTR_Copy(disp_info->disp_base, sizeof disp_info->disp_base, disp_base, 0);
  if (form_base != nullptr) MSTR_Copy(disp_info->form_base, sizeof disp_info->form_base, form_base, 0);
  init_cache_path(disp_info);
  disp_info->is_first_header = 1;
  disp_info->is_block_image = 0;
  disp_info->fileCID_ptr = nullptr;
  disp_info->fileLOC_ptr = nullptr;
  disp_info->_fileCID = fileCID{};
  disp_info->_fileLOC = fileLOC{};
  disp_info->pszVar1 = nullptr;
  disp_info->pszVar2 = nullptr;
  disp_info->pszVar3 = nullptr;
  disp_info->nDispCharsetVal = 0;
  disp_info->nFormCharsetVal = 0;
  disp_info->nDefTextCharsetVal = 0;
  disp_info->downfile_arg[0] = '\0';
  if (disp_info->pfOut == nullptr) disp_info->pfOut = stdout;
  return 0;
}

int mime_disp_setfp(MIME_DISP* disp_info, FILE* fp) {
  if (disp_info != nullptr) disp_info->pfOut = fp;
  return 0;
}

int mime_disp_setcharset(MIME_DISP* disp_info, int nFormCharsetVal, int nDispCharsetVal) {
  if (disp_info == nullptr) return 0;
  disp_info->nFormCharsetVal = nFormCharsetVal;
  disp_info->nDispCharsetVal = nDispCharsetVal;
  return 0;
}

int mime_disp_setdefcharset(MIME_DISP* disp_info, int nTextCharsetVal) {
  if (disp_info != nullptr) disp_info->nDefTextCharsetVal = nTextCharsetVal;
  return 0;
}

int mime_disp_setbuf(MIME_DISP* disp_info, char* pcBuf, long size) {
  if (disp_info == nullptr) return 0;
  // The buffer starts out as an empty text; a buffer of no bytes has no
  // room even for that, and the sink writes nothing into it.
  if (pcBuf != nullptr && size > 0) pcBuf[0] = '\0';
  disp_info->pcOutBuf = pcBuf;
  disp_info->nTotalBytesRetrict = size;
  return 0;
}

int mime_disp_getresult(MIME_DISP* disp_info, char** ppcBuf, long* pnSize) {
  if (disp_info == nullptr) return 0;
  if (ppcBuf != nullptr) *ppcBuf = disp_info->pcResult;
  if (pnSize != nullptr) *pnSize = disp_info->nResultSize;
  return 0;
}

int mime_disp_setvar(MIME_DISP* disp_info, const char* pszVar1, const char* pszVar2, const char* pszVar3) {
  if (disp_info == nullptr) return 0;
  disp_info->pszVar1 = pszVar1;
  disp_info->pszVar2 = pszVar2;
  disp_info->pszVar3 = pszVar3;
  return 0;
}

int mime_disp_setfilter1(MIME_DISP* disp_info, filter_func_ptr FFP) {
  return set_filter(disp_info, &MIME_DISP::Filter1, FFP);
}
int mime_disp_setfilter2(MIME_DISP* disp_info, filter_func_ptr FFP) {
  return set_filter(disp_info, &MIME_DISP::Filter2, FFP);
}
int mime_disp_setfilter3(MIME_DISP* disp_info, filter_func_ptr FFP) {
  return set_filter(disp_info, &MIME_DISP::Filter3, FFP);
}
int mime_disp_setfilter4(MIME_DISP* disp_info, filter_func_ptr FFP) {
  return set_filter(disp_info, &MIME_DISP::Filter4, FFP);
}
int mime_disp_setfilter5(MIME_DISP* disp_info, filter_func_ptr FFP) {
  return set_filter(disp_info, &MIME_DISP::Filter5, FFP);
}
int mime_disp_setformfilter(MIME_DISP* disp_info, filter_func_ptr FFP) {
  return set_filter(disp_info, &MIME_DISP::fpFormFilter, FFP);
}

int mime_disp_set_downfilepath(MIME_DISP* disp_info, const char* bathpath, filename2path_ptr filename2path) {
  if (disp_info == nullptr) return 0;
  copy_if_given(disp_info->filedownload, bathpath);
  disp_info->filename2path = filename2path;
  return 0;
}

int mime_disp_set_webrelatepath(MIME_DISP* disp_info, const char* path) {
  if (disp_info != nullptr) copy_if_given(disp_info->webrelatepath, path);
  return 0;
}

int mime_disp_set_cgipath(MIME_DISP* disp_info, const char* path) {
  if (disp_info != nullptr) copy_if_given(disp_info->cgipath, path);
  return 0;
}

int mime_disp_setattshow(MIME_DISP* disp_info, const char* ctype, const char* form, attshow_func_ptr FFP,
                         int nDefCsetVal, int nFlags) {
  if (disp_info == nullptr) return 0;
  auto* node = static_cast<attShow*>(mime_disp_alloc(disp_info, sizeof(attShow)));
  copy_or_clear(node->ctype, ctype);
  copy_or_clear(node->form, form);
  node->nDefCset = nDefCsetVal;
  node->nFlags = nFlags;
  node->showfunc = FFP;
  node->next = nullptr;
  // Only the first registration is linked in; later nodes stay in the arena
  // unreachable.  Pages register one viewer and rely on this.
  if (disp_info->pstAttShowList == nullptr) disp_info->pstAttShowList = node;
  return 0;
}

int mime_disp_setdownfile_arg(MIME_DISP* disp_info, const char* arg) {
  if (disp_info != nullptr) copy_or_clear(disp_info->downfile_arg, arg);
  return 0;
}

int mime_engine_set_preview_ext(MIME_DISP* disp_info, const char* extlist) {
  if (disp_info != nullptr) copy_or_clear(disp_info->preview_type, extlist);
  return 0;
}

int mime_disp_shutdown(MIME_DISP* disp_info) {
  if (disp_info == nullptr) return 0;
  // The arena goes whenever the context has one, whatever became of the
  // decoded tree: viewers registered before the walk live there too.
  if (disp_info->MIME_ptr != nullptr) my_Xfree(&disp_info->MIME_ptr);
  disp_info->MIME_ptr = nullptr;
  if (disp_info->pcResult != nullptr) {
    // The write position pointed into the growing buffer; it must not
    // outlive it.
    if (disp_info->disp_flag & MIME_DISP_OUT_GROWING && !(disp_info->disp_flag & MIME_DISP_OUT_FIXED)) {
      disp_info->pcOutBuf = nullptr;
      disp_info->nTotalBytesRetrict = 0;
    }
    std::free(disp_info->pcResult);
    disp_info->pcResult = nullptr;
  }
  // nResultSize keeps its count; a later growing buffer starts behind it.
  return 0;
}

}  // extern "C"
