# Sourced by run and test, from the project's folder: brings the packages and builds. All progress
# goes to standard error.

# install_missing PACKAGE...: those that are missing.
install_missing() {
  local missing=()
  local package
  for package in "$@"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
      missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "Installing ${#missing[@]} packages: ${missing[*]}" >&2
  local sudo=
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -q >&2 </dev/null
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
    "${missing[@]}" >&2 </dev/null
}

# install_packages FILE...: those that the files list.
install_packages() {
  install_missing $(grep -hv '^#' "$@")
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
