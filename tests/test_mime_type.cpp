// Type lookup by name and content: the extension table, the content test,
// the text test and ct2ext.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include "mime_magic_internal.h"
#include "support.h"

using namespace std::string_literals;

namespace {

// A short scratch directory (paths must fit in 127 bytes) holding a
// QUILLNET_ROOT tree with our default files at their compiled-in places;
// removed at exit.
struct Scratch {
  Scratch() {
    char tmpl[] = "/tmp/tarn_mt_XXXXXX";
    if (mkdtemp(tmpl) != nullptr) dir = tmpl;
    std::filesystem::create_directories(dir + "/httpd/conf");
    for (const char* name : {"magic", "mime.types"})
      write("httpd/conf/"s + name, tarntest::read_file(std::string(TARN_SOURCE_DIR) + "/data/" + name));
  }
  ~Scratch() { std::filesystem::remove_all(dir); }
  std::string write(const std::string& name, std::string_view text) const {
    std::ofstream(dir + "/" + name, std::ios::binary | std::ios::trunc) << text;
    return dir + "/" + name;
  }
  std::string dir;
};

Scratch& scratch() {
  static Scratch s;
  return s;
}

// Every test starts from the compiled-in paths under our root, with both
// tables unloaded.
class MimeType : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("QUILLNET_ROOT", scratch().dir.c_str(), 1);
    mime_type_init("/quillnet/httpd/conf/mime.types", "/quillnet/httpd/conf/magic");
    tarn_magic::mime_type_reset();
  }
  void TearDown() override {
    tarn_magic::mime_type_reset();
    unsetenv("QUILLNET_ROOT");
  }
  // Custom files for one test.
  void use_types(std::string_view text) {
    mime_type_init(scratch().write("custom.types", text).c_str(), nullptr);
    tarn_magic::mime_type_reset();
  }
  void use_magic(std::string_view text) {
    mime_type_init(nullptr, scratch().write("custom.magic", text).c_str());
    tarn_magic::mime_type_reset();
  }
};

std::string check(std::string_view bytes, const char* name = nullptr) {
  testing::internal::CaptureStdout();
  char* t = mime_type_checking(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()),
                               reinterpret_cast<const unsigned char*>(name));
  testing::internal::GetCapturedStdout();
  return t != nullptr ? t : "<null>";
}

std::string by_name(const char* name) {
  char* t = ct_check(name);
  return t != nullptr ? t : "<null>";
}

// ------------------------------------------------------------ by name

