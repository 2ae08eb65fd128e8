#!/usr/bin/env bash
# Installs the build into a scratch prefix (DESTDIR) and runs the installed programs from there on a
# scratch data library, then builds the Debian package and checks what it holds. Run by ctest as
#   install_test.sh <build folder>
# The installed programs find their model only in the prefix they were installed to.
set -euo pipefail
build=$1
scratch=$(mktemp -d "${TMPDIR:-/tmp}/tesselune-install.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
failures=0
check() {  # check <what> <command...>
  local what=$1
  shift
  if "$@" >"$scratch/out" 2>&1; then
    echo "ok: $what"
  else
    echo "FAILED: $what"
    sed 's/^/    /' "$scratch/out"
    failures=$((failures + 1))
  fi
}

root=$scratch/root
DESTDIR=$root cmake --install "$build" --prefix /usr >/dev/null
usr=$root/usr
for file in bin/tesselune-store libexec/tesselune/tesselune-store-support \
  share/tesselune/Tesselune.xcdatamodeld/Tesselune.xcdatamodel/contents \
  share/man/man1/tesselune-store.1.gz share/man/man1/tesselune-store-support.1.gz \
  share/bash-completion/completions/tesselune-store \
  share/dbus-1/interfaces/org.tesselune.StoreSupport.xml \
  share/doc/tesselune/README.md share/doc/tesselune/CHANGELOG.md share/doc/tesselune/copyright; do
  check "installed $file" test -s "$usr/$file"
done

# The installed programs, on a scratch library, with no resource folder named in the environment.
export XDG_DATA_HOME=$scratch/data HOME=$scratch
unset TESSELUNE_RESOURCES DISPLAY WAYLAND_DISPLAY
version=$(sed -n 's/^project(tesselune .*VERSION \([0-9.]*\).*/\1/p' "$(dirname "$0")/../../CMakeLists.txt")
check "tesselune-store --version names $version" \
  sh -c "'$usr/bin/tesselune-store' --version | grep -qx 'tesselune-store $version'"
check "tesselune-store-support --version names $version" \
  sh -c "'$usr/libexec/tesselune/tesselune-store-support' --version | grep -qx 'tesselune-store-support $version'"
check "installed tesselune-store makes a demo store" \
  "$usr/bin/tesselune-store" demo --chromatograms 1 --searches 1 --spectra 20
check "installed tesselune-store-support deletes what is marked" \
  env QT_QPA_PLATFORM=offscreen DBUS_SESSION_BUS_ADDRESS=unix:path=$scratch/no-bus \
  "$usr/libexec/tesselune/tesselune-store-support"
check "nothing is marked after the run" sh -c "'$usr/bin/tesselune-store' status | grep -q 'Marked for deletion: none'"
check "a deletion report was left" sh -c "'$usr/bin/tesselune-store' report | grep -q 'objects deleted'"
check "the store checks out" "$usr/bin/tesselune-store" verify

# Manual pages render, and say what --help says.
for page in tesselune-store tesselune-store-support; do
  check "man -l $page.1" sh -c "MANWIDTH=100 man -l '$usr/share/man/man1/$page.1.gz' > '$scratch/$page.txt'"
done
check "the page of tesselune-store lists its subcommands" \
  sh -c "grep -q 'verify' '$scratch/tesselune-store.txt' && grep -q 'inspect' '$scratch/tesselune-store.txt'"
check "the page of tesselune-store-support names the signal" \
  grep -q 'remoteObjectsDelete' "$scratch/tesselune-store-support.txt"

# Completion: subcommands and the store's entities.
check "completion offers subcommands" bash -c "
  source '$usr/share/bash-completion/completions/tesselune-store'
  COMP_WORDS=('$usr/bin/tesselune-store' ve); COMP_CWORD=1; _tesselune_store
  [[ \" \${COMPREPLY[*]} \" == *' verify '* ]]"
check "completion offers the store's entities" bash -c "
  source '$usr/share/bash-completion/completions/tesselune-store'
  COMP_WORDS=('$usr/bin/tesselune-store' mark Chrom); COMP_CWORD=2; _tesselune_store
  [[ \" \${COMPREPLY[*]} \" == *' Chromatogram '* ]]"

# The package: its control fields and the files it holds.
(cd "$build" && cpack -G DEB -B "$scratch/package" >"$scratch/cpack.log" 2>&1) || {
  echo "FAILED: cpack"
  sed 's/^/    /' "$scratch/cpack.log"
  exit 1
}
deb=$(ls "$scratch"/package/*.deb)
check "package is named tesselune-store" sh -c "dpkg-deb --field '$deb' Package | grep -qx tesselune-store"
check "package depends on the Qt and SQLite libraries" \
  sh -c "dpkg-deb --field '$deb' Depends | grep -q libqt6widgets6 && dpkg-deb --field '$deb' Depends | grep -q libsqlite3"
dpkg-deb --contents "$deb" | awk '{print $6}' >"$scratch/contents"
for file in ./usr/bin/tesselune-store ./usr/libexec/tesselune/tesselune-store-support \
  ./usr/share/man/man1/tesselune-store.1.gz ./usr/share/doc/tesselune/copyright \
  ./usr/share/tesselune/Tesselune.xcdatamodeld/Tesselune.xcdatamodel/contents; do
  check "package holds $file" grep -qx "$file" "$scratch/contents"
done

exit $((failures > 0))
