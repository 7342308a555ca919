// libFuzzer entry point for the TNEF reader: the input is parsed as a
// stream and as a bare property block, and every record is asked for its
// name and charset.  Build (for example):
//   clang++ -std=c++20 -g -fsanitize=fuzzer,address,undefined -Iinclude -Imime \
//     fuzz/fuzz_tnef.cpp mime/mime_tnef_*.cpp platform/*.cpp -o fuzz_tnef
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "mime_tnef_internal.h"
#include "tarnmail.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exactly sized copy: the reader takes a writable buffer, and the
  // sanitizer sees any read past its end.
  std::vector<char> buf(data, data + size);
  char* p = buf.empty() ? nullptr : buf.data();
  const unsigned len = static_cast<unsigned>(size);

  int status = 0;
  TNEF_Attach* list = MLC_TNEFParse(p, len, &status);
  for (TNEF_Attach* rec = list; rec != nullptr; rec = rec->pstNext) {
    char name[256];
    int utf8 = 0;
    MLC_TNEFFilename(rec, name, sizeof name, &utf8);
    char charset[32];
    MLC_TNEFCharset(rec, charset, sizeof charset);
  }
  MLC_TNEFFree(list);

  TNEF_MAPI_t block{};
  MLC_MAPIPropsParse(p, len, &block, 0);
  tnef::mapi_free(&block);

  s_UTF16XUTF8(len, p);
  return 0;
}