TEST_F(MimeType, ExtensionsFromTheDefaultTable) {
  const std::pair<const char*, const char*> cases[] = {
      {"report.pdf", "application/pdf"},
      {"REPORT.PDF", "application/pdf"},  // capitals find lower case
      {"Photo.JpG", "image/jpeg"},
      {"archive.tar.gz", "application/gzip"},  // the last dot counts
      {"pdf", "application/pdf"},              // no dot: the whole name
      {".docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
      {"winmail.dat", "application/ms-tnef"},
      {"a.7z", "application/x-7z-compressed"},  // bucket of non-letters
      {"a.3gp", "video/3gpp"},
      {"a.asc", "text/plain"},  // the first line that lists it
      {"README", "<null>"}, {"name.", "<null>"}, {"", "<null>"}, {"dir.d/file", "<null>"},
  };
  for (auto [name, type] : cases) EXPECT_EQ(by_name(name), type) << name;
  EXPECT_EQ(by_name(nullptr), "<null>");
  EXPECT_EQ(ct_check("a.pdf"), ct_check("b.PDF"));  // a pointer into the table entry
}

TEST_F(MimeType, TableFileFormat) {
  const std::string long_ext(128, 'e'), max_ext(127, 'm'), long_type(128, 't');
  use_types("# comment line\n"
            "#text/x-hidden\thidden\n"
            "text/x-one\tone ONE 1st\n"
            "text/x-two  two   one\n"
            " text/x-lead\tlead\n"
            "text/x-only\n"
            "\n"
            "text/x-crlf\tcrlf\r\n"
            "text/x-long\tshort " + long_ext + " " + max_ext + " ok\n" +
            long_type + "\ttoolong\n"
            "text/x-tab\t\ttabbed\t\t two-tab \n"
            "application/x-wide\t" + std::string(300, ' ') + "far\n"
            "text/x-signs\t7z _u ~x \xe9t\xe9\n");
  const std::pair<std::string, const char*> cases[] = {
      {"a.one", "text/x-one"}, {"a.ONE", "text/x-one"}, {"a.1st", "text/x-one"},
      {"a.two", "text/x-two"},  // blanks of any number separate
      {"a.hidden", "<null>"},
      {"a.lead", "<null>"},  // a line led by a blank names no type
      {"text/x-only", "<null>"},
      {"a.crlf", "text/x-crlf"},
      {"a.short", "text/x-long"}, {"a." + long_ext, "<null>"},  // that entry alone is left out
      {"a." + max_ext, "text/x-long"}, {"a.ok", "text/x-long"},
      {"a.toolong", "<null>"},
      {"a.tabbed", "text/x-tab"}, {"a.two-tab", "text/x-tab"},
      {"a.far", "application/x-wide"},
      {"a.7z", "text/x-signs"}, {"a._u", "text/x-signs"}, {"a.~x", "text/x-signs"}, {"a.\xe9t\xe9", "text/x-signs"},
  };
  for (const auto& [name, type] : cases) EXPECT_EQ(by_name(name.c_str()), type) << name;
}

TEST_F(MimeType, UnreadableTableIsTriedAgain) {
  const std::string path = scratch().dir + "/later.types";
  unlink(path.c_str());
  mime_type_init(path.c_str(), nullptr);
  tarn_magic::mime_type_reset();
  EXPECT_EQ(ct_init(), -1);
  EXPECT_EQ(by_name("a.later"), "<null>");
  // Without a table, names say nothing and the content decides.
  EXPECT_EQ(check("%PDF-1.4", "a.later"), "application/pdf");
  scratch().write("later.types", "text/x-later later\n");
  EXPECT_EQ(by_name("a.later"), "text/x-later");
}

TEST_F(MimeType, InitCopiesBoundedPaths) {
  EXPECT_EQ(mime_type_init(nullptr, nullptr), 0);
  EXPECT_STREQ(MIMETYPE_mtypefile, "/quillnet/httpd/conf/mime.types");
  EXPECT_STREQ(MIMETYPE_magicfile, "/quillnet/httpd/conf/magic");
  std::string longpath = "/" + std::string(200, 'p');
  EXPECT_EQ(mime_type_init(longpath.c_str(), longpath.c_str()), 0);
  EXPECT_EQ(std::string(MIMETYPE_mtypefile), longpath.substr(0, 127));
  EXPECT_EQ(std::string(MIMETYPE_magicfile), longpath.substr(0, 127));
}

// ------------------------------------------------------------ by content

TEST_F(MimeType, NameWinsOverContent) {
  EXPECT_EQ(check("%PDF-1.4\n", "notes.txt"), "text/plain");
  EXPECT_EQ(check("%PDF-1.4\n", "notes.unknownext"), "application/pdf");
  EXPECT_EQ(check("plain words\n", "README"), "text/plain");
}

TEST_F(MimeType, TextTest) {
  const std::string bin = "application/octet-stream", text = "text/plain";
  const std::pair<std::string, std::string> cases[] = {
      {"Hello,\r\nthis is text.\r\n", text},
      {std::string(400, 'a'), bin},  // one 400-byte line
      {std::string(300, 'a') + "\n", text},
      {std::string(301, 'a') + "\n", bin},
      {std::string(300, 'a') + "\nb\n", text},
      {std::string(301, 'a') + "\nb\n", bin},
      {std::string(302, 'a'), bin},
      // The last byte is not looked at: 301 bytes after the line feed, 300 seen.
      {"a\n" + std::string(300, 'c') + "d", text},
      {"a\n" + std::string(301, 'c') + "d", bin},
      {"two\0words\n"s, bin},
      {"ends with a NUL\0"s, text},
      {"\x7f", text},  // one byte: the only byte is the last
      {"\x7fx", bin},
      {"del \x7f here\n", bin},
      {"\x1b$B8@8l\x1b(B and \xe9t\xe9 \x80\xff\n", text},  // escape and bytes of 128 and up
      {"bell \a\n", bin},
      {"\b\t\n\v\f\r text\n", text},
      {"\x0e\n", bin},
      {"\x1a\n", bin},
      {"\x1f\n", bin},
      {"", text},  // nothing to object to
      {"\x01\x02\x03\x04", bin},
  };
  for (const auto& [bytes, type] : cases) EXPECT_EQ(check(bytes), type) << bytes;
  EXPECT_EQ(tarn_magic::internatmagic(nullptr, 10), 1);

  tarn_magic::ctype_printf("image/%s%n");  // copied, never formatted
  EXPECT_STREQ(MIMETYPE_outputstr, "image/%s%n");
  tarn_magic::ctype_printf(std::string(2000, 'z').c_str());
  EXPECT_EQ(std::strlen(MIMETYPE_outputstr), 1023u);
}

TEST_F(MimeType, ContentLimitAndTabCut) {
  use_magic("8191\tbyte\t0x41\ttext/x-past-limit\n"
            "8190\tbyte\t0x42\ttext/x-at-limit\n"
            "0\tstring\tTAB\tapplication/x-tab\tand more\n"
            "0\tstring\tRIFF\n"
            ">8\tstring\tWAVE\taudio/x-wav\n");
  std::string big(9000, 'x');
  big[8191] = 'A';
  EXPECT_EQ(check(big), "application/octet-stream");  // 'A' lies past the 8191 bytes
  big[8190] = 'B';
  EXPECT_EQ(check(big), "text/x-at-limit");
  std::string text(9000, 'y');
  for (size_t i = 100; i < text.size(); i += 100) text[i] = '\n';
  text[8500] = '\0';  // past the limit: not seen
  EXPECT_EQ(check(text), "text/plain");
  EXPECT_EQ(check("TAB"), "application/x-tab");
  EXPECT_EQ(check("RIFF\0\0\0\0WAVE"s), "audio/x-wav");
  // A matching entry without a description of its own, and no
  // continuation that matched: the answer is empty.
  EXPECT_EQ(check("RIFF\0\0\0\0AVI "s), "");
}

TEST_F(MimeType, MagicFileIsLoadedOnce) {
  const std::string path = scratch().dir + "/late.magic";
  unlink(path.c_str());
  mime_type_init(nullptr, path.c_str());
  tarn_magic::mime_type_reset();
  testing::internal::CaptureStderr();
  EXPECT_EQ(check("LATE"), "text/plain");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "couldn't find any magic files\n");
  scratch().write("late.magic", "0\tstring\tLATE\ttext/x-late\n");
  EXPECT_EQ(check("LATE"), "text/plain");  // not tried again
  // Changing the path after the first lookup changes nothing either.
  mime_type_init(nullptr, path.c_str());
  EXPECT_EQ(check("LATE"), "text/plain");
  tarn_magic::mime_type_reset();
  EXPECT_EQ(check("LATE"), "text/x-late");
}

