// Display context: the ready contexts of the pages, field by field, and the
// exact effect of each set-up call.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "mime_disp_internal.h"

// The per-message file prefix is computed by the saved-parts code; when that
// is not part of this program, init goes on without it.
__attribute__((weak)) void init_cache_path(MIME_DISP*) {}

namespace {

struct Expected {
  const char* name;
  const MIME_DISP* preset;
  const char* header_form;
  const char* vcard_form;
  int disp_flag, text2disp_flag, html2disp_flag, disp_image_flag, disp_alt_flag;
};

const Expected kPresets[] = {
    {"mailhdrDE", &mailhdrDE, "mail_header_text_wap.dat", "", 0x184, 0, 0, 0, 3},
    {"imapDE", &imapDE, "mail_header_html.dat", "vcard.dat", 0x40, 0, 0, 0, 0},
    {"downfileDE", &downfileDE, "downfile_header_html.dat", "vcard.dat", 0x40, 0x3a7, 0x208, 1, 3},
    {"mailprnDE", &mailprnDE, "mail_prn_html.dat", "vcard.dat", 0x40, 0x83a7, 0x827f8, 1, 3},
    {"mailreadDE", &mailreadDE, "mail_header_html.dat", "vcard.dat", 0x50, 0x3a7, 0x807f8, 0xf, 3},
    {"msgreadDE", &msgreadDE, "mail_header_html.dat", "vcard.dat", 0x50, 0x83a7, 0xda590, 0xf, 7},
    {"html_incDE", &html_incDE, "mail_header_html_inc.dat", "", 0x43, 0x1c27, 0x20e, 0, 3},
    {"html_fwdDE", &html_fwdDE, "mail_header_html_fwd.dat", "", 0x4b, 0x1c27, 0x20e, 0, 3},
    {"html_replyDE", &html_replyDE, "mail_header_html_reply.dat", "", 0x43, 0x3a7, 0x20e, 0, 3},
    {"html_draftDE", &html_draftDE, "mail_header_html_draft.dat", "", 0x43, 0x3a7, 0x20e, 0, 3},
    {"text_incDE", &text_incDE, "mail_header_text_inc.dat", "", 0x47, 0x8380, 0x208, 0, 1},
    {"text_fwdDE", &text_fwdDE, "mail_header_text_fwd.dat", "", 0x4f, 0x8380, 0x208, 0, 1},
    {"text_replyDE", &text_replyDE, "mail_header_text_reply.dat", "", 0x47, 0x8388, 0x208, 0, 1},
    {"text_draftDE", &text_draftDE, "mail_header_text_draft.dat", "", 0x47, 0x8380, 0x208, 0, 1},
    {"imodeDE", &imodeDE, "mail_header_text_imode.dat", "", 0x45, 0x3a7, 0x20c, 0, 2},
    {"wapDE", &wapDE, "mail_header_text.dat", "", 0x47, 0, 0, 0, 2},
    {"show_htmlDE", &show_htmlDE, "mail_header_html_draft.dat", "", 0x41, 0x3a7, 0x20e, 0, 3},
    {"mailsendDE", &mailsendDE, "mail_send_html.dat", "vcard.dat", 0x40, 0x3a7, 0x208, 1, 7},
    {"show_syslogDE", &show_syslogDE, "mail_header_html_draft.dat", "", 0x41, 0x3a7, 0x20a, 0, 3},
};

template <size_t N>
void clear(char (&field)[N]) {
  std::memset(field, 0, N);
}

TEST(DispPresets, EachPresetHoldsItsRowAndTheCommonValuesAndNothingElse) {
  ASSERT_EQ(std::size(kPresets), 19u);
  const char* q_link = kPresets[0].preset->Q_link;
  ASSERT_NE(q_link, nullptr);
  EXPECT_EQ(std::strncmp(q_link, "/cgi-bin/", 9), 0);
  for (const Expected& e : kPresets) {
    SCOPED_TRACE(e.name);
    const MIME_DISP& p = *e.preset;
    EXPECT_STREQ(p.header_form, e.header_form);
    EXPECT_STREQ(p.vcard_form, e.vcard_form);
    EXPECT_EQ(p.disp_flag, e.disp_flag);
    EXPECT_EQ(p.text2disp_flag, e.text2disp_flag);
    EXPECT_EQ(p.html2disp_flag, e.html2disp_flag);
    EXPECT_EQ(p.disp_image_flag, e.disp_image_flag);
    EXPECT_EQ(p.disp_alt_flag, e.disp_alt_flag);

    EXPECT_EQ(p.att_cache_level, 2);
    EXPECT_STREQ(p.filedownload, ".");
    EXPECT_EQ(p.mark_begin, 1);
    EXPECT_EQ(p.Q_mark_begin, 2);
    EXPECT_EQ(p.Q_mark_end, 3);
    EXPECT_EQ(p.mark_end, 4);
    EXPECT_STREQ(p.Q_link, q_link);
    EXPECT_STREQ(p.Q_mark_color, "red");
    EXPECT_STREQ(p.mark_color, "darkgreen");
    EXPECT_STREQ(p.reply_sign, ">");
    EXPECT_EQ(p.is_first_header, 1);
    EXPECT_EQ(p.txt_show_size, 20480);
    EXPECT_EQ(p.nTotalBytesRetrict, 1073741824L);
    EXPECT_STREQ(p.cgipath, "/cgi-bin/downfile");
    EXPECT_STREQ(p.webrelatepath, "filedownload");

    // With the fields above blanked, every byte of the record is zero:
    // no other field (null pointers, empty texts, zero counts) is set.
    MIME_DISP rest;
    std::memcpy(&rest, &p, sizeof rest);
    clear(rest.header_form);
    clear(rest.vcard_form);
    clear(rest.filedownload);
    clear(rest.reply_sign);
    clear(rest.cgipath);
    clear(rest.webrelatepath);
    rest.disp_flag = rest.text2disp_flag = rest.html2disp_flag = 0;
    rest.disp_image_flag = rest.disp_alt_flag = 0;
    rest.att_cache_level = rest.mark_begin = rest.Q_mark_begin = rest.Q_mark_end = rest.mark_end = 0;
    rest.Q_link = rest.Q_mark_color = rest.mark_color = nullptr;
    rest.is_first_header = 0;
    rest.txt_show_size = 0;
    rest.nTotalBytesRetrict = 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(&rest);
    for (size_t i = 0; i < sizeof rest; ++i)
      if (bytes[i] != 0) ADD_FAILURE() << "byte " << i << " of the record is set";
  }
}

// A context whose every field the set-up calls might touch holds a value.
MIME_DISP dirty_context() {
  static char var[] = "v";
  MIME_DISP d = mailreadDE;
  d.is_first_header = 0;
  d.is_block_image = 1;
  d._fileCID.flag = 1;
  d._fileCID.ctype = 4;
  d._fileLOC.flag = 1;
  d.fileCID_ptr = &d._fileCID;
  d.fileLOC_ptr = &d._fileLOC;
  d.pszVar1 = d.pszVar2 = d.pszVar3 = var;
  d.nDispCharsetVal = 7;
  d.nFormCharsetVal = 8;
  d.nDefTextCharsetVal = 9;
  d.nTextCharsetVal = 10;
  d._show = 1;
  std::memcpy(d.downfile_arg, "arg", 4);
  std::memcpy(d.disp_base, "http://old", 11);
  std::memcpy(d.form_base, "/old/forms", 11);
  return d;
}

TEST(DispInit, ResetsThePerRenderingStateAndKeepsTheRest) {
  MIME_DISP d = dirty_context();
  HME hme{};
  const MIME_DISP before = d;
  ASSERT_EQ(mime_disp_init(&d, &hme, "https://mail.example", "/forms"), 0);
  EXPECT_EQ(d.showdata, &hme);
  EXPECT_STREQ(d.disp_base, "https://mail.example");
  EXPECT_STREQ(d.form_base, "/forms");
  EXPECT_EQ(d.is_first_header, 1);
  EXPECT_EQ(d.is_block_image, 0);
  EXPECT_EQ(d.fileCID_ptr, nullptr);
  EXPECT_EQ(d.fileLOC_ptr, nullptr);
  EXPECT_EQ(d._fileCID.flag, 0);
  EXPECT_EQ(d._fileCID.ctype, 0);
  EXPECT_EQ(d._fileLOC.flag, 0);
  EXPECT_EQ(d.pszVar1, nullptr);
  EXPECT_EQ(d.pszVar2, nullptr);
  EXPECT_EQ(d.pszVar3, nullptr);
  EXPECT_EQ(d.nDispCharsetVal, 0);
  EXPECT_EQ(d.nFormCharsetVal, 0);
  EXPECT_EQ(d.nDefTextCharsetVal, 0);
  // Only the first byte of the download argument is cleared.
  EXPECT_EQ(d.downfile_arg[0], '\0');
  EXPECT_EQ(std::memcmp(d.downfile_arg + 1, "rg", 3), 0);
  EXPECT_EQ(d.pfOut, stdout);
  // Left alone.
  EXPECT_EQ(d.nTextCharsetVal, before.nTextCharsetVal);
  EXPECT_EQ(d._show, 1);
  EXPECT_EQ(d.disp_flag, before.disp_flag);
  EXPECT_STREQ(d.header_form, before.header_form);
}

TEST(DispInit, NullTextsKeepTheirFieldsLongOnesAreCutAndAGivenStreamStays) {
  MIME_DISP d = mailreadDE;
  ASSERT_EQ(mime_disp_init(&d, nullptr, nullptr, nullptr), 0);
  EXPECT_STREQ(d.disp_base, "");
  EXPECT_STREQ(d.form_base, "");
  EXPECT_EQ(d.showdata, nullptr);

  d = dirty_context();
  ASSERT_EQ(mime_disp_init(&d, nullptr, nullptr, nullptr), 0);
  EXPECT_STREQ(d.disp_base, "http://old");
  EXPECT_STREQ(d.form_base, "/old/forms");

  const std::string long_base(300, 'b');
  FILE* fp = std::tmpfile();
  ASSERT_NE(fp, nullptr);
  d = mailreadDE;
  mime_disp_setfp(&d, fp);
  ASSERT_EQ(mime_disp_init(&d, nullptr, long_base.c_str(), long_base.c_str()), 0);
  EXPECT_EQ(std::string(d.disp_base), std::string(127, 'b'));
  EXPECT_EQ(std::string(d.form_base), std::string(127, 'b'));
  EXPECT_EQ(d.pfOut, fp);
  std::fclose(fp);
}

TEST(DispSetup, PlainSettersStoreTheirValuesInTheirOwnFields) {
  MIME_DISP d = mailreadDE;
  EXPECT_EQ(mime_disp_setcharset(&d, 3, 4), 0);
  EXPECT_EQ(d.nFormCharsetVal, 3);
  EXPECT_EQ(d.nDispCharsetVal, 4);
  EXPECT_EQ(mime_disp_setdefcharset(&d, 6), 0);
  EXPECT_EQ(d.nDefTextCharsetVal, 6);
  EXPECT_EQ(d.nTextCharsetVal, 0);

  const char* v1 = "one";
  const char* v2 = "two";
  EXPECT_EQ(mime_disp_setvar(&d, v1, v2, nullptr), 0);
  EXPECT_EQ(d.pszVar1, v1);  // kept, not copied
  EXPECT_EQ(d.pszVar2, v2);
  EXPECT_EQ(d.pszVar3, nullptr);

  char* result = reinterpret_cast<char*>(&d);
  long size = -1;
  d.pcResult = nullptr;
  d.nResultSize = 42;
  EXPECT_EQ(mime_disp_getresult(&d, &result, &size), 0);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(size, 42);
  EXPECT_EQ(mime_disp_getresult(&d, nullptr, nullptr), 0);
}

char* filter_a(MIME_DISP*, char* text, int) { return text; }
char* filter_b(MIME_DISP*, char* text, int) { return text + 1; }

TEST(DispSetup, EachFilterSetterFillsOnlyItsSlot) {
  using Setter = int (*)(MIME_DISP*, filter_func_ptr);
  const Setter setters[] = {mime_disp_setfilter1, mime_disp_setfilter2, mime_disp_setfilter3,
                            mime_disp_setfilter4, mime_disp_setfilter5, mime_disp_setformfilter};
  filter_func_ptr MIME_DISP::*const slots[] = {&MIME_DISP::Filter1, &MIME_DISP::Filter2,
                                               &MIME_DISP::Filter3, &MIME_DISP::Filter4,
                                               &MIME_DISP::Filter5, &MIME_DISP::fpFormFilter};
  for (size_t i = 0; i < std::size(setters); ++i) {
    SCOPED_TRACE(i);
    MIME_DISP d = mailreadDE;
    for (auto slot : slots) d.*slot = filter_b;
    EXPECT_EQ(setters[i](&d, filter_a), 0);
    for (size_t j = 0; j < std::size(slots); ++j)
      EXPECT_EQ(d.*slots[j], i == j ? filter_a : filter_b) << "slot " << j;
    setters[i](&d, nullptr);
    EXPECT_EQ(d.*slots[i], nullptr);
  }
}

char* to_path(char* prefix, char*, int, ...) { return prefix; }

TEST(DispSetup, PathsChangeOnlyForNonEmptyTextsAndAreCut) {
  MIME_DISP d = mailreadDE;
  EXPECT_EQ(mime_disp_set_cgipath(&d, ""), 0);
  EXPECT_STREQ(d.cgipath, "/cgi-bin/downfile");
  mime_disp_set_cgipath(&d, nullptr);
  EXPECT_STREQ(d.cgipath, "/cgi-bin/downfile");
  mime_disp_set_cgipath(&d, "/cgi-bin/get");
  EXPECT_STREQ(d.cgipath, "/cgi-bin/get");

  EXPECT_EQ(mime_disp_set_webrelatepath(&d, ""), 0);
  EXPECT_STREQ(d.webrelatepath, "filedownload");
  const std::string long_path(200, 'w');
  mime_disp_set_webrelatepath(&d, long_path.c_str());
  EXPECT_EQ(std::string(d.webrelatepath), std::string(127, 'w'));

  EXPECT_EQ(mime_disp_set_downfilepath(&d, "/var/dl", to_path), 0);
  EXPECT_STREQ(d.filedownload, "/var/dl");
  EXPECT_EQ(d.filename2path, to_path);
  // An empty directory keeps the old one; the mapping is always replaced.
  mime_disp_set_downfilepath(&d, "", nullptr);
  EXPECT_STREQ(d.filedownload, "/var/dl");
  EXPECT_EQ(d.filename2path, nullptr);
  mime_disp_set_downfilepath(&d, nullptr, to_path);
  EXPECT_STREQ(d.filedownload, "/var/dl");
  EXPECT_EQ(d.filename2path, to_path);

  EXPECT_EQ(mime_disp_setdownfile_arg(&d, "0123456789abcdefXYZ"), 0);
  EXPECT_STREQ(d.downfile_arg, "0123456789abcde");
  mime_disp_setdownfile_arg(&d, nullptr);
  EXPECT_STREQ(d.downfile_arg, "");

  EXPECT_EQ(mime_engine_set_preview_ext(&d, "%pdf%doc%"), 0);
  EXPECT_STREQ(d.preview_type, "%pdf%doc%");
  const std::string long_list(400, '%');
  mime_engine_set_preview_ext(&d, long_list.c_str());
  EXPECT_EQ(std::string(d.preview_type), std::string(255, '%'));
  mime_engine_set_preview_ext(&d, nullptr);
  EXPECT_STREQ(d.preview_type, "");
}

TEST(DispSetup, SetbufMakesAnEmptyTextAndSetsTheLimit) {
  MIME_DISP d = mailhdrDE;
  char buf[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(mime_disp_setbuf(&d, buf, 3), 0);
  EXPECT_EQ(buf[0], '\0');
  EXPECT_EQ(buf[1], 'x');
  EXPECT_EQ(d.pcOutBuf, buf);
  EXPECT_EQ(d.nTotalBytesRetrict, 3);
  // No room: nothing is written, not even the NUL.
  buf[0] = 'x';
  mime_disp_setbuf(&d, buf, 0);
  EXPECT_EQ(buf[0], 'x');
  EXPECT_EQ(d.nTotalBytesRetrict, 0);
}

char* viewer(char* body, char*, const char*) { return body; }

TEST(DispSetup, OnlyTheFirstViewerIsLinkedIn) {
  MIME_DISP d = mailreadDE;
  const std::string long_ctype(200, 'c');
  const std::string long_form(300, 'f');
  EXPECT_EQ(mime_disp_setattshow(&d, long_ctype.c_str(), long_form.c_str(), viewer, 6, 0x21), 0);
  ASSERT_NE(d.pstAttShowList, nullptr);
  ASSERT_NE(d.MIME_ptr, nullptr);
  const size_t used_once = my_Xused(&d.MIME_ptr);
  EXPECT_GE(used_once, sizeof(attShow));
  const attShow* first = d.pstAttShowList;
  EXPECT_EQ(std::string(first->ctype), std::string(127, 'c'));
  EXPECT_EQ(std::string(first->form), std::string(255, 'f'));
  EXPECT_EQ(first->nDefCset, 6);
  EXPECT_EQ(first->nFlags, 0x21);
  EXPECT_EQ(first->showfunc, viewer);
  EXPECT_EQ(first->next, nullptr);

  EXPECT_EQ(mime_disp_setattshow(&d, "application/pdf", nullptr, nullptr, 0, 0), 0);
  EXPECT_EQ(d.pstAttShowList, first);
  EXPECT_EQ(first->next, nullptr);
  EXPECT_GT(my_Xused(&d.MIME_ptr), used_once);  // allocated all the same
  EXPECT_EQ(mime_disp_shutdown(&d), 0);
  EXPECT_EQ(d.MIME_ptr, nullptr);
}

TEST(DispSetup, ShutdownReleasesArenaAndGrowingBufferButKeepsTheCount) {
  HME hme{};
  MIME_DISP d = imapDE;
  mime_disp_init(&d, &hme, "", "");
  d.disp_flag = MIME_DISP_OUT_GROWING;
  ASSERT_NE(mime_disp_alloc(&d, 100), nullptr);
  ASSERT_EQ(MMIME_Fputs(&d, "hello"), 5);
  char* out = nullptr;
  long size = 0;
  mime_disp_getresult(&d, &out, &size);
  ASSERT_NE(out, nullptr);
  EXPECT_STREQ(out, "hello");
  EXPECT_EQ(size, 5);

  EXPECT_EQ(mime_disp_shutdown(&d), 0);
  EXPECT_EQ(d.MIME_ptr, nullptr);
  EXPECT_EQ(d.pcResult, nullptr);
  EXPECT_EQ(d.pcOutBuf, nullptr);
  EXPECT_EQ(d.nResultSize, 5);
  EXPECT_EQ(mime_disp_shutdown(&d), 0);  // a second release is harmless
}

TEST(DispSetup, EveryCallAcceptsANullContext) {
  EXPECT_EQ(mime_disp_init(nullptr, nullptr, "a", "b"), 0);
  EXPECT_EQ(mime_disp_setfp(nullptr, stdout), 0);
  EXPECT_EQ(mime_disp_setcharset(nullptr, 1, 2), 0);
  EXPECT_EQ(mime_disp_setdefcharset(nullptr, 1), 0);
  EXPECT_EQ(mime_disp_setbuf(nullptr, nullptr, 10), 0);
  EXPECT_EQ(mime_disp_getresult(nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(mime_disp_setvar(nullptr, "a", "b", "c"), 0);
  EXPECT_EQ(mime_disp_setfilter3(nullptr, filter_a), 0);
  EXPECT_EQ(mime_disp_set_downfilepath(nullptr, "/x", nullptr), 0);
  EXPECT_EQ(mime_disp_set_cgipath(nullptr, "/x"), 0);
  EXPECT_EQ(mime_disp_setattshow(nullptr, "a", "b", viewer, 0, 0), 0);
  EXPECT_EQ(mime_disp_setdownfile_arg(nullptr, "x"), 0);
  EXPECT_EQ(mime_engine_set_preview_ext(nullptr, "%a%"), 0);
  EXPECT_EQ(mime_disp_shutdown(nullptr), 0);
}

TEST(DispFormPath, JoinsTheFormDirectoryOnlyWhenSet) {
  MIME_DISP d = mailreadDE;
  char path[32];
  EXPECT_STREQ(mime_disp_form_path(&d, "vcard.dat", path, sizeof path), "vcard.dat");
  mime_disp_init(&d, nullptr, nullptr, "/srv/forms");
  EXPECT_STREQ(mime_disp_form_path(&d, "vcard.dat", path, sizeof path), "/srv/forms/vcard.dat");
  char tiny[8];
  EXPECT_STREQ(mime_disp_form_path(&d, "vcard.dat", tiny, sizeof tiny), "/srv/fo");
}

}  // namespace
