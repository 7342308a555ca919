// tarnmail: decode, inspect and render e-mail messages from the command line.

#include <cstdio>
#include <string>
#include <vector>

#include "tool.h"

namespace {

constexpr char kUsage[] =
    "usage: tarnmail COMMAND [ARGS]\n"
    "\n"
    "commands:\n"
    "  tree FILE [--preset imap|general|msgread|mailerd]\n"
    "      decode a message (\"-\": standard input) and print its entity tree\n"
    "  parts FILE [--preset imap|general|msgread|mailerd] [--extract DIR]\n"
    "             [--magic FILE] [--mime-types FILE]\n"
    "      decode a message (default preset msgread) and list its named parts,\n"
    "      one line each, tab-separated: file id, name, content type, decoded\n"
    "      size, SHA-256 of the decoded bytes; --extract writes them into DIR\n"
    "      (a name already there becomes \"NAME (2).EXT\", ...); --magic and\n"
    "      --mime-types choose the type tables (default: the installed ones)\n"
    "  render FILE [--preset NAME] [-o OUT.html] [--download-dir DIR]\n"
    "              [--forms DIR] [--show-images] [--preset-flags]\n"
    "      decode a message and write it as a complete UTF-8 HTML page (to\n"
    "      standard output without -o); its parts are saved into DIR (default:\n"
    "      \"parts\" beside the page) and linked relative to the page.  NAME is\n"
    "      a display context: mailread (default), msgread, imap, downfile,\n"
    "      mailprn, mailsend, html_inc, html_fwd, html_reply, html_draft,\n"
    "      text_inc, text_fwd, text_reply, text_draft, imode, wap, show_html,\n"
    "      show_syslog, mailhdr.  msgread decodes as msgreadME (TNEF\n"
    "      attachments expanded), every other one as generalME.  The page\n"
    "      runs no script and loads nothing from other sites: scripts,\n"
    "      objects, embeds, XML islands and refreshes are removed from HTML\n"
    "      bodies and remote pictures blocked (--show-images lets them in);\n"
    "      --preset-flags renders with the context's own switches as they\n"
    "      stand.  Forms come from --forms DIR, else the installed ones, else\n"
    "      the source tree's\n"
    "  hdr FILE [--raw]\n"
    "      print the header record of a message: filled from the decoded\n"
    "      message, with a plain-text preview of its body, or with --raw\n"
    "      parsed from the raw header text alone\n"
    "  mbox create USER MBOX | append USER MBOX FILE | list USER MBOX\n"
    "       | move USER SRC DST MSGID\n"
    "      a user's mailboxes under QUILLNET_ROOT: make one, store a message\n"
    "      (prints its id), list the index (tab-separated: id, flags, size,\n"
    "      time, sender or recipient, nickname, subject), move a message and\n"
    "      refresh its index record\n"
    "  rcpt TEXT [--charset N] [--domain D]\n"
    "      parse a recipient text (\"-\": standard input) as the compose page\n"
    "      does and print one entry per line, tab-separated: type, name,\n"
    "      address; then the list's base64 form; --charset gives the text's\n"
    "      charset (a MIME charset value or name), --domain completes bare\n"
    "      names with \"@D\"\n";

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fputs(kUsage, stderr);
    return 2;
  }
  std::string command = argv[1];
  std::vector<std::string> args(argv + 2, argv + argc);
  if (command == "tree") return tarntool::cmd_tree(args);
  if (command == "parts") return tarntool::cmd_parts(args);
  if (command == "mbox") return tarntool::cmd_mbox(args);
  if (command == "render") return tarntool::cmd_render(args);
  if (command == "hdr") return tarntool::cmd_hdr(args);
  if (command == "rcpt") return tarntool::cmd_rcpt(args);
  if (command == "-h" || command == "--help" || command == "help") {
    fputs(kUsage, stdout);
    return 0;
  }
  fprintf(stderr, "tarnmail: unknown command '%s'\n", command.c_str());
  fputs(kUsage, stderr);
  return 2;
}