// ------------------------------------------------- samples of common types

std::string le16(uint16_t v) { return {static_cast<char>(v & 0xff), static_cast<char>(v >> 8)}; }
std::string le32(uint32_t v) { return le16(v & 0xffff) + le16(v >> 16); }
std::string be32(uint32_t v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
          static_cast<char>(v)};
}

// A zip whose first member, stored, is `name` holding `data`.
std::string zip(const std::string& name, const std::string& data) {
  std::string z = "PK\x03\x04"s + le16(20) + le16(0) + le16(0) + le16(0) + le16(0x21) +
                  le32(0x12345678) + le32(static_cast<uint32_t>(data.size())) +
                  le32(static_cast<uint32_t>(data.size())) +
                  le16(static_cast<uint16_t>(name.size())) + le16(0) + name + data;
  z += "PK\x03\x04"s + std::string(22, '\0') + le16(11) + le16(0) + "content.xml<x/>";
  return z;
}

// An OLE2 compound file whose first sector starts with two 16-bit words.
std::string ole(uint16_t w0, uint16_t w1 = 0) {
  std::string o = "\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1"s + std::string(16, '\0') + le16(0x3e) +
                  le16(3) + le16(0xfffe) + le16(9) + le16(6);
  o.resize(512, '\0');
  return o + le16(w0) + le16(w1) + std::string(508, '\x11');
}

