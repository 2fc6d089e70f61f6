#!/usr/bin/env bash
# Builds the Debian package from a build tree with cpack and checks it with dpkg's own tools:
# its fields, every installed file with its mode, the programs extracted from it, the desktop
# entries (desktop-file-validate) and the man page (groff with every warning on).
# Usage: check-package.sh BUILD/CPackConfig.cmake VERSION MENUS-FOLDER
set -euo pipefail

config=$1 version=$2 menus=$3
work=$(mktemp -d /tmp/corvane-package-XXXXXX)
trap 'rm -rf "$work"' EXIT
failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

# gzip, not xz: the sanitizer build's programs are large and the contents are what is checked.
cpack --config "$config" -G DEB -B "$work/out" -D CPACK_DEBIAN_COMPRESSION_TYPE=gzip \
    >"$work/cpack.log" 2>&1 || { cat "$work/cpack.log" >&2; exit 1; }
arch=$(dpkg --print-architecture)
deb=$work/out/corvane_${version}_${arch}.deb
[[ -f $deb ]] || { echo "FAIL: no $(basename "$deb") in:" >&2; ls "$work/out" >&2; exit 1; }

# --- Fields ---
field() { dpkg-deb --field "$deb" "$1"; }
# The package names of a relationship field, one a line, without versions.
names() { field "$1" | tr ',|' '\n\n' | sed -E 's/\(.*\)//; s/^ +//; s/ +$//' | sed '/^$/d'; }
while read -r name expected; do
    [[ "$(field "$name")" == "$expected" ]] || fail "$name is '$(field "$name")', not '$expected'"
done <<EOF
Package corvane
Version $version
Architecture $arch
Section utils
EOF
while read -r relation package; do
    names "$relation" | grep -qx "$package" || fail "$relation lacks $package: $(field "$relation")"
done <<'EOF'
Depends gocryptfs
Depends fuse3
Depends lsof
Depends shared-mime-info
Depends coreutils
Depends xdg-utils
Depends libc6
Depends libqt6widgets6
Depends libqt6svg6
Recommends gnome-keyring
Suggests python3-nautilus
EOF
[[ "$(field Maintainer)" =~ ^.+\ \<.+@.+\>$ ]] || fail "Maintainer is '$(field Maintainer)'"
[[ "$(field Description | head -2)" == "lock files and folders where they stand"$'\n'" Corvane "* ]] ||
    fail "Description starts '$(field Description | head -2)'"
dpkg-deb --info "$deb" conffiles | grep -qx /etc/xdg/autostart/corvane.desktop ||
    fail "the autostart entry is not a conffile"

# --- Contents: every file, its mode and root's ownership ---
dpkg-deb --contents "$deb" | awk '{ sub(/^\./, "", $6); print $1, $2, $6 }' >"$work/contents"
expected=$(
    cat <<'EOF'
-rwxr-xr-x /usr/bin/corvane
-rwxr-xr-x /usr/bin/corvane-app
-rw-r--r-- /usr/share/applications/corvane.desktop
-rw-r--r-- /usr/share/applications/corvane-url-handler.desktop
-rw-r--r-- /etc/xdg/autostart/corvane.desktop
-rw-r--r-- /usr/share/icons/hicolor/scalable/apps/corvane.svg
-rw-r--r-- /usr/share/man/man1/corvane.1.gz
EOF
    # Whatever menus the source holds, each where its file manager reads it.
    find "$menus" -type f -name '*.py' -printf '-rw-r--r-- /usr/share/nautilus-python/extensions/%f\n' 2>/dev/null
    find "$menus" -type f -name '*.nemo_action' -printf '-rw-r--r-- /usr/share/nemo/actions/%f\n' 2>/dev/null
    find "$menus" -type f -name '*.desktop' -printf '-rwxr-xr-x /usr/share/kio/servicemenus/%f\n' 2>/dev/null
)
while read -r mode path; do
    grep -qxF -e "$mode root/root $path" "$work/contents" ||
        fail "$path with $mode root/root is not in the package: $(grep -F " $path" "$work/contents" || true)"
done <<<"$expected"
# Nothing beyond them but folders.
grep -v '^d' "$work/contents" | awk '{ print $1, $3 }' | sort >"$work/files"
sort <<<"$expected" | diff - "$work/files" >"$work/extra" || fail "unexpected files: $(cat "$work/extra")"

# --- The extracted programs run ---
dpkg-deb -x "$deb" "$work/root"
export ASAN_OPTIONS=detect_leaks=0
[[ "$("$work/root/usr/bin/corvane" --version)" == "corvane $version" ]] ||
    fail "usr/bin/corvane --version says '$("$work/root/usr/bin/corvane" --version 2>&1)'"

# --- Desktop entries ---
# Dolphin's service menus are KDE services, not applications: the validator's rules for
# applications reject the keys KIO reads there (MimeType=all/all, Actions), and only those.
kde_service='the type is "Service" while this key is only valid|contains value "all/all"'
while read -r file; do
    report=$(desktop-file-validate "$file" 2>&1) || true
    [[ $file == */kio/servicemenus/* ]] && report=$(grep -vE "$kde_service" <<<"$report" || true)
    ! grep -qE ': (error|warning)' <<<"$report" || fail "desktop-file-validate ${file#"$work/root"}: $report"
done < <(find "$work/root" -name '*.desktop')
entry() { grep -x "$2=.*" "$work/root$1" | cut -d= -f2-; }
while IFS='|' read -r file key value; do
    [[ "$(entry "$file" "$key")" == "$value" ]] || fail "$file: $key is '$(entry "$file" "$key")', not '$value'"
done <<'EOF'
/usr/share/applications/corvane.desktop|Name|Corvane
/usr/share/applications/corvane.desktop|Exec|corvane-app
/usr/share/applications/corvane.desktop|Icon|corvane
/usr/share/applications/corvane.desktop|Categories|Utility;Security;
/usr/share/applications/corvane-url-handler.desktop|Exec|corvane open-url %u
/usr/share/applications/corvane-url-handler.desktop|MimeType|x-scheme-handler/corvane;
/usr/share/applications/corvane-url-handler.desktop|NoDisplay|true
/etc/xdg/autostart/corvane.desktop|Exec|corvane-app --background
/etc/xdg/autostart/corvane.desktop|X-GNOME-Autostart-enabled|true
EOF
# The icon named by the entries is the installed one.
grep -q '<svg' "$work/root/usr/share/icons/hicolor/scalable/apps/corvane.svg" || fail "corvane.svg is no SVG"

# --- Man page: renders without a warning and names every command of --help ---
page=$work/root/usr/share/man/man1/corvane.1.gz
gzip -t "$page" || fail "corvane.1.gz is not gzip"
warnings=$(zcat "$page" | groff -man -Tutf8 -ww -z 2>&1) || fail "groff fails on corvane.1"
[[ -z $warnings ]] || fail "groff warns about corvane.1: $warnings"
rendered=$(zcat "$page" | groff -man -Tutf8 -P-cbou 2>/dev/null)
commands=$("$work/root/usr/bin/corvane" --help | sed -n '/^Commands:/,/^$/p' | awk 'NR > 1 && /^  [a-z]/ { print $1 }' | sort -u)
[[ $(wc -l <<<"$commands") -ge 10 ]] || fail "too few commands read from --help: $commands"
for command in $commands; do
    grep -qE "^ {7}$command( |$)" <<<"$rendered" || fail "the man page does not describe $command"
done

((failures == 0)) || { echo "$failures check(s) failed" >&2; exit 1; }
echo "corvane_${version}_${arch}.deb: $(du -h "$deb" | cut -f1), every check passed"
