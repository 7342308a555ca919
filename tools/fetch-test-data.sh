#!/usr/bin/env bash
# Unpacks Debian's apache2 package (without installing it) for the magic
# file it carries, which the content-type tests load as a real-world magic
# file.  Prints the path of that file, or nothing when it cannot be had.
set -u
dest=${1:?usage: fetch-test-data.sh DIR}
magic="$dest/apache2/etc/apache2/magic"
if [ ! -f "$magic" ]; then
  mkdir -p "$dest/deb"
  (
    cd "$dest/deb" || exit 1
    apt-get download apache2 >/dev/null 2>&1 ||
      { apt-get update -qq >/dev/null 2>&1 && apt-get download apache2 >/dev/null 2>&1; }
  )
  deb=$(ls "$dest"/deb/apache2_*.deb 2>/dev/null | head -n 1)
  [ -n "$deb" ] && dpkg -x "$deb" "$dest/apache2" >/dev/null 2>&1
fi
[ -f "$magic" ] && echo "$magic"
exit 0
