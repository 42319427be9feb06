# The host's side: chooses where to run, prepares and starts the emulated machine, and passes on its output and status.
# shellcheck shell=bash disable=SC2153

PACKAGES='qemu-system-x86 busybox-static cpio kmod iproute2'
MODULES='virtio_ring virtio virtio_pci_modern_dev virtio_pci_legacy_dev virtio_pci netfs fscache 9pnet 9pnet_virtio 9p
udp_tunnel ip6_udp_tunnel tipc veth failover net_failover virtio_net sch_netem'
CRYPTO_MODULES='gf128mul ghash-generic gcm ctr'

cache_dir() { echo "${LAB_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/tipc-lab}"; }

host_has_tipc() { # true when the kernel has TIPC and namespaces may be made
    python3 -c 'import socket; socket.socket(socket.AF_TIPC, socket.SOCK_RDM)' 2>/dev/null &&
        unshare --net --mount true 2>/dev/null
}

missing_programs() {
    local program
    for program in qemu-system-x86_64 /bin/busybox cpio tipc ip nsenter; do
        command -v "$program" >/dev/null || echo "$program"
    done
}

install_packages() {
    [ -z "$(missing_programs)" ] && return
    if [ "$(id -u)" != 0 ]; then
        die "needs: $(missing_programs | tr '\n' ' '); as root: apt-get install $PACKAGES"
    fi
    say "installing $PACKAGES"
    # shellcheck disable=SC2086
    { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $PACKAGES; } \
        >/dev/null || die "apt-get failed; needed: $PACKAGES"
}

kernel_package() { # prints the package that linux-image-amd64 depends on
    apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image/ {print $2; exit}'
}

# Prints the folder with vmlinuz and initrd, and makes them when they are missing.
prepare_guest() {
    local cache stamp dir work
    cache=$(cache_dir)
    stamp=$(cat "$HERE/init" "$HERE/host.sh" | sha256sum | cut -c1-12)
    dir=$cache/guest-$stamp
    [ -e "$dir/ready" ] && echo "$dir" && return
    mkdir -p "$cache" || die "cannot make $cache"
    exec 9>"$cache/lock"
    flock 9
    if [ ! -e "$dir/ready" ]; then
        work=$(mktemp -d "$cache/new.XXXXXX")
        (build_guest "$work") || { rm -rf "$work"; exit 125; }
        mv -T "$work" "$dir"
    fi
    exec 9>&-
    echo "$dir"
}

# Makes `vmlinux` of `vmlinuz`: an emulated machine takes longer to unpack the kernel than to boot it. Where the kernel is
# packed otherwise, or does not start without its loader, it stays as it is.
unpack_kernel() { # DIR
    local dir=$1 at
    at=$(LC_ALL=C grep -abo -m 1 -P '\xfd7zXZ\x00' "$dir/vmlinuz" | head -n 1 | cut -d : -f 1)
    [ -n "$at" ] && tail -c "+$((at + 1))" "$dir/vmlinuz" | xz -dc --single-stream >"$dir/vmlinux" 2>/dev/null
    readelf -n "$dir/vmlinux" 2>/dev/null | grep -q 'Xen .*0x00000012' || rm -f "$dir/vmlinux" # the entry without a loader
}