std::string riff(const std::string& form) {
  return "RIFF"s + le32(1000) + form + "fmt " + le32(16) + std::string(16, '\x01');
}
std::string ftyp(const std::string& brand) {
  return be32(24) + "ftyp" + brand + be32(0) + brand + "isom" + be32(8) + "free";
}
std::string ebml(const std::string& doctype) {
  return "\x1a\x45\xdf\xa3\x9f\x42\x86\x81\x01\x42\xf7\x81\x01\x42\xf2\x81\x04\x42\xf3\x81\x08\x42\x82"s +
         static_cast<char>(0x80 | doctype.size()) + doctype + "\x42\x87\x81\x04"s;
}
std::string ogg(const std::string& packet) {
  return "OggS\0\x02"s + std::string(8, '\0') + le32(0x1234) + le32(0) + le32(0xdeadbeef) + "\x01"s +
         static_cast<char>(packet.size()) + packet;
}
std::string tar(const std::string& magic) {
  std::string t(512, '\0');
  t.replace(0, 9, "notes.txt");
  t.replace(100, 8, "0000644");
  t.replace(257, magic.size(), magic);
  return t + "file body\n";
}
std::string bmp(uint32_t header_size) {
  return "BM"s + le32(70) + le32(0) + le32(54) + le32(header_size) + le32(1) + le32(1) + std::string(30, '\0');
}

struct Sample {
  std::string what, bytes, type;
};

