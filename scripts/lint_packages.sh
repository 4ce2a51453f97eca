#!/usr/bin/env bash
# Checks Debian packages with lintian, Debian's own package checker, and fails
# on any error or warning. Usage: scripts/lint_packages.sh [PACKAGE.deb...]
# (every package in build/packages/ when none is named; scripts/package.sh
# makes them).
#
# A tag is overridden only in the override file that the package ships
# (/usr/share/lintian/overrides/<package>, made from cmake/debian/), each
# override with its reason on the one comment line just above it: an
# override without one fails the check as well. Overridden tags are listed
# with their reasons.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh lintian

debs=("$@")
if [ ${#debs[@]} -eq 0 ]; then
  shopt -s nullglob
  debs=(build/packages/*.deb)
  shopt -u nullglob
fi
if [ ${#debs[@]} -eq 0 ]; then
  echo "lint_packages: no packages in build/packages/ (scripts/package.sh makes them)" >&2
  exit 1
fi

# Prints each override line of the text on standard input that does not come
# right after exactly one comment line; status 1 if there is one.
overrides_without_reason() {
  awk '
    /^#/ { comments++; next }
    /^[[:space:]]*$/ { comments = 0; next }
    { if (comments != 1) { print; missing = 1 } comments = 0 }
    END { exit missing }'
}

failed=0
for deb in "${debs[@]}"; do
  package=$(dpkg-deb --field "$deb" Package)
  file="./usr/share/lintian/overrides/$package"
  if dpkg-deb --contents "$deb" | awk '{ print $6 }' | grep -Fqx -- "$file"; then
    if ! bad=$(dpkg-deb --fsys-tarfile "$deb" | tar -xOf - "$file" | overrides_without_reason); then
      echo "lint_packages: $deb overrides without a one-line reason above:" >&2
      echo "$bad" >&2
      failed=1
    fi
  fi
done

# Lintian's own exit status counts shown overrides as findings, so its
# report is read instead: a line for an error begins with E:, one for a
# warning with W:. A status other than 0 is then a failure of lintian itself.
start=$(date +%s)
report=$(lintian --fail-on none --show-overrides --tag-display-limit 0 "${debs[@]}")
[ -z "$report" ] || echo "$report"
if grep -Eq '^[EW]: ' <<<"$report"; then
  echo "lint_packages: lintian found errors or warnings (above)" >&2
  failed=1
fi
[ "$failed" -eq 0 ] || exit 1
echo "lint_packages: ${#debs[@]} packages, no error and no warning ($(( $(date +%s) - start )) s)"
