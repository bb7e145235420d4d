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

# make_venv <directory> <requirements file>: a virtual environment with what the file wants.
make_venv() {
  cmp -s "$2" "$1/requirements.txt" && return
  say "making $1"
  rm -rf "$1"
  /usr/bin/python3 -m venv "$1" || fail "python3 cannot make a virtual environment"
  "$1/bin/pip" install -q --disable-pip-version-check -r "$2" || fail "pip cannot install $2"
  cp "$2" "$1/requirements.txt"
}

# build <preset> [cmake option]...
build() {
  local preset=$1
  shift
  say "building $preset"
  cmake --preset "$preset" "$@" > "build/$preset.log" 2>&1 || { cat "build/$preset.log"; fail "cmake failed"; }
  cmake --build --preset "$preset"
}

# install_kest <virtual environment>: installs the Python package; what builds it is there.
install_kest() {
  say "building and installing the package"
  "$1/bin/pip" install -q --disable-pip-version-check --no-build-isolation --no-deps --force-reinstall ./python
}

# build_operators <suffix of directories and requirements>: build/venv-tensorflow gets a TensorFlow and the Python
# package, build/tensorflow the operators for them.
build_operators() {
  local venv=build/venv-tensorflow$1 build=build/tensorflow$1
  install_packages "${compiler_packages[@]}" python3 python3-venv python3-dev
  make_venv "$venv" "integrations/tensorflow/requirements$1.txt"
  install_kest "$venv"
  say "building the operators, $(grep tensorflow "$venv/requirements.txt")"
  cmake -S integrations/tensorflow -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DPython3_EXECUTABLE="$root/$venv/bin/python" > "$build.log" 2>&1 || { cat "$build.log"; fail "cmake failed"; }
  cmake --build "$build" --target kest_ops
}

compiler_packages=(g++ cmake ninja-build)
test_packages=(libgtest-dev pkg-config binutils python3 python3-venv)
mkdir -p build
