#!/usr/bin/env bash
# Makes the packages of a Linux and a Windows build and checks them the way a user meets
# them: the Debian packages' metadata and files, then print_version built against the
# unpacked packages with pkg-config and with CMake's find_package and run against the
# unpacked library; the Windows zip's files, and print_version built against the unpacked
# zip and run under wine.
# Usage: scripts/package_check.sh [linux build folder] [windows build folder], both built.
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD
linux_build=$(realpath "${1:-build/linux}")
windows_build=$(realpath "${2:-build/windows}")
export WINEDEBUG=${WINEDEBUG:--all}
wine=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$linux_build/CMakeCache.txt")
major=${version%%.*}
arch=$(dpkg --print-architecture)
runtime_pkg=libtovra$major

passed=0
failed=0

fail() {
  echo "FAIL: $1"
  failed=$((failed + 1))
}

# expect WHAT COMMAND...: one check; the command's own output is shown only if it fails.
expect() {
  local what=$1 out
  shift
  if out=$("$@" 2>&1); then
    passed=$((passed + 1))
  else
    fail "$what"
    printf '%s\n' "$out" | tail -n 40
  fi
}

die() {
  fail "$1"
  echo "package check: $passed passed, $failed failed"
  exit 1
}

# Files a build installs for one component under prefix /usr, as "./usr/bin/x"; none for
# a component without install rules. DESTDIR keeps even absolute destinations in scratch.
component_files() {
  local root=$scratch/probe/$(basename "$1")-$2
  DESTDIR=$root cmake --install "$1" --component "$2" --prefix /usr >/dev/null
  if [[ -d $root ]]; then
    (cd "$root" && find . ! -type d | sort)
  fi
}

make_packages() { # build folder, output folder
  mkdir -p "$2"
  (cd "$1" && cpack -B "$2" >"$2.log" 2>&1) || { cat "$2.log"; die "cpack in $1"; }
}

# One line per entry, "./usr/lib/x" or "./usr/lib/x -> target".
deb_entries() {
  dpkg-deb -c "$1" | awk '{ $1 = $2 = $3 = $4 = $5 = ""; sub(/^ +/, ""); print }'
}

has_entries() { # listing file, entries...
  local listing=$1 missing=0
  shift
  for entry in "$@"; do
    grep -qxF -- "$entry" "$listing" || { echo "missing: $entry"; missing=1; }
  done
  return $missing
}

lacks_entries_matching() { # listing file, extended regex
  ! grep -E -- "$2" "$1"
}

field_is() { # deb, field, value
  local actual
  actual=$(dpkg-deb -f "$1" "$2")
  [[ $actual == "$3" ]] || { echo "$2: '$actual', not '$3'"; return 1; }
}

field_has() { # deb, field, fragment
  local actual
  actual=$(dpkg-deb -f "$1" "$2")
  [[ $actual == *"$3"* ]] || { echo "$2: '$actual' has no '$3'"; return 1; }
}

check_common_fields() { # deb, package name, section
  local deb=$1 name=$2
  expect "$name: name" field_is "$deb" Package "$name"
  expect "$name: version from project()" field_is "$deb" Version "$version"
  expect "$name: architecture" field_is "$deb" Architecture "$arch"
  expect "$name: section" field_is "$deb" Section "$3"
  expect "$name: maintainer with an address" field_has "$deb" Maintainer "@"
  expect "$name: a synopsis and a long description" \
    test "$(dpkg-deb -f "$deb" Description | wc -l)" -ge 2
}

check_runtime_deb() {
  local deb=$1 listing=$scratch/runtime.list
  deb_entries "$deb" >"$listing"
  check_common_fields "$deb" "$runtime_pkg" libs
  expect "$runtime_pkg: depends on the C library" field_has "$deb" Depends "libc6 ("
  expect "$runtime_pkg: depends on the C++ library" field_has "$deb" Depends "libstdc++6 ("
  expect "$runtime_pkg: library under its SONAME, device libraries" has_entries "$listing" \
    "./usr/lib/libtovra.so.$version" "./usr/lib/libtovra.so.$major -> libtovra.so.$version" \
    ./usr/lib/libzkcom.so ./usr/lib/libzkudp.so
  expect "$runtime_pkg: no development files" \
    lacks_entries_matching "$listing" '^\./usr/(include/|lib/libtovra\.so( |$)|lib/(cmake|pkgconfig)/)'
  expect "$runtime_pkg: shlibs entry for dependent packages" \
    test "$(dpkg-deb -I "$deb" shlibs)" = "libtovra $major $runtime_pkg (>= $version)"
}

