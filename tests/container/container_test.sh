#!/usr/bin/env bash
# The container image's root file system, made by scripts/container.sh
# --rootfs from the programs of BIN_DIR, runs them with no network and no
# display: `tessara-render -V` reports Mesa's software rasteriser, and a small
# HDR capture rendered inside (tessara-render) and an EXR panorama rendered
# inside (tessara-batch) give files byte-identical to the same runs of BIN_DIR
# outside. With buildah and podman present, the image archive itself is built
# from that root file system, loaded into a private podman store and run
# with --network none.
# The root file system is kept in BIN_DIR/../container-rootfs and made again
# only when the programs, shaders or scripts/container.sh change. Needs root
# and mmdebstrap (and the Debian mirror for the first build); without them it
# says why and exits 77, which CTest reports as skipped.
#
#   tests/container/container_test.sh BIN_DIR
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
bin=$(realpath "${1:-$root/build/bin}")
builddir=$(dirname "$bin")
rootfs=$builddir/container-rootfs

skip() { echo "SKIPPED: $*"; exit 77; }
fail() { echo "FAILED: $*"; exit 1; }
[ "$(id -u)" -eq 0 ] || skip "building the root file system and entering it with chroot need root"
command -v mmdebstrap >/dev/null || skip "mmdebstrap is not installed (scripts/install-deps.sh installs it)"

stamp=$(cat "$root/scripts/container.sh" "$bin/tessara-render" "$bin/tessara-batch" "$bin"/*.frag "$bin"/*.vert | sha256sum)
if [ "$(cat "$rootfs.stamp" 2>/dev/null)" != "$stamp" ]; then
    rm -f "$rootfs.stamp"
    start=$SECONDS
    "$root/scripts/container.sh" --rootfs "$rootfs" --bin "$bin" >"$builddir/container-rootfs.log" 2>&1 ||
        { tail -30 "$builddir/container-rootfs.log"; fail "scripts/container.sh --rootfs failed"; }
    echo "root file system made in $((SECONDS - start)) s ($(du -sh "$rootfs" | cut -f1))"
    echo "$stamp" >"$rootfs.stamp"
fi

tmp=$(mktemp -d /tmp/tessara-container.XXXXXX)
trap 'rm -rf "$tmp" "$rootfs/job"' EXIT
"$bin/tessara-make-capture" "$root/tests/data/panoramas/city.exr" "$tmp/job/capture" --hdr --scale 0.05 >/dev/null ||
    fail "tessara-make-capture failed"
cp "$root/tests/data/panoramas/courtyard.exr" "$tmp/job/"
echo '../courtyard.exr --er-width 256 --er-jpg --cf-jpg --cf-width 64 --output-prefix courtyard' >"$tmp/job/manifest.txt"
render=(tessara-render ../capture/capture.pts --er-width 512 --cf-width 128 --er-exr --er-hdr --er-jpg --cf-jpg --output-prefix pano)
batch=(tessara-batch ../manifest.txt --state state)

# Outside: the programs of BIN_DIR, each run in its own empty folder.
mkdir "$tmp/job/outside"
(cd "$tmp/job/outside" && env -u DISPLAY "$bin/${render[0]}" "${render[@]:1}" && env -u DISPLAY "$bin/${batch[0]}" "${batch[@]:1}") \
    >"$tmp/outside.log" 2>&1 || { cat "$tmp/outside.log"; fail "the renders outside failed"; }

# Inside: a clean environment, no display, no network, the job copied in.
rm -rf "$rootfs/job"
cp -a "$tmp/job" "$rootfs/job"
rm -rf "$rootfs/job/outside"
mkdir "$rootfs/job/inside"
inside() {
    unshare --net --mount --pid --fork sh -c 'mount -t proc proc "$0/proc" && exec chroot "$0" "$@"' "$rootfs" \
        env -i PATH=/usr/local/bin:/usr/bin:/bin HOME=/root sh -c 'cd /job/inside && exec "$@"' sh "$@"
}
inside tessara-render -V >"$tmp/V.log" 2>&1 || { cat "$tmp/V.log"; fail "tessara-render -V failed inside"; }
grep -q '^GL_RENDERER: *llvmpipe' "$tmp/V.log" || { cat "$tmp/V.log"; fail "-V inside names no llvmpipe renderer"; }
inside "${render[@]}" >"$tmp/inside.log" 2>&1 || { cat "$tmp/inside.log"; fail "tessara-render failed inside"; }
inside "${batch[@]}" >>"$tmp/inside.log" 2>&1 || { cat "$tmp/inside.log"; fail "tessara-batch failed inside"; }

# Every output the same, byte for byte (the batch's completion records name
# the run's host and times, so the state folders are left out).
compare() {  # FOLDER_A FOLDER_B
    local a=$1 b=$2 files
    files=$(cd "$a" && find . -path ./state -prune -o -type f -print | sort)
    [ "$files" = "$(cd "$b" && find . -path ./state -prune -o -type f -print | sort)" ] ||
        fail "different files: $(cd "$a" && ls -R .) / $(cd "$b" && ls -R .)"
    [ "$(echo "$files" | wc -l)" -ge 8 ] || fail "too few outputs: $files"
    for f in $files; do
        cmp -s "$a/$f" "$b/$f" || fail "$f differs between the two runs"
    done
    echo "$(echo "$files" | wc -l) outputs identical"
}
compare "$tmp/job/outside" "$rootfs/job/inside"

# The image itself, where the tools for it are here.
if command -v buildah >/dev/null && command -v podman >/dev/null; then
    start=$SECONDS
    "$root/scripts/container.sh" --bin "$bin" --output "$tmp/image.tar" >"$tmp/image.log" 2>&1 ||
        { tail -30 "$tmp/image.log"; fail "scripts/container.sh failed"; }
    image=$(sed -n 's/^\(tessara-render:[^ ]*\) in .*/\1/p' "$tmp/image.log")
    echo "image $image made in $((SECONDS - start)) s ($(du -h "$tmp/image.tar" | cut -f1))"
    podman=(podman --root "$tmp/podman/root" --runroot "$tmp/podman/run" --storage-driver vfs)
    "${podman[@]}" load -q -i "$tmp/image.tar" >/dev/null || fail "podman load failed"
    mkdir "$tmp/job/podman"
    "${podman[@]}" run --rm --network none -v "$tmp/job:/job" -w /job/podman "$image" "${render[@]}" \
        >"$tmp/podman.log" 2>&1 || { cat "$tmp/podman.log"; fail "tessara-render failed in podman"; }
    "${podman[@]}" run --rm --network none -v "$tmp/job:/job" -w /job/podman "$image" "${batch[@]}" \
        >>"$tmp/podman.log" 2>&1 || { cat "$tmp/podman.log"; fail "tessara-batch failed in podman"; }
    compare "$tmp/job/outside" "$tmp/job/podman"
fi
echo "PASSED"
