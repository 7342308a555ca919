// Saved parts: the file-name prefix, the files written into the download
// directory (once, and never outside it), the Content-ID and
// Content-Location lists, the attachment tests and the expansion of the
// attachment list.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "mime_disp_internal.h"
#include "support.h"

namespace fs = std::filesystem;

namespace {

struct TempDir {
  TempDir() {
    char tmpl[] = "/tmp/tarn_attach_XXXXXX";
    path = mkdtemp(tmpl);
  }
  ~TempDir() { fs::remove_all(path); }
  // Name -> content of every entry, sub-directories included.
  std::map<std::string, std::string> files() const {
    std::map<std::string, std::string> out;
    for (auto& e : fs::recursive_directory_iterator(path))
      out[fs::relative(e.path(), path).string()] = e.is_regular_file() ? tarntest::read_file(e.path()) : "<dir>";
    return out;
  }
  std::string path;
};

std::string multipart(const std::vector<std::string>& parts) {
  std::string m = "From: a@b\nSubject: t\nContent-Type: multipart/mixed; boundary=\"BB\"\n\n";
  for (const auto& p : parts) m += "--BB\n" + p + "\n";
  return m + "--BB--\n";
}

// A decoded message bound to a display context whose download directory
// is `dir` and whose message file is `msgpath`.
struct Bound {
  Bound(const std::string& message, const std::string& dir, const char* msgpath = nullptr)
      : dec(message, generalME), d(mailreadDE) {
    dec.ctx().result.me_info.msgpath = msgpath;
    mime_disp_set_downfilepath(&d, dir.c_str(), nullptr);
    d.disp_flag = (d.disp_flag & ~MIME_DISP_OUT_STREAM) | MIME_DISP_OUT_GROWING;
    mime_disp_init(&d, &dec.ctx().result, "", "");
  }
  ~Bound() { mime_disp_shutdown(&d); }
  std::string output() {
    char* buf = nullptr;
    long n = 0;
    mime_disp_getresult(&d, &buf, &n);
    return buf != nullptr ? std::string(buf, static_cast<size_t>(n)) : std::string();
  }
  tarntest::Decoded dec;
  MIME_DISP d;
};

const std::string kParts = multipart({
    "Content-Type: text/plain\n\nbody",
    "Content-Type: text/plain; name=\"n.txt\"\n\nhello",
    "Content-Type: text/html; name=\"p.html\"\nContent-Base: http://x/\n\n<p>hi</p>",
    "Content-Type: image/gif; name=\"i.gif\"\nContent-ID: <img@x>\nContent-Transfer-Encoding: base64\n\nR0lGOA==",
    "Content-Type: application/octet-stream; name=\"empty.bin\"\n\n",
    "Content-Type: message/rfc822\nContent-Disposition: attachment; filename=\"m.eml\"\n\nSubject: in\n\ninner",
});

TEST(Attach, PrefixFromTheMessageFileAndTheRequest) {
  TempDir tmp;
  std::string msgfile = tmp.path + "/msg";
  std::ofstream(msgfile) << "x";
  struct stat st;
  ASSERT_EQ(0, stat(msgfile.c_str(), &st));
  char hex[64];
  std::snprintf(hex, sizeof hex, "%lX%lX%lX_", static_cast<unsigned long>(st.st_mtime),
                static_cast<unsigned long>(st.st_dev), static_cast<unsigned long>(st.st_ino));

  setenv("QUERY_STRING", "msgid=12", 1);
  EXPECT_EQ("12" + std::string(hex), Bound("\nx", tmp.path, msgfile.c_str()).d.attFilePrefix);
  // Characters that do not belong in a file name or a link are replaced.
  setenv("QUERY_STRING", "msgid=..%2F..%2Fa%22%3C", 1);
  EXPECT_EQ(".._.._a__" + std::string(hex), Bound("\nx", tmp.path, msgfile.c_str()).d.attFilePrefix);
  unsetenv("QUERY_STRING");
  EXPECT_EQ(hex, std::string(Bound("\nx", tmp.path, msgfile.c_str()).d.attFilePrefix));

  // A message without a file: a prefix of its own.
  std::string own = Bound("\nx", tmp.path).d.attFilePrefix;
  ASSERT_GT(own.size(), 4u);
  EXPECT_EQ("_tmp", own.substr(own.size() - 4));
  EXPECT_EQ(std::string::npos, own.substr(0, own.size() - 4).find_first_not_of("0123456789"));
  // A file that cannot be examined leaves the prefix as it was.
  MIME_DISP d = mailreadDE;
  MSTR_Copy(d.attFilePrefix, sizeof d.attFilePrefix, "old", 0);
  HME hme{};
  std::string gone = tmp.path + "/gone";
  hme.me_info.msgpath = gone.c_str();
  d.showdata = &hme;
  init_cache_path(&d);
  EXPECT_STREQ("old", d.attFilePrefix);
}

TEST(Attach, PartsAreSavedOnceInsideTheDownloadDirectory) {
  TempDir tmp;
  const std::map<std::string, std::string> expected = {
      {"P_1A.txt", "hello"},
      {"P_2A.html", "<base href=http://x/><p>hi</p>"},
      {"P_3I.gif", "GIF8"},
      {"P_4A.bin", ""},
      {"P_5A.eml", "Subject: in\n\ninner"},
  };
  {
    Bound s(kParts, tmp.path);
    MSTR_Copy(s.d.attFilePrefix, sizeof s.d.attFilePrefix, "P_", 0);
    prepare_attachment(s.dec.root(), &s.d);
    EXPECT_EQ(expected, tmp.files());
    EXPECT_STREQ("img@x", s.d._fileCID.cid);
    EXPECT_STREQ("3I", s.d._fileCID.fileid);
    EXPECT_STREQ("gif", s.d._fileCID.ext);
    EXPECT_EQ(MIME_CT_IMAGE, s.d._fileCID.ctype);
  }
  // A second rendering finds the files and leaves them as they are.
  std::ofstream(tmp.path + "/P_1A.txt") << "changed";
  {
    Bound s(kParts, tmp.path);
    MSTR_Copy(s.d.attFilePrefix, sizeof s.d.attFilePrefix, "P_", 0);
    prepare_attachment(s.dec.root(), &s.d);
  }
  auto again = expected;
  again["P_1A.txt"] = "changed";
  EXPECT_EQ(again, tmp.files());
}

TEST(Attach, NamesNeverLeaveTheDirectory) {
  TempDir tmp;
  fs::create_directory(tmp.path + "/dl");
  const std::string dl = tmp.path + "/dl";
  const std::string msg = multipart({"Content-Type: text/plain; name=\"x.a/../../b\"\n\nhello",
                                     "Content-Type: text/plain; name=\"y.txt\"\n\nworld"});
  {
    // A prefix set by hand with a path in it: nothing is written.
    Bound s(msg, dl);
    MSTR_Copy(s.d.attFilePrefix, sizeof s.d.attFilePrefix, "../up", 0);
    prepare_attachment(s.dec.root(), &s.d);
    EXPECT_EQ((std::map<std::string, std::string>{{"dl", "<dir>"}}), tmp.files());
  }
  {
    // A link standing where a part would go is neither followed nor replaced.
    fs::create_symlink(tmp.path + "/outside", dl + "/Q2A.txt");
    Bound s(msg, dl);
    MSTR_Copy(s.d.attFilePrefix, sizeof s.d.attFilePrefix, "Q", 0);
    prepare_attachment(s.dec.root(), &s.d);
    EXPECT_FALSE(fs::exists(tmp.path + "/outside"));
    EXPECT_TRUE(fs::is_symlink(dl + "/Q2A.txt"));
    // The decoder made the name safe ("x.a_.._.._b"); its extension is "_b".
    EXPECT_EQ((std::map<std::string, std::string>{{"dl", "<dir>"}, {"dl/Q1A._b", "hello"}, {"dl/Q2A.txt", "<dir>"}}),
              tmp.files());
  }
  // Every extension is reduced to name-safe characters.
  char ext[32];
  EXPECT_STREQ("g_z_", mime_att_ext("", "a.g\"z%", ext, sizeof ext));
  EXPECT_STREQ("tar-gz+1", mime_att_ext(nullptr, "f.tar-gz+1", ext, sizeof ext));
}

TEST(Attach, ContentIdAndLocationLists) {
  MIME_DISP d = mailreadDE;
  char cid[] = "<abc@x>", bare[] = "def@x>";
  char loc1[] = "12345", loc2[] = "123456789", loc3[] = "abcde", loc4[] = "1234567";
  char name[] = "n.gif", id1[] = "1I", id2[] = "2I", ct[] = "image/gif", cs[] = "utf-8";
  cid2link(cid, name, id1, ct, MIME_CT_IMAGE, cs, &d);
  cid2link(bare, name, id2, ct, MIME_CT_IMAGE, cs, &d);
  EXPECT_STREQ("abc@x", d._fileCID.cid);
  EXPECT_STREQ("<abc@x", cid);  // the header text loses its closing bracket
  ASSERT_NE(nullptr, d._fileCID.next);
  EXPECT_STREQ("def@x", d._fileCID.next->cid);
  EXPECT_EQ(d._fileCID.next, d.fileCID_ptr);
  EXPECT_EQ(MLG_UTF8, d.nTextCharsetVal);

  loc2link(loc1, name, id1, ct, MIME_CT_IMAGE, cs, &d);
  loc2link(loc2, name, id2, ct, MIME_CT_TEXT, cs, &d);
  loc2link(loc3, name, id1, ct, MIME_CT_IMAGE, cs, &d);
  loc2link(loc4, name, id2, ct, MIME_CT_IMAGE, cs, &d);
  fileLOC* second = d._fileLOC.next;
  sort_loc(&d);
  std::vector<std::string> order;
  for (fileLOC* n = &d._fileLOC; n != nullptr; n = n->next) order.push_back(std::string(n->loc) + "/" + n->fileid);
  EXPECT_EQ((std::vector<std::string>{"123456789/2I", "1234567/2I", "12345/1I", "abcde/1I"}), order);
  EXPECT_EQ(second, d._fileLOC.next);  // contents move, links stay
  EXPECT_EQ(MIME_CT_TEXT, d._fileLOC.ctype);
  mime_disp_shutdown(&d);
}

TEST(Attach, AttachmentTests) {
  auto have = [](const std::vector<std::string>& parts) {
    tarntest::Decoded dec(multipart(parts), generalME);
    return HaveShowAttachment(dec.root());
  };
  const std::string cid_image = "Content-Type: image/gif; name=\"i.gif\"\nContent-ID: <i@x>\n\nGIF";
  EXPECT_EQ(0, have({"Content-Type: text/plain\n\nx", cid_image}));
  EXPECT_EQ(1, have({"Content-Type: text/plain\n\nx", "Content-Type: image/gif; name=\"i.gif\"\n\nGIF"}));
  EXPECT_EQ(1, have({"Content-Type: image/gif; name=\"i.gif\"\nContent-ID: <i@x>\nContent-Disposition: attachment\n\nG"}));
  EXPECT_EQ(1, have({cid_image, "Content-Type: application/pdf; name=\"a.pdf\"\n\n%PDF"}));

  EXPECT_EQ(1, is_preview_type("PDF", "%doc%pdf%"));
  EXPECT_EQ(0, is_preview_type("pd", "%doc%pdf%"));   // only a prefix of a listed one
  EXPECT_EQ(0, is_preview_type("oc", "%doc%pdf%"));   // not where an entry starts
  EXPECT_EQ(0, is_preview_type("", "%doc%"));
  EXPECT_EQ(0, is_preview_type(nullptr, "%doc%"));
}

TEST(Attach, DocviewerTypes) {
  TempDir tmp;
  const char* saved = std::getenv("QUILLNET_ROOT");
  std::string old = saved != nullptr ? saved : "";
  setenv("QUILLNET_ROOT", tmp.path.c_str(), 1);
  EXPECT_EQ(0, is_docviewer_type("pdf"));  // no types file
  fs::create_directory(tmp.path + "/etc");
  std::ofstream(tmp.path + "/etc/docviewer_types.conf") << "# viewers\n  \t pdf  portable documents\n\n#doc\nXLS\tsheets\n";
  EXPECT_EQ(1, is_docviewer_type("PDF"));
  EXPECT_EQ(1, is_docviewer_type("pdfx"));  // an entry is compared over its own length
  EXPECT_EQ(1, is_docviewer_type("xls"));
  EXPECT_EQ(0, is_docviewer_type("doc"));
  EXPECT_EQ(0, is_docviewer_type("pd"));
  EXPECT_EQ(0, is_docviewer_type(""));
  EXPECT_EQ(0, is_docviewer_type(nullptr));
  if (saved != nullptr) setenv("QUILLNET_ROOT", old.c_str(), 1);
  else unsetenv("QUILLNET_ROOT");
}

TEST(Attach, AttachmentListExpansion) {
  TempDir tmp;
  const std::string msg = multipart({
      "Content-Type: application/pdf; name=\"x.pdf\"; charset=utf-8\n"
      "Content-Transfer-Encoding: base64\n\n" + std::string(1368, 'A'),  // 1026 bytes decoded
      "Content-Type: image/gif; name=\"i.gif\"\nContent-ID: <i@x>\n\nGIF",
      "Content-Type: text/plain; name=\"a b.txt\"\n\n" + std::string(1024, 'x'),
      "Content-Type: text/plain; name=\"e.txt\"\n\n",
  });
  char form[] =
      "[$name|$id|$ext|$size|$prefix|$ifbase64B64$ifbase64_elseRAW$$ifbase64|$9|$ifdlDL$$ifdl|$ifdcDC$$ifdc|"
      "$ifpreP$$ifpre$ifnpreN$$ifnpre|$var1|$var2_js|$prefix_js]$$loop";
  char* end = std::strstr(form, "$$loop");
  // A name with a right-to-left override, as a decoder that keeps one
  // would leave it.
  char rlo_name[] = "r\xE2\x80\xAE" "fdp.exe";
  {
    Bound s(msg, tmp.path);
    s.dec.root()->child->h->mime.filename = rlo_name;
    MSTR_Copy(s.d.attFilePrefix, sizeof s.d.attFilePrefix, "P'", 0);
    mime_engine_set_preview_ext(&s.d, "%exe%");
    s.d.disp_flag |= MIME_DISP_PREVIEW | MIME_DISP_IFDL;
    mime_disp_setvar(&s.d, "V1", "a'b", nullptr);
    disp_attachment(s.dec.root(), form, end, &s.d);
    EXPECT_EQ(
        "[rfdp.exe|1A|exe|2|P'|B64|9|DL||P|V1|a\\x27b|P\\x27]"
        "[a%20b.txt|3A|txt|1|P'|RAW|9|DL||N|V1|a\\x27b|P\\x27]"
        "[e.txt|4A|txt|0|P'|RAW|9|DL||N|V1|a\\x27b|P\\x27]",
        s.output());
  }
  {
    // The names through the text renderer: escaped, in a JavaScript
    // string, and through the filters only.
    Bound s(msg, tmp.path);
    char name[] = "a<'b>.txt";
    s.dec.root()->child->h->mime.filename = name;
    s.d.text2disp_flag = 0x100;
    mime_disp_setfilter1(&s.d, [](MIME_DISP*, char* text, int) -> char* {
      static std::string f;
      f = std::string("F:") + text;
      return f.data();
    });
    char tags[] = "$filename|$filename_js|$filename_nf|$linkname|$name_js|$charset_val;$$loop";
    disp_attachment(s.dec.root()->child, tags, std::strstr(tags, "$$loop"), &s.d);
    EXPECT_EQ("F:a&lt;'b>.txt|F:a\\x26lt;\\x27b\\x3E.txt|a&lt;'b>.txt|F:a&lt;'b>.txt|a%3C%27b%3E.txt|1;"
              "F:a b.txt|F:a b.txt|a b.txt|F:a b.txt|a%20b.txt|0;"
              "F:e.txt|F:e.txt|e.txt|F:e.txt|e.txt|0;",
              s.output());
  }
  {
    // Listing the images shown in the body as well.
    Bound s(msg, tmp.path);
    s.d.disp_flag |= MIME_DISP_LIST_SHOWN_IMG;
    char ids[] = "$id,$$loop";
    disp_attachment(s.dec.root(), ids, std::strstr(ids, "$$loop"), &s.d);
    EXPECT_EQ("1A,2I,3A,4A,", s.output());
  }
}

}  // namespace