check_dev_deb() {
  local deb=$1 listing=$scratch/dev.list
  deb_entries "$deb" >"$listing"
  check_common_fields "$deb" libtovra-dev libdevel
  expect "libtovra-dev: depends on the same version of $runtime_pkg" \
    field_has "$deb" Depends "$runtime_pkg (= $version)"
  expect "libtovra-dev: headers, link, CMake and pkg-config files" has_entries "$listing" \
    ./usr/include/tovra/tovra.h ./usr/include/tovra/version.h ./usr/include/tovra/zk_parameter.h \
    ./usr/include/tovra/device/zkcom.h "./usr/lib/libtovra.so -> libtovra.so.$major" \
    ./usr/lib/cmake/tovra/tovraConfig.cmake ./usr/lib/cmake/tovra/tovraConfigVersion.cmake \
    ./usr/lib/cmake/tovra/tovraTargets.cmake ./usr/lib/pkgconfig/tovra.pc
}

check_tools_deb() { # deb, files of the tools component
  local deb=$1 listing=$scratch/tools.list
  deb_entries "$deb" | sed 's/ -> .*//' >"$listing"
  check_common_fields "$deb" tovra-tools utils
  expect "tovra-tools: depends on $runtime_pkg" field_has "$deb" Depends "$runtime_pkg (= $version)"
  expect "tovra-tools: every file of the tools component" has_entries "$listing" $2
  expect "tovra-tools: the command-line tool and the Wireshark dissector" has_entries "$listing" \
    ./usr/bin/tovra "./usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/wireshark/plugins/tovra.lua"
}

expected_debs() {
  echo "libtovra-dev_${version}_$arch.deb"
  echo "${runtime_pkg}_${version}_$arch.deb"
  echo "tovra-tools_${version}_$arch.deb"
}

