#!/usr/bin/env bash
# The container image's root file system, made by scripts/container.sh
# --rootfs from the programs of BIN_DIR, runs them with no network and no
# display: `tessara-render -V` reports Mesa's software rasteriser, and a small
# HDR capture rendered inside by tessara-render and by tessara-batch gives
# files byte-identical to the same runs of BIN_DIR outside. With buildah and
# podman present, the image archive itself is made from that root file
# system, loaded into a private podman store and run with --network none,
# with the same results.
# The root file system is kept in BIN_DIR/../container-rootfs and made again
# only when the programs, shaders or scripts/container.sh change. Needs root
# and mmdebstrap (and the Debian mirror for the first build); without them it
# says why and exits 77, which CTest reports as skipped.
#
#   tests/container/container_test.sh BIN_DIR     (KEEP=1 keeps the renders for a look)
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
trap '[ -n "${KEEP:-}" ] || rm -rf "$tmp" "$rootfs/job"' EXIT
"$bin/tessara-make-capture" "$root/tests/data/panoramas/city.exr" "$tmp/job/capture" --hdr --scale 0.05 >/dev/null ||
    fail "tessara-make-capture failed"
render=(tessara-render ../capture/capture.pts --er-width 512 --cf-width 128 --er-exr --er-hdr --er-jpg --cf-jpg --output-prefix pano)
batch=(tessara-batch manifest.txt --state state)

# Outside: the programs of BIN_DIR, run in a folder of their own that holds
# only the batch's manifest (its paths are relative to it).
mkdir "$tmp/job/outside"
echo '../capture/capture.pts --er-width 256 --er-jpg --cf-jpg --cf-width 64 --output-prefix batch' >"$tmp/job/outside/manifest.txt"
(cd "$tmp/job/outside" && env -u DISPLAY "$bin/${render[0]}" "${render[@]:1}" && env -u DISPLAY "$bin/${batch[0]}" "${batch[@]:1}") \
    >"$tmp/outside.log" 2>&1 || { cat "$tmp/outside.log"; fail "the renders outside failed"; }

# Inside: a clean environment, no display, no network, the job copied in.
rm -rf "$rootfs/job"
cp -a "$tmp/job" "$rootfs/job"
rm -rf "$rootfs/job/outside"
mkdir "$rootfs/job/inside"
cp "$tmp/job/outside/manifest.txt" "$rootfs/job/inside/"
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
    while IFS= read -r f; do
        cmp -s "$a/$f" "$b/$f" || fail "$f differs between the two runs"
    done <<<"$files"
    echo "$(echo "$files" | wc -l) outputs identical"
}
compare "$tmp/job/outside" "$rootfs/job/inside"

# The image itself, made from that root file system, where the tools for it
# are here: loaded into a private podman store (overlay where the kernel has
# it, else vfs, which copies the image for every container) and run with
# modest limits (podman's default ones cannot be set on every host), with
# runc where it is installed (crun refuses hosts with hybrid cgroups). Where
# podman cannot start a container, the image is reported as made but not run.
if command -v buildah >/dev/null && command -v podman >/dev/null; then
    start=$SECONDS
    "$root/scripts/container.sh" --from "$rootfs" --output "$tmp/image.tar" >"$tmp/image.log" 2>&1 ||
        { cat "$tmp/image.log"; fail "scripts/container.sh --from failed"; }
    image=tessara-render:$("$bin/tessara-render" -v | awk 'NR == 1 { print $NF }')
    grep -q "^$image in " "$tmp/image.log" || { cat "$tmp/image.log"; fail "the image is not named $image"; }
    grep -q "image: $image\$" "$root/scripts/k8s-batch-job.yaml" || fail "scripts/k8s-batch-job.yaml does not name $image"
    echo "image $image made in $((SECONDS - start)) s ($(du -h "$tmp/image.tar" | cut -f1))"
    driver=vfs
    grep -qw overlay /proc/filesystems && driver=overlay
    podman=(podman --root "$tmp/podman/root" --runroot "$tmp/podman/run" --storage-driver $driver)
    "${podman[@]}" load -q -i "$tmp/image.tar" >/dev/null || fail "podman load failed"
    run=(run --rm --network none -v "$tmp/job:/job" -w /job/podman --ulimit nofile=1024:1024 --ulimit nproc=4096:4096)
    mkdir "$tmp/job/podman"
    cp "$tmp/job/outside/manifest.txt" "$tmp/job/podman/"
    # A first container that only runs `true` tells whether podman can start
    # one here at all.
    command -v runc >/dev/null && podman+=(--runtime runc)
    if ! "${podman[@]}" "${run[@]}" "$image" true >"$tmp/podman.log" 2>&1; then
        echo "podman cannot start a container here: $(tail -1 "$tmp/podman.log")"
    else
        "${podman[@]}" "${run[@]}" "$image" >"$tmp/podman.log" 2>&1 && grep -q '^GL_RENDERER: *llvmpipe' "$tmp/podman.log" ||
            { cat "$tmp/podman.log"; fail "the image's default command (tessara-render -V) failed in podman"; }
        "${podman[@]}" "${run[@]}" "$image" "${render[@]}" >"$tmp/podman.log" 2>&1 ||
            { cat "$tmp/podman.log"; fail "tessara-render failed in podman"; }
        "${podman[@]}" "${run[@]}" "$image" "${batch[@]}" >>"$tmp/podman.log" 2>&1 ||
            { cat "$tmp/podman.log"; fail "tessara-batch failed in podman"; }
        compare "$tmp/job/outside" "$tmp/job/podman"
    fi
fi
echo "PASSED"
