// tarnmail parts: the named parts of a message, one line each, with their
// decoded size and SHA-256; optionally written out as files.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "sha256.h"
#include "tool.h"

namespace tarntool {
namespace {

const char* const kEncNames[] = {"none", "base64", "quoted-printable", "uuencode", "8bit", "7bit"};

// Longest file name most file systems take.
constexpr size_t kNameMax = 255;

struct PartsOptions {
  std::string file;
  std::string preset_name = "msgread";
  std::string extract_dir;
  std::string magic_file;
  std::string mime_types_file;
  // Not in the usage text: for the comparison tests.
  bool all_leaves = false;
  std::string dump_leaf;  // with all_leaves: write this leaf's bytes alone
  int decode_level = -1;  // -1: the preset's
  int auto_convert = -1;
};

// The bytes a part stands for after decoding.
struct Body {
  const char* data = nullptr;
  size_t len = 0;
};

Body body_of(const ME* me) {
  // An embedded message parsed into its parts has had those parts decoded
  // in place inside its own body; the arena copy keeps the text as it came.
  const ME_HEADER* h = me->h;
  if (h != nullptr && me->child != nullptr && h->mime.org_text != nullptr && me->body_bgn != nullptr &&
      me->body_end > me->body_bgn)
    return {h->mime.org_text, static_cast<size_t>(me->body_end - me->body_bgn)};
  if (me->body_bgn == nullptr || me->datalen <= 0) return {};
  return {me->body_bgn, static_cast<size_t>(me->datalen)};
}

// Content type without parameters: ctype_str up to its first ';' or
// blank, trimmed; "-" when there is none.
std::string short_type(const char* ctype_str) {
  if (ctype_str == nullptr) return "-";
  std::string_view s(ctype_str);
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string_view::npos) return "-";
  s.remove_prefix(b);
  s = s.substr(0, s.find_first_of("; \t\r\n"));
  return s.empty() ? "-" : std::string(s);
}

// ---- writing files --------------------------------------------------------

// The file name a part is written under: an empty name (a uuencoded
// block whose "begin" line names nothing) becomes "unnamed".
constexpr char kUnnamed[] = "unnamed";

// A name the tool will create inside the directory and nowhere else.
bool safe_for_directory(std::string_view name) {
  return name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

// NAME with " (N)" before its extension (the text from the last dot, when
// that dot is not the first character), cut so that the whole stays within
// kNameMax bytes and never in the middle of a UTF-8 sequence.
std::string numbered_name(const std::string& name, int n) {
  size_t dot = name.rfind('.');
  if (dot == 0 || dot == std::string::npos) dot = name.size();
  std::string stem = name.substr(0, dot);
  std::string ext = name.substr(dot);
  std::string suffix = n > 1 ? " (" + std::to_string(n) + ")" : "";
  if (ext.size() + suffix.size() >= kNameMax) ext.clear();
  size_t room = kNameMax - ext.size() - suffix.size();
  if (stem.size() > room) {
    size_t cut = room;
    while (cut > 0 && (static_cast<unsigned char>(stem[cut]) & 0xc0) == 0x80) --cut;
    stem.resize(cut);
  }
  return stem + suffix + ext;
}

bool write_all(int fd, const char* data, size_t len) {
  while (len > 0) {
    ssize_t n = write(fd, data, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

// Writes the parts into one directory.  Files are created, never opened
// over an existing file or through a link: a name already present gets the
// next free number, so repeated names in a message come out as "a.pdf",
// "a (2).pdf", ...
class Extractor {
 public:
  ~Extractor() {
    if (dir_fd_ >= 0) close(dir_fd_);
  }

  bool open_dir(const std::string& dir) {
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return fail(dir, strerror(errno));
    dir_fd_ = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir_fd_ < 0) return fail(dir, strerror(errno));
    dir_ = dir;
    return true;
  }

  bool write(const char* name, Body body) {
    const std::string base(name == nullptr || *name == '\0' ? kUnnamed : name);
    if (!safe_for_directory(base)) return fail(base, "not a file name inside the directory");
    for (int n = 1; n < 100000; ++n) {
      std::string candidate = numbered_name(base, n);
      int fd = openat(dir_fd_, candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
      if (fd < 0 && errno == EEXIST) continue;
      if (fd < 0) return fail(dir_ + "/" + candidate, strerror(errno));
      bool ok = write_all(fd, body.data, body.len);
      int err = errno;
      if (close(fd) != 0 && ok) {
        ok = false;
        err = errno;
      }
      if (!ok) return fail(dir_ + "/" + candidate, strerror(err));
      return true;
    }
    return fail(base, "no free name left");
  }

 private:
  static bool fail(const std::string& what, const char* why) {
    fprintf(stderr, "tarnmail: cannot write %s: %s\n", what.c_str(), why);
    return false;
  }

  int dir_fd_ = -1;
  std::string dir_;
};

// ---- walking the tree -----------------------------------------------------

struct Walk {
  const char* data;  // the message buffer
  size_t size;
  const PartsOptions& options;
  Extractor* extractor;  // null: list only

  // Offset of a header inside the message; -1 for an entity made from
  // decoded data (TNEF files, uuencoded blocks lie in the arena).
  long header_offset(const ME* me) const {
    std::less<const char*> before;
    if (me->header_bgn == nullptr || before(me->header_bgn, data) || !before(me->header_bgn, data + size + 1))
      return -1;
    return static_cast<long>(me->header_bgn - data);
  }

  bool named(const ME* me) {
    const MIME_HEADER* m = me->h != nullptr ? &me->h->mime : nullptr;
    if (m == nullptr || m->filename == nullptr) return true;
    Body body = body_of(me);
    printf("%s\t%s\t%s\t%zu\t%s\n", field(m->file_id).c_str(), field(m->filename).c_str(),
           short_type(m->ctype_str).c_str(), body.len, sha256_hex(body.data, body.len).c_str());
    return extractor == nullptr || extractor->write(m->filename, body);
  }

  // Every entity without children: its place in the tree ("1" the root,
  // "1.2" its second part ...), header offset, transfer encoding and bytes.
  void leaf(const ME* me, const std::string& path) {
    const MIME_HEADER* m = me->h != nullptr ? &me->h->mime : nullptr;
    int enc = m != nullptr ? m->enc_type : 0;
    Body body = body_of(me);
    printf("%s\t%ld\t%s\t%s\t%zu\t%s\t%s\t%s\n", path.c_str(), header_offset(me),
           enc >= 0 && enc <= 5 ? kEncNames[enc] : "?", m != nullptr ? short_type(m->ctype_str).c_str() : "-",
           body.len, sha256_hex(body.data, body.len).c_str(), m != nullptr ? field(m->file_id).c_str() : "-",
           m != nullptr ? field(m->filename).c_str() : "-");
  }

  bool entity(const ME* me, const std::string& path) {
    if (!options.all_leaves) return named(me);
    if (me->child != nullptr) return true;
    if (options.dump_leaf.empty()) {
      leaf(me, path);
    } else if (options.dump_leaf == path) {
      Body body = body_of(me);
      fwrite(body.data, 1, body.len, stdout);
    }
    return true;
  }

  // Depth first, children before the next sibling, as the engine walks;
  // an explicit stack, so that no nesting depth can exhaust the call stack.
  bool visit(const ME* root) {
    struct Pending {
      const ME* me;
      std::string path;
    };
    std::vector<Pending> stack{{root, "1"}};
    while (!stack.empty()) {
      Pending p = std::move(stack.back());
      stack.pop_back();
      if (!entity(p.me, p.path)) return false;
      if (p.me->next != nullptr) {
        size_t dot = p.path.rfind('.');
        size_t head = dot == std::string::npos ? 0 : dot + 1;
        int n = std::stoi(p.path.substr(head)) + 1;
        stack.push_back({p.me->next, p.path.substr(0, head) + std::to_string(n)});
      }
      if (p.me->child != nullptr) stack.push_back({p.me->child, p.path + ".1"});
    }
    return true;
  }
};

// ---- arguments ------------------------------------------------------------

bool parse_number(const std::string& text, int* out) {
  errno = 0;
  char* end = nullptr;
  long v = strtol(text.c_str(), &end, 0);
  if (text.empty() || *end != '\0' || errno != 0 || v < 0 || v > 0xffff) return false;
  *out = static_cast<int>(v);
  return true;
}

// Reads the arguments; a usage error has been reported when it returns
// a non-zero exit status.
int parse_args(const std::vector<std::string>& args, PartsOptions* o) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](std::string* into) {
      if (i + 1 == args.size()) return false;
      *into = args[++i];
      return true;
    };
    std::string number;
    if (a == "--preset") {
      if (!value(&o->preset_name)) return usage_error("--preset needs a name");
    } else if (a == "--extract") {
      if (!value(&o->extract_dir) || o->extract_dir.empty()) return usage_error("--extract needs a directory");
    } else if (a == "--magic") {
      if (!value(&o->magic_file) || o->magic_file.empty()) return usage_error("--magic needs a file");
    } else if (a == "--mime-types") {
      if (!value(&o->mime_types_file) || o->mime_types_file.empty()) return usage_error("--mime-types needs a file");
    } else if (a == "--all-leaves") {
      o->all_leaves = true;
    } else if (a == "--dump-leaf") {
      if (!value(&o->dump_leaf) || o->dump_leaf.empty()) return usage_error("--dump-leaf needs a place");
      o->all_leaves = true;
    } else if (a == "--decode-level") {
      if (!value(&number) || !parse_number(number, &o->decode_level))
        return usage_error("--decode-level needs a number");
    } else if (a == "--auto-convert") {
      if (!value(&number) || !parse_number(number, &o->auto_convert))
        return usage_error("--auto-convert needs a number");
    } else if (o->file.empty()) {
      o->file = a;
    } else {
      return usage_error("parts takes one FILE");
    }
  }
  if (o->file.empty()) return usage_error("parts needs a FILE (- for standard input)");
  if (o->all_leaves && !o->extract_dir.empty()) return usage_error("--all-leaves lists only; no --extract with it");
  return 0;
}

}  // namespace

int cmd_parts(const std::vector<std::string>& args) {
  PartsOptions o;
  if (int rc = parse_args(args, &o)) return rc;
  const MIME_DECODE* preset = decode_preset(o.preset_name);
  if (preset == nullptr) return usage_error("unknown preset '" + o.preset_name + "'");
  if (int rc = load_type_tables(o.magic_file, o.mime_types_file)) return rc;
  auto message = read_message(o.file);
  if (!message) return 2;
  Extractor extractor;
  if (!o.extract_dir.empty() && !extractor.open_dir(o.extract_dir)) return 2;

  MIME_DECODE ctx = *preset;
  if (o.decode_level >= 0) ctx.decode_level = o.decode_level;
  if (o.auto_convert >= 0) ctx.auto_convert = o.auto_convert;
  mime_decode_init(&ctx, message->bytes.data(), message->size(), o.file.c_str(), nullptr);
  mime_decode_run(&ctx);
  Walk walk{message->bytes.data(), static_cast<size_t>(message->size()), o,
            o.extract_dir.empty() ? nullptr : &extractor};
  bool ok = walk.visit(&ctx.result.me_node);
  mime_decode_shutdown(&ctx);
  return ok ? 0 : 2;
}

}  // namespace tarntool
