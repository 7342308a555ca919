// The saved parts of a rendered page, laid out so that the page's links
// resolve as plain relative file links.
//
// The display engine saves a part as PREFIX ID.EXT in its download
// directory, but links to it as CGIPATH/PREFIX ID.EXT/NAME: the last path
// element is the part's own name, which a download program would ignore
// and a browser offers when the file is saved.  Viewed from disk, that
// link needs a directory PREFIX ID.EXT holding the part under NAME.  So the
// engine saves into a private staging directory inside the parts
// directory, and PartsLayout then links each staged file into
//     PARTS/PREFIX ID.EXT/SAFE-NAME   (the engine's links: images, cid: and
//                                     Content-Location references)
//     PARTS/PREFIX ID.EXT'/LIST-NAME  (the attachment list of the header
//                                     form, which names the part by its
//                                     name without direction overrides)
// where the second is made only when it differs from the first.
#ifndef TARN_TOOLS_CMD_RENDER_PARTS_H
#define TARN_TOOLS_CMD_RENDER_PARTS_H

#include <string>

#include "tarnmail.h"

namespace tarntool {

class PartsLayout {
 public:
  PartsLayout() = default;
  ~PartsLayout();
  PartsLayout(const PartsLayout&) = delete;
  PartsLayout& operator=(const PartsLayout&) = delete;

  // Creates the parts directory (and its parents) and a fresh staging
  // directory inside it.  False after a one-line error.
  bool open(const std::string& parts_dir);

  // Path of the staging directory, as the engine's download directory.
  const std::string& staging() const { return staging_; }

  // Links every staged part of the tree into its place.  A name already
  // present is kept as it is: a second rendering of a stored message
  // writes nothing new.  False after an error message when a part could
  // not be placed (the others still are).
  bool place(ME* root, const std::string& prefix);

 private:
  bool place_one(ME* me, const std::string& prefix);
  bool link_into(const std::string& staged, const std::string& dir, const std::string& name);

  std::string parts_;
  std::string staging_;
  int parts_fd_ = -1;
  int staging_fd_ = -1;
};

// Whether a name can stand as one file name inside a directory.
bool plain_file_name(const std::string& name);

}  // namespace tarntool

#endif
