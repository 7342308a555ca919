// tarnmail render: one message as a complete HTML page that can be opened
// straight from disk, its parts saved beside it.
//
// The page is UTF-8 (the decode contexts used here convert every text to
// UTF-8) and carries a content security policy that allows no script and
// no load from anywhere but the page's own files: the saved parts, inline
// data: images, and its inline styles.  The display contexts meant for
// reading pages leave script removal to their caller, so unless told
// otherwise the page turns on every removal the HTML rewriter has and
// blocks pictures from other sites.

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "cmd_render_parts.h"
#include "tool.h"

namespace tarntool {
namespace {

namespace fs = std::filesystem;

// html2disp_flag bits a safe page adds to the display context's own.
constexpr int kH2dScripts = 0x1;          // script elements, event attributes, script words in tags
constexpr int kH2dBlockImages = 0x800;    // pictures from other sites
constexpr int kH2dMetaRefresh = 0x2000;   // meta refresh
constexpr int kH2dObjects = 0x8000;       // object elements
constexpr int kH2dEmbeds = 0x10000;       // embed tags
constexpr int kH2dXml = 0x20000;          // xml islands
constexpr int kH2dRemovalPasses = 0x40000;  // repeated removal before rewriting
constexpr int kSafeH2d = kH2dScripts | kH2dMetaRefresh | kH2dObjects | kH2dEmbeds | kH2dXml | kH2dRemovalPasses;

// text2disp_flag bits: '<' escaped (plain or doubled); line breaks as <br>.
constexpr int kT2dEscapesLt = 0x100 | 0x800;
constexpr int kT2dBreaks = 0x4 | 0x40;

// The engine keeps at most 127 bytes of each path it is given.
constexpr size_t kPathField = 128;

struct Preset {
  std::string_view name;
  const MIME_DISP* disp;
  const MIME_DECODE* decode;
};

// Every display context by its name without "DE", and the decode context
// it renders: msgread, the context for stored messages read from a mail
// folder, expands TNEF attachments (msgreadME); every other one takes the
// general decoding (generalME), which converts texts and header words to
// UTF-8 as the page needs.
const Preset kPresets[] = {
    {"mailread", &mailreadDE, &generalME},    {"msgread", &msgreadDE, &msgreadME},
    {"imap", &imapDE, &generalME},            {"downfile", &downfileDE, &generalME},
    {"mailprn", &mailprnDE, &generalME},      {"mailsend", &mailsendDE, &generalME},
    {"html_inc", &html_incDE, &generalME},    {"html_fwd", &html_fwdDE, &generalME},
    {"html_reply", &html_replyDE, &generalME}, {"html_draft", &html_draftDE, &generalME},
    {"text_inc", &text_incDE, &generalME},    {"text_fwd", &text_fwdDE, &generalME},
    {"text_reply", &text_replyDE, &generalME}, {"text_draft", &text_draftDE, &generalME},
    {"imode", &imodeDE, &generalME},          {"wap", &wapDE, &generalME},
    {"show_html", &show_htmlDE, &generalME},  {"show_syslog", &show_syslogDE, &generalME},
    {"mailhdr", &mailhdrDE, &generalME},
};

const Preset* find_preset(std::string_view name) {
  for (const Preset& p : kPresets)
    if (p.name == name) return &p;
  return nullptr;
}

// What the engine writes for a context: HTML; text already escaped for
// HTML with its own line ends (the plain-text reply and forward
// contexts); or raw text (contexts whose text rendering escapes nothing).
enum class Output { kHtml, kEscapedText, kRawText };

Output output_of(const MIME_DISP& d) {
  if ((d.text2disp_flag & kT2dEscapesLt) == 0) return Output::kRawText;
  if ((d.disp_flag & MIME_DISP_TEXT_MODE) && (d.text2disp_flag & kT2dBreaks) == 0) return Output::kEscapedText;
  return Output::kHtml;
}

struct RenderOptions {
  std::string file;
  std::string preset = "mailread";
  std::string forms_dir;
  std::string download_dir;
  std::string out;  // empty or "-": standard output
  bool show_images = false;
  bool preset_flags = false;
};

int parse_args(const std::vector<std::string>& args, RenderOptions* o) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](std::string* into) {
      if (i + 1 == args.size() || args[i + 1].empty()) return false;
      *into = args[++i];
      return true;
    };
    if (a == "--preset") {
      if (!value(&o->preset)) return usage_error("--preset needs a name");
    } else if (a == "--forms") {
      if (!value(&o->forms_dir)) return usage_error("--forms needs a directory");
    } else if (a == "--download-dir") {
      if (!value(&o->download_dir)) return usage_error("--download-dir needs a directory");
    } else if (a == "-o") {
      if (!value(&o->out)) return usage_error("-o needs a file");
    } else if (a == "--show-images") {
      o->show_images = true;
    } else if (a == "--preset-flags") {
      o->preset_flags = true;
    } else if (a.size() > 1 && a[0] == '-' && a != "-") {
      return usage_error("render: unknown option '" + a + "'");
    } else if (o->file.empty()) {
      o->file = a;
    } else {
      return usage_error("render takes one FILE");
    }
  }
  if (o->file.empty()) return usage_error("render needs a FILE (- for standard input)");
  return 0;
}

