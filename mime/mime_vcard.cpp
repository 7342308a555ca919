// vCard display.  The card is written as its own lines, each HTML-escaped
// and ended by a line break; the vCard form is not expanded (its tags
// belong to the vCard subsystem, which builds cards from address-book
// entries and parses their fields).

#include <cstring>
#include <string>
#include <string_view>

#include "mime_disp_internal.h"

void disp_vcard(char* pszBody, char* pszForm, MIME_DISP* disp_info) {
  (void)pszForm;
  if (pszBody == nullptr || disp_info == nullptr) return;
  std::string_view rest(pszBody);
  while (!rest.empty()) {
    size_t eol = rest.find('\n');
    std::string_view line = rest.substr(0, eol);
    rest = eol == std::string_view::npos ? std::string_view() : rest.substr(eol + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    std::string text(line);
    const char* escaped = MSTR_HTMLEscape_s(text.c_str());
    MMIME_Fprintf(disp_info, "%s<br>\n", escaped != nullptr ? escaped : "");
  }
}
