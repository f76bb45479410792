# Sourced by run and test, from the project's folder: brings the packages and builds. All progress
# goes to standard error.

# install_packages [LIST]: those of packages.txt where no list is given.
install_packages() {
  local missing=()
  local package
  while read -r package; do
    case $package in "" | \#*) continue ;; esac
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
      missing+=("$package")
  done <"${1:-packages.txt}"
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "Installing ${#missing[@]} packages: ${missing[*]}" >&2
  local sudo=
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -q >&2 </dev/null
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
    "${missing[@]}" >&2 </dev/null
}

# build PRESET [TARGET...]: shows its progress the first time and is silent afterwards. One builds at a
# time; the others wait. A folder of another user is used as it is.
build() {
  local preset=$1 folder=build/$1
  shift
  if [ -f "$folder/build.ninja" ] && [ ! -w "$folder" ]; then
    echo "$folder belongs to another user and is used as it was built" >&2
    return
  fi
  mkdir -p build
  (
    flock 9
    if [ -f "$folder/build.ninja" ]; then
      ninja -C "$folder" --quiet "$@" | sed '/^ninja: no work to do/d' >&2
    else
      echo "Setting up and building $folder" >&2
      cmake --preset "$preset" >&2
      ninja -C "$folder" "$@" >&2
    fi
  ) 9>build/lock
}