build_guest() { # DIR: makes vmlinuz, vmlinux and initrd from Debian's kernel package
    local work=$1 package release module
    package=$(kernel_package)
    if [ -z "$package" ] && [ "$(id -u)" = 0 ]; then
        apt-get update -qq >/dev/null
        package=$(kernel_package)
    fi
    [ -n "$package" ] || die "no kernel package is known: run apt-get update"
    say "preparing the emulated machine ($package)"
    (cd "$work" && apt-get download -qq "$package" 2>/dev/null) || die "cannot download $package"
    dpkg -x "$work"/*.deb "$work/kernel" || die "cannot unpack $package"
    mv "$work"/kernel/boot/vmlinuz-* "$work/vmlinuz"
    unpack_kernel "$work"
    mkdir -p "$work"/initrd/{bin,dev,proc,sys,modules}
    cp /bin/busybox "$work/initrd/bin/"
    install -m 755 "$HERE/init" "$work/initrd/init"
    for module in $MODULES $CRYPTO_MODULES; do
        release=$(find "$work/kernel/lib/modules" -name "$module.ko*" | head -n 1)
        [ -n "$release" ] || continue # the module is built into this kernel
        case $release in
        *.xz) xz -dc "$release" >"$work/initrd/modules/$module.ko" ;;
        *) cp "$release" "$work/initrd/modules/$module.ko" ;;
        esac
        echo "$module" >>"$work/initrd/modules/order"
    done
    (cd "$work/initrd" && find . | cpio -o -H newc --quiet >../initrd.cpio) || die "cannot pack the initrd"
    rm -rf "$work/kernel" "$work/initrd" "$work"/*.deb
    : >"$work/ready"
}

setup() {
    install_packages
    prepare_guest >/dev/null
    say "ready"
}

doctor() {
    if host_has_tipc; then
        echo "this host: its kernel has TIPC and namespaces may be made"
        return
    fi
    echo "an emulated machine: this kernel has no TIPC, or namespaces may not be made"
    local missing
    missing=$(missing_programs | tr '\n' ' ')
    echo "programs missing: ${missing:-none}"
    echo "prepared in: $(cache_dir)"
}

add_preset() { # FILE: its lines PATH=TEMPLATE; a template's path begins in the folder of FILE; without one it is this host's PATH
    local line from folder
    [ -r "$1" ] || die "cannot read $1"
    folder=$(dirname "$(readlink -f "$1")")
    while IFS= read -r line || [ -n "$line" ]; do
        from=${line#*=}
        case $line in
        '' | '#'*) continue ;;
        /*=) from=${line%=} ;;
        /*=/*) ;;
        /*=*) from=$folder/$from ;;
        *) die "'$line' is no PATH=TEMPLATE" ;;
        esac
        case $line in
        *=) [ -r "$from" ] || continue ;;
        esac
        [ -r "$from" ] || die "cannot read $from"
        PRESET_FILES+=("${line%%=*}=$(readlink -f "$from")")
    done <"$1"
}

merge_presets() { # --node-file comes before a preset
    local file given
    for file in ${PRESET_FILES[@]+"${PRESET_FILES[@]}"}; do
        for given in ${NODE_FILES[@]+"${NODE_FILES[@]}"}; do
            [ "${given%%=*}" != "${file%%=*}" ] || continue 2
        done
        NODE_FILES+=("$file")
    done
}

parse_options() {
    NODE_IDS=1 OUT='' VIRTUAL='' MACHINES=1 LIMIT=300 MEMORY=1024 WHERE='' TOLERANCE=''
    NODE_FILES=() PRESET_FILES=() SYSCTLS=() ENVIRONMENT=() SHARES=()
    while [ $# -gt 0 ]; do
        case $1 in
        --nodes) NODE_IDS=$(seq -s ' ' 1 "$2") && shift ;;
        --node-ids) NODE_IDS=${2//,/ } && shift ;;
        --node-file) NODE_FILES+=("${2%%=*}=$(readlink -f "${2#*=}")") && shift ;;
        --node-files) add_preset "$2" && shift ;;
        --tolerance) TOLERANCE=$2 && shift ;;
        --sysctl) SYSCTLS+=("$2") && shift ;;
        --env) ENVIRONMENT+=("$2") && shift ;;
        --out) OUT=$2 && shift ;;
        --share) SHARES+=("$(readlink -f "$2")") && shift ;;
        --virtual-time) VIRTUAL=yes ;;
        --machines) MACHINES=$2 && shift ;;
        --timeout) LIMIT=$2 && shift ;;
        --memory) MEMORY=$2 && shift ;;
        --host | --guest) WHERE=${1#--} ;;
        --)
            shift
            COMMAND=("$@")
            merge_presets
            return
            ;;
        *) die "unknown option '$1' (lab help)" ;;
        esac
        shift
    done
    die "no command (lab help)"
}

write_control() { # DIR: writes what inside.sh needs to know
    local ctl=$1 word
    mkdir -p "$ctl"
    echo "$HERE/inside.sh" >"$ctl/inside"
    echo "$HERE/lab" >"$ctl/lab"
    echo "$NODE_IDS" >"$ctl/node_ids"
    pwd -P >"$ctl/directory"
    [ -z "$TOLERANCE" ] || echo "$TOLERANCE" >"$ctl/tolerance"
    [ -z "$OUT" ] || echo "$OUT" >"$ctl/out"
    : >"$ctl/binds" && : >"$ctl/node_files" && : >"$ctl/sysctls"
    [ ${#NODE_FILES[@]} = 0 ] || printf '%s\n' "${NODE_FILES[@]}" >"$ctl/node_files"
    [ ${#SYSCTLS[@]} = 0 ] || printf '%s\n' "${SYSCTLS[@]}" >"$ctl/sysctls"
    printf '%s\0' "${COMMAND[@]}" >"$ctl/command"
    printf '%s\0' "HOME=${HOME:-/}" "LANG=${LANG:-C.UTF-8}" "PATH=$PATH" >"$ctl/environment"
    for word in ${ENVIRONMENT[@]+"${ENVIRONMENT[@]}"}; do
        case $word in
        *=*) printf '%s\0' "$word" ;;
        *) [ -z "${!word+set}" ] || printf '%s\0' "$word=${!word}" ;;
        esac
    done >>"$ctl/environment"
    for word in "$(pwd -P)" "$HERE" "$(dirname "$(command -v "${COMMAND[0]}" || echo /)")" \
        ${SHARES[@]+"${SHARES[@]}"} ${NODE_FILES[@]+"${NODE_FILES[@]#*=}"}; do
        [ -d "$word" ] || word=$(dirname "$word")
        word=$(readlink -f "$word")
        case $word/ in
        /tmp/?* | /run/?*) echo "$word" ;;
        esac
    done | sort -u >"$ctl/binds"
}

start_guest() { # NUMBER CTL GUEST: starts a machine in the background, with its output on descriptor 3; sets GUEST to its pid
    local number=$1 ctl=$2 guest=$3 accel='tcg,thread=multi' smp=2 kernel=$3/vmlinux more=()
    [ -e "$kernel" ] || kernel=$guest/vmlinuz
    if [ -n "$VIRTUAL" ]; then
        accel='tcg,thread=single' smp=1
        more+=(-icount 'shift=auto,sleep=off')
    fi
    [ -z "$OUT" ] || more+=(-fsdev "local,id=out,path=$OUT,security_model=none"
        -device 'virtio-9p-pci,fsdev=out,mount_tag=out')
    if [ "$MACHINES" = 2 ]; then
        more+=(-fsdev "local,id=shared,path=$RUN_DIR/shared,security_model=none"
            -device 'virtio-9p-pci,fsdev=shared,mount_tag=shared')
        more+=(-netdev "socket,id=n0,mcast=230.0.0.1:$WIRE_PORT,localaddr=127.0.0.1"
            -device "virtio-net-pci,netdev=n0,mac=52:54:00:12:34:0$number")
    else
        more+=(-nic none)
    fi
    qemu-system-x86_64 -nodefaults -no-user-config -display none -no-reboot -accel "$accel" -cpu max -smp "$smp" -m "$MEMORY" \
        -kernel "$kernel" -initrd "$guest/initrd.cpio" \
        -append 'console=ttyS0 quiet panic=-1 clocksource=acpi_pm mitigations=off rdinit=/init' \
        -serial "file:$ctl/kernel.log" -chardev "stdio,id=out,signal=off" -serial chardev:out \
        -fsdev 'local,id=root,path=/,security_model=none,multidevs=remap,readonly=on' \
        -device 'virtio-9p-pci,fsdev=root,mount_tag=root' \
        -fsdev "local,id=ctl,path=$ctl,security_model=none" -device 'virtio-9p-pci,fsdev=ctl,mount_tag=ctl' \
        "${more[@]}" </dev/null >&3 2>"$ctl/qemu.log" 3>&- &
    GUEST=$!
}

guest_status() { # CTL: returns the command's status; when the machine ended before the command, prints its kernel log
    local ctl=$1
    if [ -s "$ctl/status" ]; then
        return "$(cat "$ctl/status")"
    fi
    say "the emulated machine ended before the command did; the end of its kernel log:"
    tail -n 20 "$ctl/kernel.log" "$ctl/qemu.log" >&2
    return 125
}

# Ends what this run started. It is the trap on EXIT, so it also runs on a signal and at the time limit.
finish() {
    local pid
    for pid in ${STARTED[@]+"${STARTED[@]}"}; do
        kill -9 "$pid" 2>/dev/null
    done
    wait 2>/dev/null
    [ -z "${RUN_DIR:-}" ] || rm -rf "$RUN_DIR"
}

run_guest() {
    local guest number status=0 ret ctl pids=() watch
    install_packages
    guest=$(prepare_guest) || exit 125
    WIRE_PORT=$((20000 + ($$ + RANDOM) % 20000))
    for number in $(seq 1 "$MACHINES"); do
        ctl=$RUN_DIR/ctl$number
        write_control "$ctl"
        if [ "$MACHINES" = 2 ]; then
            echo "$number" >"$ctl/machine"
            printf 'LAB_MACHINE=%s\0' "$number" >>"$ctl/environment"
            mkdir -p "$RUN_DIR/shared" "$ctl/shared"
            start_guest "$number" "$ctl" "$guest" 3> >(sed -u "s/^/m$number: /")
        else
            start_guest "$number" "$ctl" "$guest" 3>&1
        fi
        pids+=("$GUEST")
        STARTED+=("$GUEST")
    done
    (sleep "$LIMIT" && : >"$RUN_DIR/late" && kill -9 "${pids[@]}") 2>/dev/null &
    watch=$!
    STARTED+=("$watch")
    wait "${pids[@]}" 2>/dev/null
    pkill -P "$watch" 2>/dev/null
    kill "$watch" 2>/dev/null
    if [ -e "$RUN_DIR/late" ]; then
        say "time limit of $LIMIT s"
        return 124
    fi
    for number in $(seq 1 "$MACHINES"); do
        guest_status "$RUN_DIR/ctl$number"
        ret=$?
        [ "$status" != 0 ] || status=$ret
    done
    return "$status"
}

run_host() { # runs the command in new namespaces, which the kernel removes with the last process
    export LAB_RUN=$RUN_DIR
    write_control "$RUN_DIR/ctl"
    # shellcheck disable=SC2016
    timeout --kill-after=5 "$LIMIT" unshare --net --mount --propagation private /bin/bash -c \
        '. "$1"; make_cluster; (run_command); status=$?; remove_cluster; exit $status' lab "$HERE/inside.sh" </dev/null
}

host_run() {
    parse_options "$@"
    RUN_DIR=$(mktemp -d "${TMPDIR:-/tmp}/lab.XXXXXX") || exit 125
    STARTED=()
    trap finish EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    if [ -n "$OUT" ]; then
        mkdir -p "$OUT" || die "cannot make $OUT"
        OUT=$(readlink -f "$OUT")
    fi
    if [ "$WHERE" = host ] || { [ -z "$WHERE$VIRTUAL" ] && [ "$MACHINES" = 1 ] && host_has_tipc; }; then
        run_host
    else
        run_guest
    fi
    exit $?
}
