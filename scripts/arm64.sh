#!/usr/bin/env bash
# Builds daemon, handset and tests for Debian's arm64, boots Debian's arm64 kernel in an emulated machine
# and runs the suite there. Ends with ctest's summary and status. ./test arm64 calls it.
#
#   scripts/arm64.sh [CTEST OPTION...]     e.g. -R transcript_
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/build.sh
PATH=$PATH:/usr/sbin:/sbin

folder=build/arm64
tree=$folder/tree    # Debian's arm64: what is built against, and the emulated machine's root
guest=$folder/guest  # disks, and what the emulated machine hands back

# The libraries, and what running the tests takes, beside the essential packages.
tree_packages() {
  echo busybox-static cmake kmod libc6-dev libstdc++-12-dev linux-image-arm64 mount
  grep -E '^(lib.*|android-.*)-dev$' packages.txt
  grep -hE '^(checkpolicy|python3|python3-jsonschema|python3-pytest|python3-serial|file|socat|unzip|zip)$' packages.txt packages-test.txt
}

# Only unpacked: no script of a package runs, so this machine need not run arm64 programs.
make_tree() {
  local packages link target
  packages=$(tree_packages | xargs | tr ' ' ,)
  [ "$(cat "$folder/tree.packages" 2>/dev/null)" != "$packages" ] || return 0
  echo "Fetching Debian's arm64 into $tree" >&2
  rm -rf "$tree" "$folder/tree.packages" "$guest" "$folder/CMakeCache.txt" "$folder/build.ninja"
  mkdir -p "$tree"
  mmdebstrap --quiet --variant=extract --arch=arm64 --include='?essential' \
    --include="$packages" --format=tar --hook-dir=/usr/share/mmdebstrap/hooks/merged-usr bookworm - |
    tar -x -C "$tree" --no-same-owner --exclude='./dev/*'
  # A link to a place of the tree is one to a place of this machine until it is relative.
  find "$tree" -type l -lname '/*' | while read -r link; do
    target=$tree$(readlink "$link")
    ln -snf "$(realpath -ms --relative-to="$(dirname "$link")" "$target")" "$link"
  done
  depmod -b "$tree" "$(kernel)"
  echo "$packages" >"$folder/tree.packages"
}

kernel() {
  basename "$tree"/lib/modules/*
}

# The modules by which the machine reaches its disks, in the order in which they are loaded.
make_initrd() {
  local initrd=$guest/initrd module
  rm -rf "$initrd"
  mkdir -p "$initrd"/{bin,dev,modules,proc,root}
  cp "$tree/bin/busybox" "$initrd/bin/"
  cp scripts/arm64_initrd.sh "$initrd/init"
  modprobe -d "$tree" -S "$(kernel)" --show-depends -a virtio_pci virtio_blk ext4 |
    awk '!seen[$2]++ { print $2 }' | while read -r module; do
    cp "$module" "$initrd/modules/"
    basename "$module"
  done >"$initrd/modules/order"
  (cd "$initrd" && find . | cpio --quiet -o -H newc -R 0:0) >"$guest/initrd.cpio"
}

# make_disk NAME FOLDER MEGABYTES: a file system that holds the folder.
make_disk() {
  rm -f "$guest/$1"
  mke2fs -q -t ext4 -E root_owner=0:0 -d "$2" "$guest/$1" "${3}M" >&2
}

# The project with what was built, for the place where it is on this machine: binaries and tests name it.
make_project() {
  rm -rf "$guest/project"
  mkdir -p "$guest/project"
  tar -c --exclude='./.git' --exclude='./station/build' --exclude="./$tree" --exclude="./$guest" \
    --exclude='*.o' --exclude='*.a' \
    $(find . -maxdepth 1 -mindepth 1 ! -name build ! -name .git) "./$folder" |
    tar -x -C "$guest/project"
  printf '%q ' "$@" >"$guest/project/$folder/ctest_options"
  make_disk project.ext4 "$guest/project" 1024
}

boot() {
  truncate -s 64M "$guest/results"
  qemu-system-aarch64 -machine virt -cpu cortex-a76 -accel tcg,thread=multi -smp "$(nproc)" -m 4096 \
    -nic none -display none -monitor none -serial stdio -no-reboot \
    -kernel "$tree/boot/vmlinuz-$(kernel)" -initrd "$guest/initrd.cpio" \
    -append "console=ttyAMA0 quiet panic=-1 project=$PWD" \
    -drive "file=$guest/root.ext4,format=raw,if=virtio,snapshot=on" \
    -drive "file=$guest/project.ext4,format=raw,if=virtio,snapshot=on" \
    -drive "file=$guest/results,format=raw,if=virtio" </dev/null |
    sed -u 's/\r$//; /reboot: Power down/d'
}

install_packages packages.txt packages-test.txt
install_missing cpio e2fsprogs g++-aarch64-linux-gnu kmod mmdebstrap qemu-system-arm
mkdir -p "$folder"
make_tree
build arm64
mkdir -p "$guest"
[ -e "$guest/root.ext4" ] || make_disk root.ext4 "$tree" 2048
make_initrd
make_project "$@"
rm -f "$guest/results" "$guest/status"
boot
# The machine leaves an archive on its third disk: ctest's logs, and its status.
tar -x -C "$guest" -f "$guest/results" 2>/dev/null || true
exit "$(cat "$guest/status" 2>/dev/null || echo 1)"
