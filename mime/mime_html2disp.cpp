// HTML rewriting: writes an HTML body into the web-mail page so that it
// cannot take the page over.  Scripts and active elements go, event
// attributes are disabled (onload= becomes xonload=), document-level
// elements become harmless placeholder tags, links open a new window,
// mailto: links go to the compose program, references to parts of the same
// message become links to the saved parts, and external images can be
// replaced by a blank picture.  view_html_entity only finds out whether a
// body shows external images.
//
// The walk copies the body through the output sink.  Bytes that need no
// attention are passed over in runs and written in one piece; which bytes
// need attention depends on the switches and on whether the walk is inside
// a tag, in a style sheet or in a url(...) there, so one table per state
// tells them apart.  Every fallback writes an altered or literal fragment,
// so no input can stop the walk, and every look-ahead is bounded by the end
// of the text and remembered (see mime_html2disp_scan.cpp), so the time
// stays linear in the size of the body.

#include <algorithm>
#include <climits>
#include <cstring>
#include <string_view>

#include "mime_html2disp_internal.h"
#include "mime_rmscript_internal.h"
#include "tarnplat.h"

const html_uri_t html_uri[14] = {{"background", 10}, {"datasrc", 7}, {"href", 4}, {"longdesc", 8},
                                 {"src", 3},         {"usemap", 6},  {"classid", 7}, {"codebse", 7},
                                 {"data", 4},        {"cite", 4},    {"action", 6}, {"profile", 7},
                                 {"for", 3},         {"", 0}};
const char uri_charset[] = "abcdfhlpsuABCDFHLPSU";

namespace {

constexpr int kMaxRemovalPasses = 34;

int clamp_int(size_t n) { return n > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(n); }

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : c; }

// `word` is lower case.  Inline: the walk asks this at every tag.
bool starts_nocase(const char* p, const char* end, std::string_view word) {
  if (static_cast<size_t>(end - p) < word.size()) return false;
  for (size_t i = 0; i < word.size(); ++i)
    if (lower(p[i]) != word[i]) return false;
  return true;
}

bool is_uri_char(unsigned char c) { return c != '\0' && std::memchr(uri_charset, c, sizeof uri_charset - 1) != nullptr; }

// Bytes before which an event attribute is disabled: '/', space, and what
// the C locale does not print.
bool event_lead(unsigned char c) { return c == '/' || c == ' ' || c < 0x20 || c >= 0x7F; }

// Walk states that change which bytes need attention.
constexpr unsigned kInTag = 1;
constexpr unsigned kCssUrl = 2;  // in a style sheet, looking for url( and ')'
constexpr unsigned kInUrl = 4;
constexpr unsigned kWalkStates = 8;

// An element dropped whole by the walk (the rows of the removal filter).
struct Dropped {
  const char* name;
  size_t len;
  bool pair;               // content runs up to an end tag
  const char* placeholder; // written in its place, or nullptr
};
constexpr Dropped kXml = {"xml", 3, true, "<x-xml />"};
constexpr Dropped kScript = {"script", 6, true, nullptr};
constexpr Dropped kObject = {"object", 6, true, nullptr};
constexpr Dropped kEmbed = {"embed", 5, false, nullptr};

// An element replaced with everything up to its end tag; without one, the
// tag's name is written changed and the rest copied.
struct Neutralised {
  size_t len;           // '<' and the name
  const char* placeholder;
  const char* fallback;
};
constexpr Neutralised kLink = {5, "<x-link />", "<xlink"};
constexpr Neutralised kIframe = {7, "<x-iframe />", "<xframe"};
constexpr Neutralised kIsindex = {8, "<x-isindex />", "<xsindex"};

class Walker {
 public:
  explicit Walker(HtmlWalk& w)
      : w_(w),
        f_(w.flags),
        end_link_(w.end, "</link>"),
        end_head_(w.end, "</head>"),
        end_style_(w.end, "</style>"),
        slash_style_(w.end, "/style"),
        end_iframe_(w.end, "</iframe>"),
        end_isindex_(w.end, "</isindex>"),
        defused_until_(w.begin) {
    const HME* hme = w.disp->showdata;
    const int parts = hme != nullptr ? hme->me_info._attachment : 0;
    cid_parts_ = (parts & 2) != 0;
    loc_parts_ = (parts & 4) != 0;
    build_tables();
  }