std::vector<Sample> samples() {
  std::vector<Sample> out = {
      {"pdf", "%PDF-1.7\n%\xe2\xe3\xcf\xd3\n", "application/pdf"}, {"rtf", "{\\rtf1\\ansi\\deff0", "application/rtf"},
      {"postscript", "%!PS-Adobe-3.0\n%%Title: x\n", "application/postscript"},
      {"eps", "\xc5\xd0\xd3\xc6\x1e\0\0\0"s, "application/postscript"},
      {"word 97", ole(0xa5ec, 0x00c1), "application/msword"}, {"word 6", ole(0xa5dc), "application/msword"},
      {"excel", ole(0x0809, 0x0010), "application/vnd.ms-excel"},
      {"powerpoint", ole(0x000f, 0x03e8), "application/vnd.ms-powerpoint"},
      {"other compound file", ole(0x1234), "application/x-ole-storage"},
      {"compound file, 0x000f only", ole(0x000f, 0x0001), "application/x-ole-storage"},
      {"docx", zip("[Content_Types].xml", "<?xml?>"), "application/zip"},
      {"epub", zip("mimetype", "application/epub+zip"), "application/epub+zip"},
      {"jar", zip("META-INF/", ""), "application/java-archive"}, {"zip", zip("hello.txt", "hi"), "application/zip"},
      {"empty zip", "PK\x05\x06"s + std::string(18, '\0'), "application/zip"},
      {"jpeg", "\xff\xd8\xff\xe0\0\x10JFIF\0\x01"s, "image/jpeg"},
      {"exif jpeg", "\xff\xd8\xff\xe1\x12\x34" "Exif\0\0"s, "image/jpeg"},
      {"png", "\x89PNG\r\n\x1a\n\0\0\0\rIHDR"s, "image/png"}, {"gif89a", "GIF89a\x10\0\x10\0"s, "image/gif"},
      {"gif87a", "GIF87a\x10\0\x10\0"s, "image/gif"}, {"bmp", bmp(40), "image/bmp"},
      {"bmp core", bmp(12), "image/bmp"}, {"bmp v5", bmp(124), "image/bmp"},
      {"tiff le", "II*\0\x08\0\0\0"s, "image/tiff"}, {"tiff be", "MM\0*\0\0\0\x08"s, "image/tiff"},
      {"webp", riff("WEBP"), "image/webp"}, {"ico", "\0\0\x01\0\x01\0\x10\x10"s, "image/vnd.microsoft.icon"},
      {"svg", "<svg xmlns=\"http://www.w3.org/2000/svg\"/>", "image/svg+xml"},
      {"svg after xml declaration",
       "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\"/>",
       "image/svg+xml"},
      {"xml", "<?xml version=\"1.0\"?>\n<root/>\n", "text/xml"},
      {"psd", "8BPS\0\x01\0\0"s, "image/vnd.adobe.photoshop"}, {"heic", ftyp("heic"), "image/heic"},
      {"avif", ftyp("avif"), "image/avif"}, {"mp3 id3", "ID3\x03\0\0\0\0\x0f\x76"s, "audio/mpeg"},
      {"mp3 frame", "\xff\xfb\x90\x64\0\0"s, "audio/mpeg"}, {"mpeg-2 layer 3", "\xff\xf3\x28\xc0"s, "audio/mpeg"},
      {"aac", "\xff\xf1\x50\x80\x02\x1f\xfc"s, "audio/aac"}, {"wav", riff("WAVE"), "audio/x-wav"},
      {"ogg vorbis", ogg("\x01vorbis\0\0\0\0"s), "audio/ogg"}, {"ogg opus", ogg("OpusHead\x01\x02"), "audio/ogg"},
      {"ogg theora", ogg("\x80theora\x03\x02"s), "video/ogg"}, {"ogg skeleton", ogg("fishead\0\0\x03"s), "video/ogg"},
      {"flac", "fLaC\0\0\0\x22"s, "audio/flac"}, {"m4a", ftyp("M4A "), "audio/mp4"},
      {"aiff", "FORM"s + be32(100) + "AIFFCOMM", "audio/x-aiff"},
      {"aifc", "FORM"s + be32(100) + "AIFCFVER", "audio/x-aiff"},
      {"other iff", "FORM"s + be32(100) + "ILBMBMHD", "application/octet-stream"},
      {"midi", "MThd\0\0\0\x06\0\x01"s, "audio/midi"}, {"mp4", ftyp("isom"), "video/mp4"},
      {"mp4 mp42", ftyp("mp42"), "video/mp4"}, {"mov", ftyp("qt  "), "video/quicktime"},
      {"old mov", "\0\0\0\x08wide\0\0\0\0mdat"s, "video/quicktime"}, {"3gp", ftyp("3gp4"), "video/3gpp"},
      {"avi", riff("AVI "), "video/x-msvideo"}, {"other riff", riff("CDRA"), "application/octet-stream"},
      {"mkv", ebml("matroska"), "video/x-matroska"}, {"webm", ebml("webm"), "video/webm"},
      {"mpeg ps", "\0\0\x01\xba\x44\0"s, "video/mpeg"}, {"mpeg video", "\0\0\x01\xb3\x16\0"s, "video/mpeg"},
      {"flv", "FLV\x01\x05\0\0\0\x09"s, "video/x-flv"},
      {"wmv", "\x30\x26\xb2\x75\x8e\x66\xcf\x11\xa6\xd9"s, "video/x-ms-asf"},
      {"swf", "FWS\x0a\x10\0\0\0"s, "application/x-shockwave-flash"},
      {"compressed swf", "CWS\x0a\x10\0\0\0"s, "application/x-shockwave-flash"},
      {"gzip", "\x1f\x8b\x08\0\0\0\0\0"s, "application/gzip"}, {"bzip2", "BZh91AY&SY\x12\x34", "application/x-bzip2"},
      {"xz", "\xfd" "7zXZ\0\0\x04"s, "application/x-xz"},
      {"7z", "7z\xbc\xaf\x27\x1c\0\x04"s, "application/x-7z-compressed"},
      {"rar4", "Rar!\x1a\x07\0\xcf"s, "application/vnd.rar"}, {"rar5", "Rar!\x1a\x07\x01\0"s, "application/vnd.rar"},
      {"posix tar", tar("ustar\0" "00"s), "application/x-tar"}, {"gnu tar", tar("ustar  \0"s), "application/x-tar"},
      {"zstd", "\x28\xb5\x2f\xfd\x24\0"s, "application/zstd"},
      {"cab", "MSCF\0\0\0\0\x12\x34"s, "application/vnd.ms-cab-compressed"},
      {"deb", "!<arch>\ndebian-binary   1342943816  0     0     100644  4         `\n",
       "application/vnd.debian.binary-package"},
      {"ar", "!<arch>\nlibx.o/ ", "application/x-archive"},
      {"ics", "BEGIN:VCALENDAR\r\nVERSION:2.0\r\n", "text/calendar"},
      {"vcard", "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:A\r\n", "text/vcard"},
      {"vcard with bom", "\xef\xbb\xbf" "BEGIN:VCARD\r\n"s, "text/vcard"},
      {"eml", "Return-Path: <a@example.org>\r\nReceived: from x\r\n", "message/rfc822"},
      {"eml from", "From: A <a@example.org>\r\nTo: b@example.org\r\n", "message/rfc822"},
      {"eml mime", "MIME-Version: 1.0\r\nContent-Type: text/plain\r\n", "message/rfc822"},
      {"html5", "<!DOCTYPE html>\n<html><body>x</body></html>\n", "text/html"},
      {"html", "<html><head><title>x</title></head></html>", "text/html"},
      {"HTML", "<HTML><BODY>x</BODY></HTML>", "text/html"},
      {"html comment", "<!-- saved page -->\n<p>x</p>\n", "text/html"},
      {"exe", "MZ\x90\0\x03\0\0\0\x04\0"s, "application/x-msdownload"},
      {"elf", "\x7f" "ELF\x02\x01\x01\0"s, "application/x-executable"},
      {"java class", "\xca\xfe\xba\xbe\0\0\0\x34"s, "application/java-vm"},
      {"tnef", "\x78\x9f\x3e\x22\x01\0\x01\x06\x90\x08"s, "application/ms-tnef"},
      {"shell script", "#!/bin/sh\necho hi\n", "application/x-sh"},
      {"python script", "#!/usr/bin/env python3\nprint(1)\n", "text/x-python"},
      {"pgp message", "-----BEGIN PGP MESSAGE-----\n\nhQEMA\n", "application/pgp-encrypted"},
      {"pgp key", "-----BEGIN PGP PUBLIC KEY BLOCK-----\n", "application/pgp-keys"},
      {"woff2", "wOF2\0\x01\0\0"s, "font/woff2"}, {"ttf", "\0\x01\0\0\0\x0c\0\x80"s, "font/ttf"},
      {"sqlite", "SQLite format 3\0\x10\0"s, "application/vnd.sqlite3"},
      {"windows shortcut", "L\0\0\0\x01\x14\x02\0\0\0"s, "application/x-ms-shortcut"},
      // "BM" text: the info header size read from letters is far too large.
      {"text starting with BM", "BMW drivers club newsletter\n", "application/octet-stream"},
  };
  for (const char* kind : {"text", "spreadsheet", "presentation", "graphics", "text-template"}) {
    const std::string type = "application/vnd.oasis.opendocument."s + kind;
    out.push_back({kind, zip("mimetype", type), type});
  }
  return out;
}

