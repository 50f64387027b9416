#!/usr/bin/env bash
# Builds the container image of tessara-render and tessara-batch from Debian
# packages alone, with no image registry: mmdebstrap makes a root file system
# of the host's Debian release holding the essential packages, the libraries
# the two programs link, Mesa's software rasteriser (llvmpipe), Qt's xcb
# platform plugin and Xvfb; the programs and their shader files go to
# /opt/tessara/bin (symbolic links in /usr/local/bin); buildah turns that into
# an image archive that `podman load`, `docker load`, `ctr image import`
# (containerd, Kubernetes nodes) and `apptainer build X.sif docker-archive:FILE`
# read. No compiler is in the image.
#
#   scripts/container.sh [--bin DIR] [--output FILE] [--format docker|oci] [--cache DIR]
#   scripts/container.sh --rootfs DIR [--bin DIR] [--cache DIR]
#   scripts/container.sh --from DIR [--output FILE] [--format docker|oci]
#
# --bin: the folder with the programs and shaders (default build/bin).
# --output: the archive (default tessara-render-VERSION.tar in the folder
#   above --bin); the image inside is named tessara-render:VERSION.
# --format: docker-archive (default; every tool above reads it) or oci-archive.
# --cache: where downloaded packages are kept between runs (default
#   container-cache in the folder above --bin).
# --rootfs: make only the root file system, as a folder, and no image.
# --from: make the image of a root file system made before with --rootfs.
# TESSARA_DEBIAN_MIRROR replaces the Debian mirror (default deb.debian.org,
# with the release's updates and security suites).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bin=$root/build/bin
output="" format=docker cache="" rootfs="" from=""

usage() { sed -n '12,14p' "$0" | sed 's/^# *//' >&2; exit 2; }
die() { echo "container.sh: $*" >&2; exit 1; }
while [ $# -gt 0 ]; do
    case $1 in
        --bin) bin=${2:?}; shift 2 ;;
        --output) output=${2:?}; shift 2 ;;
        --format) format=${2:?}; shift 2 ;;
        --cache) cache=${2:?}; shift 2 ;;
        --rootfs) rootfs=${2:?}; shift 2 ;;
        --from) from=${2:?}; shift 2 ;;
        *) usage ;;
    esac
done
case $format in docker | oci) ;; *) usage ;; esac
[ -z "$rootfs" ] || [ -z "$from" ] || usage
bin=$(realpath -- "$bin")
builddir=$(dirname -- "$bin")
work=$(mktemp -d "${TMPDIR:-/tmp}/tessara-container.XXXXXX")
trap 'rm -rf "$work"' EXIT