// ---- paths ----

// The forms directory: the one given, else the installed one when it holds
// the context's header form, else the source tree's.
int forms_dir(const RenderOptions& o, const MIME_DISP& d, std::string* out) {
  auto holds = [&](const std::string& dir) { return access((dir + "/" + d.header_form).c_str(), R_OK) == 0; };
  if (!o.forms_dir.empty()) {
    if (!holds(o.forms_dir))
      return usage_error("cannot read " + o.forms_dir + "/" + d.header_form + ": " + strerror(errno));
    *out = o.forms_dir;
  } else {
    std::string installed = std::string(TARN_DATADIR) + "/forms";
    *out = holds(installed) ? installed : std::string(TARN_SOURCE_DATADIR) + "/forms";
  }
  if (out->size() >= kPathField) return usage_error("forms directory path too long: " + *out);
  return 0;
}

// A relative path as it goes into a link: every byte but letters, digits,
// "/" and - . _ ~ percent-escaped, so that no name can end the attribute
// or start a query or a fragment.
std::string link_path(const std::string& path) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : path) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' || c == '-' ||
        c == '.' || c == '_' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

// The shorter of a path's absolute form and its form relative to the
// working directory: the engine keeps at most 127 bytes of it.
std::string short_path(const fs::path& abs) {
  std::error_code ec;
  fs::path rel = abs.lexically_relative(fs::current_path(ec));
  if (!ec && !rel.empty() && rel.string().size() < abs.string().size()) return rel.string();
  return abs.string();
}

struct Places {
  std::string parts;      // the download directory
  std::string link_base;  // the download directory relative to the page, for links
};

int places(const RenderOptions& o, Places* p) {
  std::error_code ec;
  const bool to_file = !o.out.empty() && o.out != "-";
  fs::path page_dir = to_file ? fs::absolute(o.out, ec).parent_path() : fs::current_path(ec);
  if (ec) return usage_error("cannot find the working directory: " + ec.message());
  if (!fs::is_directory(page_dir, ec)) return usage_error("no such directory: " + page_dir.string());
  fs::path parts = o.download_dir.empty() ? page_dir / "parts" : fs::absolute(o.download_dir, ec);
  fs::create_directories(parts, ec);
  if (ec) return usage_error("cannot create " + parts.string() + ": " + ec.message());
  // Through the real paths, so that a link in either does not mislead.
  fs::path real_page = fs::canonical(page_dir, ec);
  fs::path real_parts = ec ? fs::path() : fs::canonical(parts, ec);
  if (ec) return usage_error("cannot resolve " + parts.string() + ": " + ec.message());
  fs::path rel = real_parts.lexically_relative(real_page);
  if (rel.empty()) return usage_error("no relative path from the page to " + parts.string());
  p->parts = short_path(real_parts);
  p->link_base = link_path(rel.generic_string());
  if (p->link_base.size() >= kPathField) return usage_error("download directory too far from the page: " + rel.string());
  return 0;
}

// ---- the page ----

// Text for an element's content or a quoted attribute value: markup
// characters escaped, control bytes dropped (a tab and a line end kept
// when `keep_lines`).
void append_escaped(std::string* out, std::string_view text, bool keep_lines) {
  for (char ch : text) {
    unsigned char c = static_cast<unsigned char>(ch);
    switch (c) {
      case '&': *out += "&amp;"; break;
      case '<': *out += "&lt;"; break;
      case '>': *out += "&gt;"; break;
      case '"': *out += "&quot;"; break;
      default:
        if (c == '\n' || c == '\t') *out += keep_lines ? ch : ' ';
        else if (c >= 0x20 && c != 0x7f) *out += ch;
    }
  }
}