check_debs() {
  local out=$scratch/deb tools
  tools=$(component_files "$linux_build" tools)
  make_packages "$linux_build" "$out"
  expect "Debian packages: exactly one per component" \
    diff <(expected_debs | sort) <(cd "$out" && ls -- *.deb | sort)
  [[ -f $out/${runtime_pkg}_${version}_$arch.deb ]] || die "no $runtime_pkg package to check"
  check_runtime_deb "$out/${runtime_pkg}_${version}_$arch.deb"
  check_dev_deb "$out/libtovra-dev_${version}_$arch.deb"
  check_tools_deb "$out/tovra-tools_${version}_$arch.deb" "$tools"
  expect "Debian packages: no file in two packages" no_shared_files "$out"/*.deb
  for deb in "$out"/*.deb; do
    dpkg -x "$deb" "$scratch/root"
  done
}

# dpkg refuses to install a package whose files another installed package owns.
no_shared_files() { # debs...
  local shared
  shared=$(for deb in "$@"; do dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { print $6 }'; done | sort | uniq -d)
  [[ -z $shared ]] || { echo "$shared"; return 1; }
}

paths_are() { # expected prefix, include folder, library folder
  [[ $(realpath -m "$2") == "$1/include" && $(realpath -m "$3") == "$1/lib" ]] ||
    { echo "includedir $2, libdir $3"; return 1; }
}

build_consumer() { # build folder, CMake options...
  local out=$1
  shift
  cmake -S "$source_dir/examples/consumer" -B "$out" -G Ninja "$@" && cmake --build "$out"
}

prints_version() { # command...
  local out
  out=$("$@" | tr -d '\r')
  [[ $out == "tovra $version" ]] || { echo "printed '$out', not 'tovra $version'"; return 1; }
}

# The program must find libtovra in the unpacked root, not somewhere on the system.
runs_against_unpacked() { # program
  local root=$scratch/root/usr loaded
  loaded=$(LD_LIBRARY_PATH=$root/lib ldd "$1")
  grep -F "libtovra.so.$major => $root/lib/libtovra.so.$major " <<<"$loaded" >/dev/null ||
    { echo "$loaded"; return 1; }
  prints_version env LD_LIBRARY_PATH="$root/lib" "$1"
}

build_with_pkg_config() {
  local out=$scratch/pkg-config-linux
  export PKG_CONFIG_LIBDIR=$scratch/root/usr/lib/pkgconfig PKG_CONFIG_PATH=
  mkdir -p "$out"
  expect "pkg-config: version $version" test "$(pkg-config --modversion tovra)" = "$version"
  expect "pkg-config: headers and library inside the unpacked root" \
    paths_are "$scratch/root/usr" "$(pkg-config --variable=includedir tovra)" \
      "$(pkg-config --variable=libdir tovra)"
  # Cross builds point PKG_CONFIG_SYSROOT_DIR at the target's root.
  expect "pkg-config: a sysroot leaves the paths inside the unpacked root" \
    paths_are "$scratch/root/usr" \
      "$(PKG_CONFIG_SYSROOT_DIR=$scratch/root pkg-config --variable=includedir tovra)" \
      "$(PKG_CONFIG_SYSROOT_DIR=$scratch/root pkg-config --variable=libdir tovra)"
  expect "pkg-config: print_version builds" \
    cc "$source_dir/examples/print_version.c" $(pkg-config --cflags --libs tovra) -o "$out/print_version"
  unset PKG_CONFIG_LIBDIR PKG_CONFIG_PATH
  if [[ -x $out/print_version ]]; then
    expect "pkg-config: print_version runs against the unpacked library" \
      runs_against_unpacked "$out/print_version"
  fi
}

build_with_find_package() {
  local out=$scratch/cmake-linux
  expect "find_package: print_version builds" build_consumer "$out" \
    -DCMAKE_PREFIX_PATH="$scratch/root/usr" -DCMAKE_SKIP_BUILD_RPATH=ON
  expect "find_package: finds the unpacked tovra" \
    grep -qxF "tovra_DIR:PATH=$scratch/root/usr/lib/cmake/tovra" "$out/CMakeCache.txt"
  if [[ -x $out/print_version ]]; then
    expect "find_package: print_version runs against the unpacked library" \
      runs_against_unpacked "$out/print_version"
  fi
}

# The tool finds the library beside it, with no help from the environment.
tool_runs_unpacked() {
  local out
  out=$(env -u LD_LIBRARY_PATH "$scratch/root/usr/bin/tovra" version)
  [[ $out == "$version" ]] || { echo "printed '$out', not '$version'"; return 1; }
}

zip_has_entries() { # listing file, paths below the archive's top folder...
  local listing=$1 top=tovra-$version-win64
  shift
  has_entries "$listing" $(printf "$top/%s\n" "$@")
}

# A Windows program finds DLLs on PATH: wine's is WINEPATH.
build_and_run_on_windows() { # unpacked archive
  local out=$scratch/cmake-windows
  expect "Windows find_package: print_version builds" build_consumer "$out" \
    -DCMAKE_TOOLCHAIN_FILE="$source_dir/cmake/mingw-w64-x86_64.cmake" -Dtovra_DIR="$1/lib/cmake/tovra"
  if [[ -f $out/print_version.exe ]]; then
    expect "Windows: print_version runs against the unpacked DLL" \
      prints_version env WINEPATH="$1/bin" timeout 120 "$wine" "$out/print_version.exe"
  fi
  timeout 60 "$wineserver" -w || true
}

check_zip() {
  local out=$scratch/zip zip=tovra-$version-win64.zip tools listing=$scratch/zip.list
  tools=$(component_files "$windows_build" tools)
  make_packages "$windows_build" "$out"
  expect "Windows: one archive, $zip" test "$(cd "$out" && ls -- *.zip)" = "$zip"
  [[ -f $out/$zip ]] || die "no $zip to check"
  cmake -E tar tf "$out/$zip" >"$listing"
  expect "Windows archive: DLLs, import library, headers, CMake and pkg-config files" \
    zip_has_entries "$listing" bin/tovra.dll bin/zkcom.dll bin/zkudp.dll lib/libtovra.dll.a \
      include/tovra/tovra.h include/tovra/version.h lib/cmake/tovra/tovraConfig.cmake \
      lib/pkgconfig/tovra.pc
  expect "Windows archive: the command-line tool, and every file of the tools component" \
    zip_has_entries "$listing" bin/tovra.exe $(sed 's|^\./usr/||' <<<"$tools")
  mkdir -p "$scratch/unzipped"
  (cd "$scratch/unzipped" && cmake -E tar xf "$out/$zip")
  build_and_run_on_windows "$scratch/unzipped/tovra-$version-win64"
}

[[ -n $version ]] || die "no project version in $linux_build"
check_debs
build_with_pkg_config
build_with_find_package
expect "tovra-tools: the unpacked tool runs against the unpacked library" tool_runs_unpacked
check_zip
echo "package check: $passed passed, $failed failed"
((failed == 0))