make_rootfs() {  # FOLDER
    local target=$1 packages libraries lib owner program
    [ -x "$bin/tessara-render" ] && [ -x "$bin/tessara-batch" ] ||
        die "no tessara-render and tessara-batch in $bin; build first (scripts/build.sh)"
    command -v mmdebstrap >/dev/null || die "mmdebstrap is not installed (scripts/install-deps.sh installs it)"
    # The package names below are those of the host's release, which built the programs.
    local ID="" VERSION_CODENAME=""
    . /etc/os-release
    [ "$ID" = debian ] && [ -n "$VERSION_CODENAME" ] || die "the host must be Debian (it names the packages)"

    # Loaded at run time, so not seen by ldd: the GLX vendor library and DRI
    # driver of Mesa, the X server the programs start when there is no
    # display, and xauth for running them under xvfb-run.
    packages="libglx-mesa0 libgl1-mesa-dri xvfb xauth"
    # Every library the programs link, by the package that installed it here.
    libraries=$(ldd "$bin/tessara-render" "$bin/tessara-batch" | sed -n 's/.* => \(\/[^ ]*\) .*/\1/p' | sort -u)
    for lib in $libraries; do
        owner=$(dpkg-query -S "$lib" 2>/dev/null || dpkg-query -S "$(realpath "$lib")" 2>/dev/null) ||
            die "no Debian package holds $lib"
        packages="$packages ${owner%%:*}"
    done

    # The programs without their symbols, and every shader file beside them.
    mkdir "$work/opt"
    for program in tessara-render tessara-batch; do
        strip --strip-unneeded -o "$work/opt/$program" "$bin/$program"
    done
    local shaders=("$bin"/*.frag "$bin"/*.vert)
    [ -e "${shaders[0]}" ] || die "no shader files beside the programs in $bin"
    cp -- "${shaders[@]}" "$work/opt/"

    # Documentation, manual pages and translations stay out.
    local options=('--dpkgopt=path-exclude=/usr/share/man/*' '--dpkgopt=path-exclude=/usr/share/info/*'
        '--dpkgopt=path-exclude=/usr/share/locale/*' '--dpkgopt=path-include=/usr/share/locale/locale.alias'
        '--dpkgopt=path-exclude=/usr/share/doc/*' '--dpkgopt=path-include=/usr/share/doc/*/copyright')
    local mirror=()
    [ -z "${TESSARA_DEBIAN_MIRROR:-}" ] || mirror=("$TESSARA_DEBIAN_MIRROR")

    cache=$(realpath -m -- "${cache:-$builddir/container-cache}")
    mkdir -p "$cache"
    rm -rf "$target"
    # The package cache goes in before apt downloads and comes back out after
    # installing (the hooks run in the cache folder: "." is the cache).
    # merged-usr gives the release's /usr layout without the usrmerge package
    # and its Perl; eatmydata spares dpkg's syncs, which a fresh tree does not
    # need.
    (cd "$cache" && mmdebstrap --variant=essential --include="$packages" \
        --hook-dir=/usr/share/mmdebstrap/hooks/merged-usr \
        --hook-dir=/usr/share/mmdebstrap/hooks/eatmydata \
        --skip=essential/unlink \
        --setup-hook='mkdir -p "$1/var/cache/apt/archives"' \
        --setup-hook='sync-in . /var/cache/apt/archives/' \
        --customize-hook='sync-out /var/cache/apt/archives .' \
        --customize-hook='mkdir -p "$1/opt/tessara/bin" "$1/usr/local/bin"' \
        --customize-hook="copy-in $(printf '%q ' "$work/opt"/*)/opt/tessara/bin/" \
        --customize-hook='for p in tessara-render tessara-batch; do ln -sf ../../../opt/tessara/bin/$p "$1/usr/local/bin/$p"; done' \
        --customize-hook='for c in cc c++ gcc g++ clang clang++ cpp ld; do
            if [ -e "$1/usr/bin/$c" ]; then echo "container.sh: a compiler ($c) is in the image" >&2; exit 1; fi
        done' \
        "${options[@]}" "$VERSION_CODENAME" "$target" "${mirror[@]}")
}

if [ -n "$rootfs" ]; then
    make_rootfs "$(realpath -m -- "$rootfs")"
    echo "root file system in $rootfs ($(du -sh "$rootfs" | cut -f1))"
    exit 0
fi
command -v buildah >/dev/null || die "buildah is not installed (scripts/install-deps.sh installs it)"
if [ -z "$from" ]; then
    from=$work/rootfs
    make_rootfs "$from"
fi
[ -x "$from/opt/tessara/bin/tessara-render" ] || die "$from holds no tessara-render (make it with --rootfs)"
# The programs run on the host too: it has the libraries they were built with.
version=$("$from/opt/tessara/bin/tessara-render" -v 2>/dev/null | awk 'NR == 1 { print $NF }')
[ -n "$version" ] || die "tessara-render -v printed no version"
output=$(realpath -m -- "${output:-$builddir/tessara-render-$version.tar}")
name=tessara-render:$version

# The image: one layer holding the root file system, made in a private,
# throwaway store (the vfs driver needs no overlay mounts).
tar --numeric-owner -C "$from" -cf "$work/rootfs.tar" .
store=(--root "$work/storage" --runroot "$work/run" --storage-driver vfs)
container=$(buildah "${store[@]}" from --quiet scratch)
buildah "${store[@]}" add --quiet "$container" "$work/rootfs.tar" /
rm "$work/rootfs.tar"
buildah "${store[@]}" config --env PATH=/usr/local/bin:/usr/bin:/bin --workingdir /data \
    --cmd '["tessara-render", "-V"]' --label org.opencontainers.image.title=tessara-render \
    --label org.opencontainers.image.version="$version" "$container"
buildah "${store[@]}" commit --quiet "$container" "$name" >/dev/null
rm -f "$output.tmp"
buildah "${store[@]}" push --quiet "$name" "$format-archive:$output.tmp:$name"
mv -f "$output.tmp" "$output"
echo "$name in $output ($(du -h "$output" | cut -f1))"
