# Shared by the scripts of this folder: where things are, and what has to be installed.
# shellcheck shell=bash

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root" || exit 1

say() { printf '\n== %s\n' "$*"; }
fail() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# install_packages <Debian package>...: installs those that are missing.
install_packages() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${db:Status-Status}' "$package" 2> /dev/null | grep -qx installed || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  say "installing ${missing[*]}"
  [ "$(id -u)" -eq 0 ] || fail "not root; install these Debian packages first: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q > /dev/null || fail "the package lists cannot be fetched; is a Debian mirror reachable?"
  apt-get install -yq --no-install-recommends "${missing[@]}" || fail "the packages cannot be installed"
}

# make_venv: a virtual environment in .venv with what the tests need of Python.
make_venv() {
  local wanted=$root/tests/requirements.txt
  cmp -s "$wanted" .venv/requirements.txt && return
  say "making .venv"
  rm -rf .venv
  /usr/bin/python3 -m venv .venv || fail "python3 cannot make a virtual environment"
  .venv/bin/pip install -q --disable-pip-version-check -r "$wanted" || fail "pip cannot install $wanted"
  cp "$wanted" .venv/requirements.txt
}

# build <preset> [cmake option]...
build() {
  local preset=$1
  shift
  say "building $preset"
  cmake --preset "$preset" "$@" > "build/$preset.log" 2>&1 || { cat "build/$preset.log"; fail "cmake failed"; }
  cmake --build --preset "$preset"
}

compiler_packages=(g++ cmake ninja-build)
test_packages=(libgtest-dev pkg-config binutils python3 python3-venv)
mkdir -p build