std::string subject_of(MIME_DECODE& dec) {
  const ME_HEADER* h = dec.result.me_node.h;
  if (h == nullptr || h->rfc822 == nullptr || h->rfc822->subject == nullptr || h->rfc822->subject[0] == nullptr)
    return {};
  return h->rfc822->subject[0];
}

constexpr char kStyle[] =
    "body{margin:0;background:#f3f3f1;color:#1c1c1a;font:15px/1.45 system-ui,sans-serif}\n"
    ".tm-page{max-width:62rem;margin:1.5rem auto;padding:1.25rem 2rem;background:#fff;border:1px solid #d8d8d4;"
    "overflow-wrap:anywhere}\n"
    ".tm-header{border-bottom:1px solid #d8d8d4;margin-bottom:1rem;padding-bottom:.5rem}\n"
    ".tm-embedded{border:0;border-left:3px solid #c8c8c2;margin:1rem 0;padding:0 0 0 1rem}\n"
    ".tm-subject{font-size:1.35rem;margin:0 0 .5rem}\n"
    ".tm-fields{border-collapse:collapse}\n"
    ".tm-fields th{color:#66665f;font-weight:normal;text-align:left;vertical-align:top;padding:.1rem 1rem .1rem 0;"
    "white-space:nowrap}\n"
    ".tm-addr,.tm-size{color:#66665f}\n"
    ".tm-attachments{margin:0;padding-left:1.1rem}\n"
    "pre.tm-text{white-space:pre-wrap;font:14px/1.4 ui-monospace,monospace}\n"
    "img{max-width:100%;height:auto}\n";

std::string page_head(const std::string& subject, bool show_images) {
  // No script-src: with default-src 'none' no script runs, inline or not.
  std::string images = "'self' data:";
  if (show_images) images += " http: https:";
  std::string page =
      "<!DOCTYPE html>\n"
      "<html>\n<head>\n"
      "<meta charset=\"utf-8\">\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src " +
      images +
      "; style-src 'unsafe-inline'; base-uri 'none'; form-action 'none'\">\n"
      "<meta name=\"referrer\" content=\"no-referrer\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      "<meta name=\"generator\" content=\"tarnmail\">\n"
      "<title>";
  append_escaped(&page, subject.empty() ? "(no subject)" : subject, false);
  page += "</title>\n<style>\n";
  page += kStyle;
  page += "</style>\n</head>\n<body>\n<main class=\"tm-page\">\n";
  return page;
}

bool write_page(const RenderOptions& o, const std::string& head, std::string_view body, Output kind) {
  std::string page = head;
  if (kind == Output::kHtml) {
    page.append(body);
  } else {
    page += "<pre class=\"tm-text\">";
    if (kind == Output::kRawText) append_escaped(&page, body, true);
    else page.append(body);
    page += "</pre>";
  }
  page += "\n</main>\n</body>\n</html>\n";

  const bool to_file = !o.out.empty() && o.out != "-";
  FILE* f = to_file ? fopen(o.out.c_str(), "wb") : stdout;
  const std::string name = to_file ? o.out : "standard output";
  if (f == nullptr) {
    fprintf(stderr, "tarnmail: cannot write %s: %s\n", name.c_str(), strerror(errno));
    return false;
  }
  bool ok = fwrite(page.data(), 1, page.size(), f) == page.size();
  int err = errno;
  if (to_file) {
    if (fclose(f) != 0 && ok) {
      ok = false;
      err = errno;
    }
  } else if (fflush(f) != 0 && ok) {
    ok = false;
    err = errno;
  }
  if (!ok) fprintf(stderr, "tarnmail: cannot write %s: %s\n", name.c_str(), strerror(err));
  return ok;
}

// ---- links of the header forms ----

// The reading forms link the attachment list to the download program
// ("/cgi-bin/downfile/PREFIX ID.EXT/NAME"); the page sends those links to
// the parts directory, as the engine's own links.  The rewritten form
// lives in the context's arena.  A form filter is given no argument of its
// own, so the link base waits here: the program renders one page a run.
std::string g_form_link_base;