  void run() {
    char* const end = w_.end;
    while (w_.q < end) {
      const unsigned s = state();
      const unsigned char bit = static_cast<unsigned char>(1u << s);
      const char* p = w_.q;
      if (only_lt_[s]) {
        p = static_cast<const char*>(std::memchr(p, '<', static_cast<size_t>(end - p)));
        if (p == nullptr) p = end;
      } else {
        while (p < end && (attention_[static_cast<unsigned char>(*p)] & bit) == 0) ++p;
      }
      w_.q = const_cast<char*>(p);
      if (p >= end) break;
      step();
    }
    w_.flush();
    if (have_bg_) w_.emit("</div>");
  }

 private:
  unsigned state() const {
    return (in_tag_ ? kInTag : 0) | (css_url() ? kCssUrl : 0) | (in_url_ ? kInUrl : 0);
  }
  bool css_url() const { return in_css_ && (f_ & kH2dStyle) == 0; }

  void build_tables() {
    std::memset(attention_, 0, sizeof attention_);
    for (unsigned s = 0; s < kWalkStates; ++s) {
      const unsigned char bit = static_cast<unsigned char>(1u << s);
      auto mark = [&](std::string_view bytes) {
        for (char c : bytes) attention_[static_cast<unsigned char>(c)] |= bit;
      };
      mark("<");
      // Outside a tag a '>' only ends a quoted value, which only the event
      // attributes look at.
      if ((s & kInTag) || (f_ & kH2dScript)) mark(">");
      if (f_ & kH2dScript) mark("\"oO");  // event attributes are caught at their "on"
      if (f_ & kH2dAmp) mark("&");
      if (s & kCssUrl) mark("uU)");
      if (s & kInTag) {
        mark("hH");
        if (f_ & kH2dBlockImg) mark("iI");
        if (f_ & kH2dMetaRefresh) mark("mM");
      }
      if ((cid_parts_ || loc_parts_) && (s & (kInTag | kInUrl))) mark(uri_charset);
      int count = 0;
      for (unsigned c = 0; c < 256; ++c) count += (attention_[c] & bit) != 0;
      only_lt_[s] = count == 1;
    }
  }

  bool at(std::string_view word) const { return starts_nocase(w_.q, w_.end, word); }

  // One byte that needs attention, at w_.q.
  void step() {
    const unsigned char c = static_cast<unsigned char>(*w_.q);
    if (f_ & kH2dScript) {
      if (c == '"')
        in_quote_ = !in_quote_;
      else if (c == 'o' || c == 'O')
        disable_event_attribute();
    }
    if (c == '<') {
      open_tag();
      return;
    }
    if (c == '>') {
      in_tag_ = false;
      in_quote_ = false;
    }
    if (in_tag_ && tag_word()) return;
    if (css_url()) {
      if (at("url"))
        in_url_ = true;
      else if (c == ')')
        in_url_ = false;
    }
    if (part_reference(c)) return;
    if (c == '&' && (f_ & kH2dAmp)) {
      w_.flush();
      w_.emit("&amp;");
      w_.jump(w_.q + 1);
      return;
    }
    ++w_.q;
  }

  // At the "on" of "/onload=", " onload=" or a control byte before
  // "onload=", outside a quoted value: the byte before the "on" becomes
  // "/x" or " x", so that onload= reads xonload=.  The byte before was
  // passed over as needing no attention; it is taken back here.  It counts
  // only when the walk went over it: not when a rewriter skipped it.
  void disable_event_attribute() {
    char* q = w_.q;
    if (q == w_.begin || q - 1 < w_.mark || q - 1 < w_.unvisited_end) return;
    const unsigned char lead = static_cast<unsigned char>(q[-1]);
    if (!event_lead(lead) || q + 1 >= w_.end || (q[1] != 'n' && q[1] != 'N')) return;
    const char* p = q + 2;
    while (p < w_.end && *p >= '0' && *p <= 'z' && *p != '=') ++p;
    while (p < w_.end && (*p == ' ' || *p == '\t')) ++p;
    if (p >= w_.end || *p != '=' || in_quote_) return;
    w_.flush_to(q - 1);
    w_.emit(lead == '/' ? "/x" : " x");
    w_.mark = q;
  }

  // Words inside a tag; true when a rewriter moved the walk.
  bool tag_word() {
    char* q = w_.q;
    char* n = q;
    if (at("href")) {
      if (f_ & kH2dMailto) n = conv_mailto(q, w_);
      if (n == q && pc_tag_ != nullptr && (*pc_tag_ == 'a' || *pc_tag_ == 'A')) {
        if (f_ & kH2dBlank) conv_outurl(q, w_);
        n = conv_dataurl(q, w_);
      }
    } else if ((f_ & kH2dBlockImg) && at("img")) {
      n = block_imgtag(q, w_);
    } else if ((f_ & kH2dMetaRefresh) && at("meta")) {
      n = conv_meta(q, w_);
    }
    if (n == q) return false;
    w_.jump(n);
    return true;
  }

