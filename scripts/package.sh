#!/usr/bin/env bash
# Builds Plinkora's Debian package with Debian's own tools and checks it with lintian.
#   bash scripts/package.sh        -> dist/plinkora_<version>_<arch>.deb
# Install it with: sudo apt-get install ./dist/plinkora_*.deb
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

bash scripts/install-deps.sh package

# dpkg-buildpackage writes into the source tree and puts its results beside it: build a copy
# of the working files (committed or not) in a scratch folder instead.
work=$(mktemp -d /tmp/plinkora-package.XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir "$work/plinkora"
git ls-files -z --cached --others --exclude-standard | while IFS= read -r -d '' file; do
    [ -e "$file" ] && printf '%s\0' "$file"
done | tar --null -T - -cf - | tar -xf - -C "$work/plinkora"

(cd "$work/plinkora" && DEB_BUILD_OPTIONS="parallel=$(nproc) ${DEB_BUILD_OPTIONS:-}" \
    dpkg-buildpackage -b -us -uc >"$work/build.log" 2>&1) || {
    tail -n 60 "$work/build.log"
    echo "package.sh: dpkg-buildpackage failed (the whole log was $work/build.log)" >&2
    exit 1
}

mkdir -p dist
rm -f dist/plinkora_*.deb
cp "$work"/plinkora_*.deb dist/
deb=$(ls dist/plinkora_*.deb)

# lintian: errors fail the build; warnings are shown.
lintian --fail-on error --no-tag-display-limit "$deb"
echo "Built $top/$deb"