char* form_links_to_parts(MIME_DISP* d, char* form, int) {
  static constexpr std::string_view kDownload = "/cgi-bin/downfile/";
  if (form == nullptr || std::strstr(form, kDownload.data()) == nullptr) return form;
  std::string text;
  std::string_view rest(form);
  for (size_t at; (at = rest.find(kDownload)) != std::string_view::npos; rest.remove_prefix(at + kDownload.size())) {
    text.append(rest.substr(0, at));
    text += g_form_link_base;
    text += '/';
  }
  text.append(rest);
  auto* copy = static_cast<char*>(my_Xalloc(&d->MIME_ptr, text.size() + 1));
  if (copy == nullptr) return form;
  std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

// ---- the rendering ----

struct Decoding {
  MIME_DECODE ctx;
  explicit Decoding(const MIME_DECODE& preset) : ctx(preset) {}
  ~Decoding() { mime_decode_shutdown(&ctx); }
  Decoding(const Decoding&) = delete;
  Decoding& operator=(const Decoding&) = delete;
};

struct Display {
  MIME_DISP ctx;
  explicit Display(const MIME_DISP& preset) : ctx(preset) {}
  ~Display() { mime_disp_shutdown(&ctx); }
  Display(const Display&) = delete;
  Display& operator=(const Display&) = delete;
};

int render(const RenderOptions& o, const Preset& preset, Message& message) {
  std::string forms;
  if (int rc = forms_dir(o, *preset.disp, &forms)) return rc;
  Places where;
  if (int rc = places(o, &where)) return rc;
  PartsLayout parts;
  if (!parts.open(where.parts)) return 2;
  if (parts.staging().size() >= kPathField) return usage_error("download directory path too long: " + where.parts);

  Decoding dec(*preset.decode);
  // The message's own path makes the names of its saved parts stable:
  // rendering it again finds them in place.
  const char* msgpath = o.file == "-" ? nullptr : o.file.c_str();
  mime_decode_init(&dec.ctx, message.bytes.data(), message.size(), msgpath, nullptr);
  mime_decode_run(&dec.ctx);

  std::string body;
  std::string prefix;
  Output kind;
  {
    Display disp(*preset.disp);
    MIME_DISP& d = disp.ctx;
    d.disp_flag = (d.disp_flag & ~(MIME_DISP_OUT_STREAM | MIME_DISP_OUT_FIXED)) | MIME_DISP_OUT_GROWING;
    if (!o.preset_flags) {
      d.html2disp_flag |= kSafeH2d;
      if (!o.show_images) d.html2disp_flag |= kH2dBlockImages;
    }
    mime_disp_set_downfilepath(&d, parts.staging().c_str(), nullptr);
    mime_disp_init(&d, &dec.ctx.result, "", forms.c_str());
    mime_disp_setcharset(&d, MLG_UTF8, MLG_UTF8);
    // Links are disp_base + cgipath + "/PREFIX ID.EXT/NAME": with no base
    // and the parts directory as the "download program", a relative path.
    // Embedded media take "/" + webrelatepath, a path from the root, but
    // the page's policy loads no embedded object anyway.
    mime_disp_set_cgipath(&d, where.link_base.c_str());
    mime_disp_set_webrelatepath(&d, where.link_base.c_str());
    g_form_link_base = where.link_base;
    mime_disp_setformfilter(&d, form_links_to_parts);
    mime_disp_run(&d);
    char* result = nullptr;
    long size = 0;
    mime_disp_getresult(&d, &result, &size);
    if (result != nullptr && size > 0) body.assign(result, static_cast<size_t>(size));
    prefix = d.attFilePrefix;
    kind = output_of(d);
  }
  // The parts first: once the page is there, so are its links' targets.
  bool ok = parts.place(&dec.ctx.result.me_node, prefix);
  ok = write_page(o, page_head(subject_of(dec.ctx), o.show_images), body, kind) && ok;
  return ok ? 0 : 2;
}

}  // namespace

int cmd_render(const std::vector<std::string>& args) {
  RenderOptions o;
  if (int rc = parse_args(args, &o)) return rc;
  const Preset* preset = find_preset(o.preset);
  if (preset == nullptr) return usage_error("unknown preset '" + o.preset + "'");
  if (int rc = load_type_tables("", "")) return rc;
  auto message = read_message(o.file);
  if (!message) return 2;
  return render(o, *preset, *message);
}

}  // namespace tarntool