  // A value inside a tag that follows a URI attribute, or a url(...) in a
  // style sheet, that names a saved part becomes the part's link.  True
  // when the walk moved.
  bool part_reference(unsigned char c) {
    if (!(cid_parts_ || loc_parts_) || !(in_tag_ || in_url_) || !is_uri_char(c)) return false;
    char* v = w_.q;
    bool moved = false;
    if (in_tag_) {
      bool dquote = false;
      if (const size_t n = uri_attr_prefix(v, w_.end, &dquote)) {
        if (dquote) in_quote_ = !in_quote_;
        v += n;
        moved = true;
      }
    }
    if (!moved && !in_url_) return false;
    const bool cid = cid_parts_ && check_CID(v, w_.disp);
    if (cid || (loc_parts_ && check_LOC(v, w_.disp))) {
      w_.q = v;
      w_.flush();
      if (cid)
        convert_CID(&v, w_.disp);
      else
        convert_LOC(&v, w_.disp);
      w_.jump(v);
      return true;
    }
    if (!moved) return false;
    // The name, '=' and quotes stay as they are; the value is walked on.
    w_.q = v;
    w_.unvisited_end = v;
    return true;
  }

  // ---- at '<' ----

  void open_tag() {
    char* q = w_.q;
    const char* r = q + 1;
    auto is = [&](std::string_view name) { return starts_nocase(r, w_.end, name); };
    if ((f_ & kH2dTextarea) && is("/textarea>")) {
      // The tag's own '>' follows the text and is copied too.
      replace_with("&lt;/TEXTAREA&gt;", q + 10);
    } else if ((f_ & kH2dXml) && is("xml")) {
      drop(kXml);
    } else if ((f_ & kH2dScript) && is("script")) {
      drop(kScript);
    } else if ((f_ & kH2dObject) && is("object")) {
      drop(kObject);
    } else if ((f_ & kH2dEmbed) && is("embed")) {
      drop(kEmbed);
    } else if ((f_ & kH2dLink) && is("link")) {
      neutralise(kLink, end_link_);
    } else if ((f_ & kH2dBody) && is("body")) {
      body_tag();
    } else if ((f_ & kH2dBody) && is("/body")) {
      placeholder_tag(6, "</x-body>", "</body");
    } else if ((f_ & kH2dHtml) && is("html")) {
      placeholder_tag(5, "<x-html />", "<html");
    } else if ((f_ & kH2dHtml) && is("/html")) {
      placeholder_tag(6, "</x-html>", "</html");
    } else if ((f_ & kH2dHead) && is("head")) {
      head();
    } else if (is("style") && style()) {
      // replaced
    } else if ((f_ & kH2dIframe) && is("iframe")) {
      neutralise(kIframe, end_iframe_);
    } else if ((f_ & kH2dIsindex) && is("isindex")) {
      neutralise(kIsindex, end_isindex_);
    } else {
      // An ordinary tag: the '<' is copied and the name remembered.
      in_tag_ = true;
      pc_tag_ = r;
      ++w_.q;
    }
  }

  void replace_with(const char* text, char* resume) {
    w_.flush();
    w_.emit(text);
    w_.jump(resume);
  }

  // script, object, xml and embed: the start tag must be closed, else its
  // '<' and name are written and the walk goes on after them.  Then the end
  // tag is sought at each following '<'; without one the content up to the
  // last '<' goes.  An end tag without its '>' is written back as "</name".
  void drop(const Dropped& e) {
    char* q = w_.q;
    char* after_name = q + 1 + e.len;
    w_.flush();
    const char* gt = w_.gt.next(after_name);
    if (gt == nullptr) {
      w_.emit("<");
      w_.emit(e.name);
      w_.jump(after_name);
      return;
    }
    if (e.placeholder != nullptr) w_.emit(e.placeholder);
    char* p = const_cast<char*>(gt) + 1;
    if (!e.pair) {
      w_.jump(p);
      return;
    }
    char* const end = w_.end;
    for (;;) {
      char* lt = static_cast<char*>(std::memchr(p, '<', static_cast<size_t>(end - p)));
      if (lt == nullptr) {
        w_.jump(p);
        return;
      }
      if (lt + 1 < end && lt[1] == '/' && starts_nocase(lt + 2, end, std::string_view(e.name, e.len))) {
        char* tag_end = lt + 2 + e.len;
        if (const char* close = w_.gt.next(tag_end)) {
          w_.jump(const_cast<char*>(close) + 1);
        } else {
          w_.emit("</");
          w_.emit(e.name);
          w_.jump(tag_end);
        }
        return;
      }
      p = lt + 1;
    }
  }

