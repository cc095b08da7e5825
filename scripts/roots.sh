# Sourced after setup.sh: small Debians in folders of their own, on a machine with Debian. Needs root.
#
#   is_debian                  true on a Debian, but not on what is made from it
#   debian_release             prints this machine's release by its code name
#   make_root RELEASE ROOT LOGS [WORD...]
#                              makes in the folder ROOT the smallest Debian with apt, which fetches as
#                              this machine's does: same mirror, same proxies. WORDs are mmdebstrap's;
#                              what it prints is in the folder LOGS
#   in_root ROOT COMMAND...    runs a command there with nothing of our environment, but with /proc,
#                              /dev/shm and /dev/pts, which are gone with its last process
#
# shellcheck shell=bash

is_debian() {
    (source /etc/os-release && [ "$ID" = debian ])
}

debian_release() {
    (source /etc/os-release && echo "$VERSION_CODENAME")
}

# Debian's own among the sources of this machine's apt, one a line, of another release. Nothing but the
# release itself, its updates and its security fixes: what else a machine has is its own business.
debian_sources() {
    local own
    own=$(debian_release)
    # shellcheck disable=SC2016 # apt fills them in
    apt-get indextargets --format 'deb $(REPO_URI) $(CODENAME) $(COMPONENT)' \
        'Created-By: Packages' 'Origin: Debian' |
        sed -nE "s/^(deb [^ ]+) $own((-updates|-security)?) /\1 $1\2 /p" | sort -u
}

make_root() {
    local release=$1 root=$2 logs=$3
    debian_sources "$release" >"$logs/sources.list"
    if [ ! -s "$logs/sources.list" ]; then
        echo "This machine's apt has no list of Debian's packages; run apt-get update." >&2
        return 1
    fi
    apt-config dump Acquire >"$logs/apt.conf"
    mmdebstrap --variant=apt --aptopt="$logs/apt.conf" --skip=cleanup/apt/lists "${@:4}" \
        "" "$root" - <"$logs/sources.list" >"$logs/make_root.log" 2>&1 ||
        { tail -n 20 "$logs/make_root.log" >&2 && return 1; }
}

# A mount namespace and the processes in it end together.
in_root() {
    # shellcheck disable=SC2016 # for the inner shell
    unshare --mount --pid --fork --kill-child sh -ec '
        mount -t proc proc "$1/proc"
        mount -t tmpfs tmpfs "$1/dev/shm"
        mount -t devpts -o newinstance,ptmxmode=0666 devpts "$1/dev/pts"
        root=$1
        shift
        exec chroot "$root" env -i HOME=/root LANG=C.UTF-8 \
            PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin "$@"' \
        in_root "$@"
}
