#!/usr/bin/env bash
# Installs this build into a private DESTDIR with `cmake --install`, checks what landed there, builds a
# small application against the installed tree with pkg-config only (shared and static library), and has
# it search against a vorlend of the same tree that uses the reference service on loopback.
# usage: install_test.sh BUILD_DIR SOURCE_DIR CXX
set -euo pipefail
build=$1 source=$2 cxx=$3
work=$(mktemp -d "${TMPDIR:-/tmp}/vorlen-install-XXXXXX")
chmod 700 "$work"
cleanup() {
  [ -n "${daemon_pid:-}" ] && kill "$daemon_pid" 2>/dev/null && wait "$daemon_pid" 2>/dev/null || true
  [ -n "${ref_pid:-}" ] && kill "$ref_pid" 2>/dev/null && wait "$ref_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "install_test: $*" >&2; exit 1; }

prefix=/opt/vorlen
root=$work/root
DESTDIR=$root cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail "cmake --install failed"; }
libdir=$(sed -n 's/^libdir=\${prefix}//p' "$build/dist/vorlen-client.pc")
for f in bin/vorlend bin/vorlenctl bin/vorlen-refserver "$libdir/libvorlen-client.so" "$libdir/libvorlen-client.a" \
         "$libdir/pkgconfig/vorlen-client.pc" include/vorlen/client/VorlenClient.h \
         "$libdir/systemd/user/vorlend.service" "$libdir/systemd/user/vorlend.socket" \
         share/man/man8/vorlend.8 share/man/man1/vorlenctl.1 share/doc/vorlend/README.md; do
  [ -e "$root$prefix/$f" ] || fail "not installed: $prefix/$f"
done
grep -qx "ExecStart=$prefix/bin/vorlend --idle-exit 300" "$root$prefix/$libdir/systemd/user/vorlend.service" ||
  fail "vorlend.service does not start $prefix/bin/vorlend"
# Only the client API is installed: no transport or queue header.
for internal in ipc/IpcConnection.h base/Queue.h client/VorlenClientCore.h; do
  [ ! -e "$root$prefix/include/vorlen/$internal" ] || fail "internal header installed: $internal"
done
"$root$prefix/bin/vorlenctl" --version | grep -q '^vorlenctl [0-9]' || fail "installed vorlenctl has no --version"

export PKG_CONFIG_PATH=$root$prefix/$libdir/pkgconfig PKG_CONFIG_SYSROOT_DIR=$root
app=$source/tests/install/install_search.cc
# shellcheck disable=SC2046
"$cxx" -o "$work/app-shared" "$app" $(pkg-config --cflags --libs vorlen-client) || fail "cannot build against the shared library"
# shellcheck disable=SC2046
"$cxx" -o "$work/app-static" "$app" $(pkg-config --cflags vorlen-client) "$root$prefix/$libdir/libvorlen-client.a" \
  $(pkg-config --static --libs vorlen-client | sed 's/-lvorlen-client//') || fail "cannot build against the static library"

# A daemon of the installed tree, on private folders, its bag at the reference service.
export XDG_RUNTIME_DIR=$work/run XDG_CONFIG_HOME=$work/config XDG_CACHE_HOME=$work/cache TMPDIR=$work HOME=$work
export VORLEND_SOCKET=$work/vorlend.sock
mkdir -p "$XDG_RUNTIME_DIR"
"$root$prefix/bin/vorlen-refserver" --port 0 >"$work/ref.out" 2>"$work/ref.log" &
ref_pid=$!
for _ in $(seq 1 200); do [ -s "$work/ref.out" ] && break; sleep 0.05; done
ref=$(head -n1 "$work/ref.out")
[ -n "$ref" ] || fail "vorlen-refserver did not start: $(cat "$work/ref.log")"
"$root$prefix/bin/vorlenctl" defaults write com.velmo.vorlend VORBagURL "$ref/bag" >/dev/null
"$root$prefix/bin/vorlend" 2>"$work/vorlend.log" &
daemon_pid=$!
for _ in $(seq 1 400); do grep -q "vorlend started" "$work/vorlend.log" && break; sleep 0.05; done
grep -q "vorlend started" "$work/vorlend.log" || fail "vorlend did not start: $(cat "$work/vorlend.log")"

LD_LIBRARY_PATH=$root$prefix/$libdir "$work/app-shared" "$VORLEND_SOCKET" || fail "the shared-library application got no answer"
"$work/app-static" "$VORLEND_SOCKET" || fail "the static-library application got no answer"
"$root$prefix/bin/vorlenctl" status >/dev/null || fail "vorlenctl status: the daemon is not running"
echo "install_test: ok"