  void neutralise(const Neutralised& e, TextFinder& end_tag) {
    char* q = w_.q;
    if (const char* close = end_tag.next(q + 1))
      replace_with(e.placeholder, const_cast<char*>(close) + end_tag_len(e));
    else
      replace_with(e.fallback, q + e.len);
  }

  static size_t end_tag_len(const Neutralised& e) { return e.len + 2; }  // "</name>"

  // html, /html and /body: the tag becomes its placeholder when it is
  // closed; else its '<' and name are written.
  void placeholder_tag(size_t len, const char* placeholder, const char* fallback) {
    char* q = w_.q;
    if (const char* gt = w_.gt.next(q + len))
      replace_with(placeholder, const_cast<char*>(gt) + 1);
    else
      replace_with(fallback, q + len);
  }

  void body_tag() {
    char* q = w_.q;
    const char* gt = w_.gt.next(q + 5);
    if (gt == nullptr) {
      replace_with("<body", q + 5);
      return;
    }
    w_.flush();
    if (f_ & kH2dBodyBg) body_background(q + 5, gt);
    replace_with("<x-body />", const_cast<char*>(gt) + 1);
  }

  // The body's bgcolor and background move to a div that wraps the body.
  // The values are written as they were read; a background that names a
  // saved part becomes its link.
  void body_background(const char* p, const char* gt) {
    bool style = false;
    bool div = false;
    char buf[256];
    while (p < gt) {
      const bool color = starts_nocase(p, gt, "bgcolor");
      const bool image = !color && starts_nocase(p, gt, "background");
      const AttrValue v = (color || image) ? attr_value_at(p, gt, color ? "bgcolor" : "background", w_.charset,
                                                           w_.term, buf, sizeof buf)
                                           : AttrValue{};
      if (v.pos == nullptr) {
        ++p;
        continue;
      }
      if (!div) {
        w_.emit("<div width=\"100%\" ");
        div = true;
        have_bg_ = true;
      }
      if (color)
        w_.emit(style ? "; background-color:" : " style=\"background-color:");
      else
        w_.emit(style ? "; background-image:url(" : " style=\"background-image:url(");
      style = true;
      char* value = buf;
      if (convert_CID(&value, w_.disp) || convert_LOC(&value, w_.disp))
        w_.emit(")");
      else
        w_.emit(buf);
      p = v.after;
    }
    if (style) w_.emit("\"");
    if (div) w_.emit(">");
  }

  // The head goes, its base tag (if closed inside it) stays.
  void head() {
    char* q = w_.q;
    const char* close = end_head_.next(q + 1);
    if (close == nullptr) {
      replace_with("<head", q + 5);
      return;
    }
    w_.flush();
    TextFinder base(close, "<base");
    if (const char* b = base.next(q + 5)) {
      if (const char* gt = static_cast<const char*>(std::memchr(b, '>', static_cast<size_t>(close - b))))
        w_.emit(b, static_cast<size_t>(gt + 1 - b));
    }
    replace_with("<x-head />", const_cast<char*>(close) + 7);
  }

  // Without the style switch a style sheet stays, its script words
  // defused; from here on the walk is in a style sheet.  True when the
  // element was replaced.
  bool style() {
    char* q = w_.q;
    if (f_ & kH2dStyle) {
      if (const char* close = end_style_.next(q + 1))
        replace_with("<x-style />", const_cast<char*>(close) + 8);
      else
        replace_with("<xstyle", q + 6);
      return true;
    }
    in_css_ = true;
    if (const char* slash = slash_style_.next(q + 1)) {
      // Up to the '>' of "/style>".  A style tag inside a block already
      // defused starts nothing new: the words there were seen once.
      char* stop = std::min(const_cast<char*>(slash) + 7, w_.end);
      char* from = std::max(q, defused_until_);
      if (from < stop) replace_script(from, clamp_int(static_cast<size_t>(stop - from)), 0);
      defused_until_ = std::max(defused_until_, stop);
    }
    return false;
  }

  HtmlWalk& w_;
  const int f_;
  bool cid_parts_ = false;
  bool loc_parts_ = false;
  bool in_quote_ = false;
  bool in_tag_ = false;
  bool in_css_ = false;
  bool in_url_ = false;
  bool have_bg_ = false;
  const char* pc_tag_ = nullptr;
  TextFinder end_link_, end_head_, end_style_, slash_style_, end_iframe_, end_isindex_;
  char* defused_until_;
  unsigned char attention_[256];
  bool only_lt_[kWalkStates];  // the state needs attention at '<' alone
};