TEST_F(MimeType, CommonAttachmentTypesByContent) {
  for (const auto& s : samples()) {
    EXPECT_EQ(check(s.bytes, "attachment"), s.type) << s.what;
    EXPECT_EQ(check(s.bytes), s.type) << s.what;
  }
}

// Every type the magic file answers has an extension in the table, so a
// part named after its content type gets one.
TEST_F(MimeType, EveryMagicTypeHasAnExtension) {
  ASSERT_EQ(apprentice(MIMETYPE_magicfile, 1), 0);
  std::set<std::string> types;
  for (int i = 0; i < MIMETYPE_nmagic; ++i)
    if (MIMETYPE_magic[i].desc[0] != '\0') types.insert(MIMETYPE_magic[i].desc);
  EXPECT_GE(types.size(), 60u);
  for (const auto& t : types) {
    std::string ext = ct2ext(t.c_str(), nullptr);
    EXPECT_FALSE(ext.empty()) << t;
    EXPECT_NE(ct_check(("x." + ext).c_str()), nullptr) << t;
  }
}

// ------------------------------------------------------------- ct2ext

TEST_F(MimeType, ExtensionForAPart) {
  EXPECT_STREQ(ct2ext("text/plain", nullptr), "txt");
  EXPECT_STREQ(ct2ext("TEXT/PLAIN; charset=us-ascii", ""), "txt");  // the line's length is compared
  EXPECT_STREQ(ct2ext("text/plainish", "noext"), "txt");
  EXPECT_STREQ(ct2ext("text/plai", nullptr), "");
  EXPECT_STREQ(ct2ext("application/pdf", "name."), "pdf");
  EXPECT_STREQ(ct2ext("image/jpeg", nullptr), "jpg");
  EXPECT_STREQ(ct2ext("message/rfc822", nullptr), "eml");
  EXPECT_STREQ(ct2ext("application/vnd.ms-excel.sheet.macroEnabled.12", nullptr), "xlsm");
  EXPECT_STREQ(ct2ext("application/vnd.ms-excel", nullptr), "xls");
  EXPECT_STREQ(ct2ext("text/x-c++src", nullptr), "cpp");
  EXPECT_STREQ(ct2ext("application/x-nothing", nullptr), "");
  EXPECT_STREQ(ct2ext(nullptr, nullptr), "");
  EXPECT_STREQ(ct2ext(nullptr, "no-extension"), "");
  // The file's own extension comes first, as written.
  EXPECT_STREQ(ct2ext("application/pdf", "Scan.JPEG"), "JPEG");
  EXPECT_STREQ(ct2ext(nullptr, "a.b.tar.gz"), "gz");
  EXPECT_STREQ(ct2ext(nullptr, ("x." + std::string(40, 'e')).c_str()), std::string(31, 'e').c_str());
}

