#!/bin/bash
# The emulated machine's init: runs the suite, leaves ctest's logs and status on the third disk, and
# switches the machine off. Called by arm64_initrd.sh with the project's disk in its place.
set -e
trap 'sync; busybox poweroff -f' EXIT
export PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin HOME=/root LANG=C.UTF-8 CLICOLOR=0
mount -t devtmpfs dev /dev
mkdir -p /dev/pts /dev/shm
mount -t devpts -o gid=5,mode=620,ptmxmode=666 devpts /dev/pts
mount -t proc proc /proc
mount -t sysfs sys /sys
for folder in /dev/shm /run /tmp; do
  mount -t tmpfs -o mode=1777 tmpfs $folder
done
ln -s /proc/self/fd /dev/fd
modprobe fuse
busybox ip link set lo up
hostname arm64
cd "$(dirname "$(readlink -f "$0")")/.."

cat <<END
$(uname -srm), $(nproc) processors, emulated
Left out, because they are the building machine's work and are tested there: lint, package (packs what was
built), page (a browser's), phone_build (compiles), station_plan (a station's, which judges times)
END
eval "options=($(cat build/arm64/ctest_options))"
# At most 40 minutes: ctest says which tests it did not come to, and fails.
stop=$(date -d '+40 minutes' +%T)
ctest --test-dir build/arm64 --output-on-failure --stop-time "$stop" \
  -E '^(lint|package|page|phone_build|station_plan)$' -j "$(nproc)" "${options[@]}" &&
  status=0 || status=$?
echo $status >build/arm64/Testing/status
tar -c -f /dev/vdc -C build/arm64/Testing .
