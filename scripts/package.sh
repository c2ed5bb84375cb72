#!/usr/bin/env bash
# Builds the two Debian packages (tarvoqc, tarvoqc-gui) from a finished release build and
# proves them: lintian finds no error and no warning; both install into an empty root; there
# `man tarvoqc-check` works, the command-line package needs no Qt, the installed checker
# checks a clip with its installed worker, and an installed program, run as root and as
# another user, keeps its settings and daily log in that user's folder, never beside itself.
#   scripts/package.sh [BUILD]     (default build/release; the packages go to BUILD/packages)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$(cd "${1:-$root/build/release}" && pwd)
out=$build/packages
fail() { echo "package.sh: $*" >&2; exit 1; }

cmake --build "$build" --target tarvoqc_package_files -j "$(nproc)" >/dev/null
rm -rf "$out" && mkdir -p "$out"
(cd "$build" && cpack -G DEB -B "$out" >/dev/null)
rm -rf "$out/_CPack_Packages"
mapfile -t debs < <(ls "$out"/*.deb)
[[ ${#debs[@]} -eq 2 ]] || fail "expected two packages, got: ${debs[*]}"
cli=$(ls "$out"/tarvoqc_*.deb)
echo "Packages: ${debs[*]##*/}"

# Errors and warnings fail; lintian's information and pedantic notes are shown.
lintian --fail-on error,warning --display-info "${debs[@]}"
echo "lintian: no error, no warning"

appstreamcli validate --no-net --pedantic "$build/packaging/tarvoqc.metainfo.xml" >/dev/null ||
    fail "the AppStream description does not validate"

dpkg-deb -f "$cli" Depends | grep -qi 'qt' && fail "the tarvoqc package depends on Qt"

tmp=$(mktemp -d)
chmod 755 "$tmp" # another user reaches their home folder below it
trap 'rm -rf "$tmp"' EXIT
target=$tmp/root
mkdir -p "$target/var/lib/dpkg/info" "$target/var/lib/dpkg/updates"
touch "$target/var/lib/dpkg/status"
# The dependencies (FFmpeg, Qt) are those of this machine, not of the empty root.
not_root=()
[[ $(id -u) -eq 0 ]] || not_root=(--force-not-root)
dpkg --root="$target" --force-depends --force-script-chrootless "${not_root[@]}" -i "${debs[@]}" >/dev/null 2>&1 ||
    fail "dpkg could not install the packages into an empty root"
for program in tarvoqc tarvoqc-check tarvoqc-report tarvoqc-watch tarvoqc-watchd; do
    [[ -x $target/usr/bin/$program ]] || fail "$program is not installed"
    page=$(MANPATH=$target/usr/share/man man -P cat "$program" 2>/dev/null) || true
    grep -q "${program}" <<<"$page" || fail "man $program shows no page"
done
page=$(MANPATH=$target/usr/share/man man -P cat tarvoqc-check 2>/dev/null) || true
grep -q -- '--files-from' <<<"$page" || fail "man tarvoqc-check lacks --files-from"
[[ -f $target/usr/lib/systemd/user/tarvoqc-watch.service ]] || fail "no systemd user unit"
if ldd "$target/usr/bin/tarvoqc-check" "$target/usr/bin/tarvoqc-watchd" | grep -qi 'libQt'; then
    fail "a program of the tarvoqc package links Qt"
fi

clip=$tmp/clip.mp4
ffmpeg -v error -f lavfi -i testsrc=duration=1:size=160x120:rate=25 -c:v mpeg4 "$clip"
# Output is taken whole before it is searched: grep -q leaves at its first match, and the
# checker rightly fails a write into the pipe it closed.
checked=$("$target/usr/bin/tarvoqc-check" -l3 "$clip") || true
grep -q '^5/5 OK' <<<"$checked" ||
    fail "the installed checker did not check a clip with its installed worker"
listed=$("$target/usr/bin/tarvoqc-check" --list-profiles) || true
grep -q '^ebu-r128-hd ' <<<"$listed" ||
    fail "the installed checker does not find the shipped delivery profiles"

# The installed programs, seen where packages put them (/usr/local here, in a mount
# namespace of their own), as root and as nobody: each keeps its settings and log in its
# own folder under XDG_CONFIG_HOME, and the program folder stays untouched.
if unshare -m --propagation private true 2>/dev/null; then
    for user in root nobody; do
        home=$tmp/home-$user
        mkdir -p "$home"
        [[ $user == root ]] || chown nobody "$home"
        run=(env -i PATH=/usr/bin:/bin HOME="$home")
        [[ $user == root ]] || run=(setpriv --reuid=nobody --regid=nogroup --clear-groups "${run[@]}")
        unshare -m --propagation private sh -c \
            'mount --bind "$1/usr" /usr/local && shift && exec "$@" /usr/local/bin/tarvoqc-watchd --once' \
            sh "$target" "${run[@]}" 2>/dev/null
        ls "$home/.config/TarvoQC/LogsQC/"QC*.log >/dev/null 2>&1 ||
            fail "as $user the daily log is not in ~/.config/TarvoQC/LogsQC"
        [[ -e $target/usr/bin/LogsQC || -e $target/usr/bin/TarvoQC.ini ]] &&
            fail "as $user the settings went beside the program"
        echo "settings as $user: $home/.config/TarvoQC/"
    done
else
    echo "package.sh: no mount namespace here; the settings location is left to the unit tests"
fi
echo "package.sh: both packages install and work"