TEST_F(MimeType, ExtensionLookupReadsTheFileEachTime) {
  use_types("# types\n"
            "text/x-bare\n"
            "text/x-bare\t\n"
            "text/x-bare  bare second\n"
            "text/x-crlf\tcr\r\n"
            " text/x-lead\tlead\n");
  EXPECT_STREQ(ct2ext("text/x-bare", nullptr), "bare");  // lines listing no extension are passed
  EXPECT_STREQ(ct2ext("text/x-crlf", nullptr), "cr");
  EXPECT_STREQ(ct2ext("text/x-lead", nullptr), "");
  EXPECT_STREQ(ct2ext("text/x", nullptr), "");
  scratch().write("custom.types", "text/x-bare\tnew\n");
  EXPECT_STREQ(ct2ext("text/x-bare", nullptr), "new");
  scratch().write("custom.types", "text/x-bare\t" + std::string(50, 'q') + "\n");
  EXPECT_STREQ(ct2ext("text/x-bare", nullptr), std::string(31, 'q').c_str());
  unlink(MIMETYPE_mtypefile);
  EXPECT_STREQ(ct2ext("text/x-bare", nullptr), "");
}

// ------------------------------------------------- Debian's files

TEST_F(MimeType, DebianMimeTypesFile) {
  if (access("/etc/mime.types", R_OK) != 0) GTEST_SKIP() << "no /etc/mime.types (package media-types)";
  use_types(tarntest::read_file("/etc/mime.types"));
  EXPECT_EQ(ct_init(), 0);
  EXPECT_EQ(by_name("a.pdf"), "application/pdf");
  EXPECT_EQ(by_name("a.DOCX"), "application/vnd.openxmlformats-officedocument.wordprocessingml.document");
  EXPECT_EQ(by_name("a.7z"), "application/x-7z-compressed");
  EXPECT_EQ(by_name("a.vcf"), "text/vcard");
  EXPECT_EQ(by_name("a.txt"), "text/plain");
  EXPECT_STREQ(ct2ext("image/jpeg", nullptr), "jpeg");
  EXPECT_STREQ(ct2ext("text/plain; charset=utf-8", nullptr), "txt");
  EXPECT_STREQ(ct2ext("application/msword", nullptr), "doc");
  EXPECT_STREQ(ct2ext("message/rfc822", nullptr), "eml");
}

TEST_F(MimeType, DebianApacheMagicFile) {
  const char* env = std::getenv("TARN_APACHE_MAGIC");
  if (env == nullptr || access(env, R_OK) != 0) GTEST_SKIP() << "TARN_APACHE_MAGIC not set";
  use_magic(tarntest::read_file(env));
  testing::internal::CaptureStderr();
  EXPECT_EQ(check("%PDF-1.3\n"), "application/pdf");
  testing::internal::GetCapturedStderr();
  EXPECT_GT(MIMETYPE_nrejected, 0);
  EXPECT_EQ(check(tar("ustar\0" "00"s)), "application/x-tar");  // "application/x-tar<TAB>posix"
  EXPECT_EQ(check(tar("ustar  \0"s)), "application/x-tar");
  EXPECT_EQ(check(zip("word/document.xml", "x")), "application/x-zip");
  EXPECT_EQ(check("Plain words.\n"), "text/plain");
}

}  // namespace