// Whether a removal pass could remove anything: some '<' followed by the
// name of a selected element.  A pass that removes nothing is thrown away,
// so a body without one needs no pass (nor its copy).
bool removal_candidate(const char* text, size_t len, int rm) {
  const char* end = text + len;
  for (const char* p = text; (p = static_cast<const char*>(std::memchr(p, '<', static_cast<size_t>(end - p))));
       ++p) {
    // The names begin with s, i, x, o or e.
    const char c = p + 1 < end ? lower(p[1]) : '\0';
    if (c != 's' && c != 'i' && c != 'x' && c != 'o' && c != 'e') continue;
    int row = -1;
    if (tag_match(p, static_cast<size_t>(end - p), rm, &row)) return true;
  }
  return false;
}

// Runs the removal filter until a pass removes nothing (at most 34 passes);
// each pass writes into a new buffer from the context's arena.
char* removal_passes(MIME_DISP* d, char* text, size_t* len) {
  const int f = d->html2disp_flag;
  const int rm = ((f & kH2dScript) ? 1 : 0) | ((f & kH2dObject) ? 8 : 0) | ((f & kH2dEmbed) ? 16 : 0) |
                 ((f & kH2dXml) ? 4 : 0);
  if (rm == 0 || !removal_candidate(text, *len, rm)) return text;
  for (int pass = 0; pass < kMaxRemovalPasses && *len < static_cast<size_t>(INT_MAX); ++pass) {
    auto* out = static_cast<char*>(mime_disp_alloc(d, *len + 1));
    if (out == nullptr) break;
    if (remove_script_block(text, static_cast<int>(*len), out, static_cast<int>(*len + 1), rm) == 0) break;
    text = out;
    *len = std::strlen(out);
    if (!removal_candidate(text, *len, rm)) break;  // the next pass would remove nothing
  }
  return text;
}

}  // namespace

HtmlWalk::HtmlWalk(MIME_DISP* disp_info, char* text, char* text_end)
    : disp(disp_info),
      flags(disp_info->html2disp_flag),
      charset(html_charset_mode(disp_info->nTextCharsetVal)),
      begin(text),
      end(text_end),
      q(text),
      mark(text),
      gt(text_end, '>'),
      term(text_end),
      src(text_end, "src"),
      width(text_end, "width"),
      height(text_end, "height"),
      http_equiv(text_end, "http-equiv"),
      unvisited_end(text) {}

void HtmlWalk::flush() { flush_to(q); }

void HtmlWalk::flush_to(const char* to) {
  if (to > mark) MMIME_Fwrite(disp, mark, static_cast<size_t>(to - mark), 1);
  mark = q;
}

void HtmlWalk::emit(const char* text) { emit(text, std::strlen(text)); }

void HtmlWalk::emit(const char* text, size_t len) {
  flush();
  if (len > 0) MMIME_Fwrite(disp, text, len, 1);
}

extern "C" TARNMAIL_API void html2disp(char* data, char* cbase, MIME_DISP* disp_info) {
  if (data == nullptr || disp_info == nullptr) return;
  char* text = data;
  for (filter_func_ptr filter : {disp_info->Filter1, disp_info->Filter2, disp_info->Filter3, disp_info->Filter4,
                                 disp_info->Filter5}) {
    if (filter == nullptr) continue;
    text = filter(disp_info, text, 1);
    if (text == nullptr) return;
  }
  if (cbase != nullptr) MMIME_Fprintf(disp_info, "<base href=%s>", cbase);
  const int f = disp_info->html2disp_flag;
  size_t len = std::strlen(text);
  if (f & kH2dScript) replace_script(text, clamp_int(len), 1);
  if (f & kH2dRemovePasses) text = removal_passes(disp_info, text, &len);
  HtmlWalk w(disp_info, text, text + len);
  Walker(w).run();
}

extern "C" TARNMAIL_API void view_html_entity(char* data, char* /*cbase*/, MIME_DISP* disp_info) {
  if (data == nullptr || disp_info == nullptr || (disp_info->html2disp_flag & kH2dBlockImg) == 0) return;
  HtmlWalk w(disp_info, data, data + std::strlen(data));
  TextFinder img(w.end, "<img");
  for (const char* p = img.next(w.begin); p != nullptr; p = img.next(p + 1)) {
    const char before = disp_info->is_block_image;
    disp_info->is_block_image = 0;
    chk_imgtag(const_cast<char*>(p) + 1, w);
    const bool external = disp_info->is_block_image != 0;
    disp_info->is_block_image = static_cast<char>(before | external);
    if (external) break;
  }
}
