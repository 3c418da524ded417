# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# What the scripts of this directory share. They run in the root of the source tree.

# Permissions are part of what is built.
umask 022

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# Prints the version, which the header states.
version() {
    local part numbers=()
    for part in MAJOR MINOR PATCH; do
        numbers+=("$(sed -n "s/^#define CORVEL_VERSION_$part \([0-9]\+\)\$/\1/p" include/corvel.h)")
    done
    (IFS=. && printf '%s\n' "${numbers[*]}")
}

# True if the changelog has a section for the version: otherwise the tree is ahead of a release.
is_release() { grep -q "^## $(version) - [0-9-]\{10\}\$" CHANGELOG.md; }

# Prints the version of the Debian packages. A tree that is ahead of a release has one below that of
# the release, which grows with the date.
debian_version() {
    if is_release; then
        printf '%s-1\n' "$(version)"
    else
        printf '%s~%s-1\n' "$(version)" "$(date -u -d "@$SOURCE_DATE_EPOCH" +%Y%m%d%H%M%S)"
    fi
}

has_git() { [[ -e .git ]]; }

# The date of everything that is built, in seconds since 1970. Unless it is set, it is the date of the
# commit, or that of the files of the source archive.
if [[ -z ${SOURCE_DATE_EPOCH-} ]]; then
    if has_git; then
        SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
    else
        SOURCE_DATE_EPOCH=$(stat -c %Y include/corvel.h)
    fi
fi
export SOURCE_DATE_EPOCH

# Writes an archive in which order, owners, permissions and times do not depend on the machine. The
# files are those that standard input names, each name followed by a NUL. The names get a prefix.
archive() { # FILE PREFIX
    LC_ALL=C sort -z | tar --create --no-recursion --null --files-from=- --format=gnu \
        --owner=0 --group=0 --numeric-owner --mode=u=rwX,go=rX --mtime="@$SOURCE_DATE_EPOCH" \
        --transform="s|^|$2|S" | xz -6 --threads=1 >"$1.new"
    mv "$1.new" "$1"
}

# Makes a directory for temporary files, $scratch, which is removed at the end.
make_scratch() {
    scratch=$(mktemp -d -t corvel-packaging-XXXXXXXX)
    trap 'rm -rf "$scratch"' EXIT
}
