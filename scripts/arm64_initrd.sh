#!/bin/busybox sh
# The first program of the emulated machine: finds its disks, and goes on with arm64_guest.sh.
/bin/busybox mount -t devtmpfs dev /dev
/bin/busybox mount -t proc proc /proc
while read -r module; do
  /bin/busybox insmod "/modules/$module"
done </modules/order
project=$(/bin/busybox sed -n 's/.*project=//p' /proc/cmdline)
/bin/busybox mount -t ext4 /dev/vda /root
/bin/busybox mkdir -p "/root$project"
/bin/busybox mount -t ext4 /dev/vdb "/root$project"
/bin/busybox umount /proc
exec /bin/busybox switch_root /root "$project/scripts/arm64_guest.sh"
