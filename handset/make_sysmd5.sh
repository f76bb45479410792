#!/bin/sh
# Makes the archive of reference checksums that a phone's build puts into /system/sysmd5.zip.
# usage: make_sysmd5.sh FOLDER ARCHIVE, FOLDER holding the trees system/ and vendor/.
set -eu
export LC_ALL=C
archive=$(realpath -m "$2")
cd "$1"
build_time=$(grep utc system/build.prop | cut -b 19-)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
checksum() {
  find "$1/" -type f | grep -v sysmd5.zip | sort | xargs md5sum | md5sum | cut -b -32
}
echo "$build_time,$(checksum system)" >"$work/deep_sys_md5.txt"
echo "$build_time,$(checksum vendor)" >"$work/deep_vendor_md5.txt"
rm -f "$archive"
zip -jq "$archive" "$work/deep_sys_md5.txt" "$work/deep_vendor_md5.txt"
