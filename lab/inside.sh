# The part that runs where the kernel has TIPC: makes the nodes, runs the command, and removes the nodes. It also has the
# functions behind `lab exec`, `lab cut` and the like. The state is in $LAB_RUN; ctl/ in it is shared with the host's side.
# shellcheck shell=bash

LAB_RUN=${LAB_RUN:-/run/lab}
export LAB_RUN

say() { echo "lab: $*" >&2; }
die() { say "$*"; exit 125; }

setting() { cat "$LAB_RUN/ctl/$1" 2>/dev/null; }
node_pid() { cat "$LAB_RUN/nodes/$1/pid" 2>/dev/null; }
node_ids() { setting node_ids; }
is_node() { [ -n "$1" ] && [ -d "$LAB_RUN/nodes/$1" ]; }
in_node() { # NODE COMMAND… : runs COMMAND in the node's namespaces
    local node=$1
    shift
    nsenter -t "$(node_pid "$node")" -n -m -r --wdns="$PWD" -- "$@"
}
need_node() { is_node "$1" || die "no node '$1' (nodes: $(node_ids))"; }
device() { echo "v$1_$2"; } # A B: the network device in A of the link between A and B

# Makes the files of one node. Each folder that holds a per-node file becomes a folder of the node's own, with symbolic links
# to the other entries of the original folder.
prepare_files() {
    local node=$1 path template dir mine
    while IFS='=' read -r path template; do
        dir=$(dirname "$path")
        mine=$LAB_RUN/nodes/$node$dir
        if [ ! -d "$mine" ]; then
            mkdir -p "$mine" "$LAB_RUN/orig$dir" "$dir" || die "cannot make $dir for $path"
            if ! mountpoint -q "$LAB_RUN/orig$dir"; then
                mount --bind "$dir" "$LAB_RUN/orig$dir" || die "cannot bind $dir"
            fi
            find "$LAB_RUN/orig$dir" -mindepth 1 -maxdepth 1 -exec ln -s -t "$mine" {} +
        fi
        rm -f "$mine/${path##*/}"
        sed "s/@NODE@/$node/g" "$template" >"$mine/${path##*/}"
    done < <(setting node_files)
}

mount_files() { # NODE; called in the node's mount namespace
    local node=$1 path template dir
    while IFS='=' read -r path template; do
        dir=$(dirname "$path")
        mountpoint -q "$dir" && [ "$dir" != /tmp ] && [ -e "$dir/.lab_node" ] && continue
        : >"$LAB_RUN/nodes/$node$dir/.lab_node"
        mount --bind "$LAB_RUN/nodes/$node$dir" "$dir" || exit 125
    done < <(setting node_files)
}

start_node() { # NODE: makes its namespaces, which one sleeping process holds, and sets its TIPC identity
    local node=$1 key value
    mkdir -p "$LAB_RUN/nodes/$node"
    prepare_files "$node"
    # shellcheck disable=SC2016
    unshare --net --mount --propagation private /bin/bash -c \
        '. "$1"; mount_files "$2"; ip link set lo up; echo $$ >"$LAB_RUN/nodes/$2/pid.new"; mv "$LAB_RUN/nodes/$2/pid.new" "$LAB_RUN/nodes/$2/pid"; exec sleep infinity' \
        lab "$(setting inside)" "$node" </dev/null >/dev/null 2>&1 &
    local holder=$!
    disown
    until [ -s "$LAB_RUN/nodes/$node/pid" ]; do
        kill -0 "$holder" 2>/dev/null || die "node $node does not start"
        sleep 0.02
    done
    while IFS='=' read -r key value; do
        in_node "$node" test -e "/proc/sys/${key//./\/}" || continue
        in_node "$node" sysctl -q -w "$key=$value" || die "sysctl $key in node $node"
    done < <(setting sysctls)
    in_node "$node" tipc node set identity "node$node" || die "TIPC identity of node $node"
}

link_nodes() { # A B
    local a b tolerance
    a=$1 b=$2
    ip link add "$(device "$a" "$b")" netns "$(node_pid "$a")" type veth \
        peer name "$(device "$b" "$a")" netns "$(node_pid "$b")" || die "link $a-$b"
    tolerance=$(setting tolerance)
    local ends="$a:$b $b:$a" end dev
    for end in $ends; do
        dev=$(device "${end%:*}" "${end#*:}")
        in_node "${end%:*}" ip link set "$dev" up
        in_node "${end%:*}" tipc bearer enable media eth device "$dev" || die "bearer $dev"
        [ -z "$tolerance" ] || in_node "${end%:*}" tipc bearer set tolerance "$tolerance" media eth device "$dev"
    done
}

link_to_others() { # NODE: links it to every node before it in the list
    local node=$1 other
    for other in $(node_ids); do
        [ "$other" = "$node" ] && return
        link_nodes "$other" "$node"
    done
}

links_up() { # NODE: prints how many of its links are up
    in_node "$1" tipc link list 2>/dev/null | grep -v '^broadcast-link' | grep -c ': up'
}

# On a loaded machine a link was seen that did not come up by itself, so after 20 s the node's links are taken down and up.
wait_links() {
    local ids node others since
    ids=$(node_ids)
    for node in $ids; do
        [ -n "$(node_pid "$node")" ] || continue
        others=0
        for other in $ids; do
            [ "$other" != "$node" ] && [ -n "$(node_pid "$other")" ] && others=$((others + 1))
        done
        since=$SECONDS
        until [ "$(links_up "$node")" -ge "$others" ]; do
            sleep 0.05
            [ $((SECONDS - since)) -ge 20 ] || continue
            set_links down "$node"
            set_links up "$node"
            since=$SECONDS
        done
    done
}

each_link_end() { # A [B] : prints node and device of both ends of A's links, or of the one to B
    local a=$1 b=$2 other
    for other in $(node_ids); do
        [ "$other" = "$a" ] && continue
        [ -n "$b" ] && [ "$other" != "$b" ] && continue
        echo "$a $(device "$a" "$other")"
        echo "$other $(device "$other" "$a")"
    done
}

set_links() { # up|down A [B]
    local state=$1 node dev
    while read -r node dev; do
        [ -n "$(node_pid "$node")" ] && in_node "$node" ip link set "$dev" "$state" 2>/dev/null
    done < <(each_link_end "$2" "${3:-}")
    return 0
}

node_processes() { # NODE: prints the pids in its network namespace
    local ns pid
    ns=$(readlink "/proc/$(node_pid "$1")/ns/net") || return 0
    for pid in /proc/[0-9]*; do
        [ "$(readlink "$pid/ns/net" 2>/dev/null)" = "$ns" ] && echo "${pid#/proc/}"
    done
}

node_down() { # NODE: as when a board loses its power. The links go down first, so that no message of dying processes leaves
    set_links down "$1"
    # shellcheck disable=SC2046
    kill -9 $(node_processes "$1") 2>/dev/null
    rm -f "$LAB_RUN/nodes/$1/pid"
}

node_up() {
    local other
    start_node "$1"
    for other in $(node_ids); do
        [ "$other" = "$1" ] && continue
        [ -n "$(node_pid "$other")" ] || continue
        # The old device stays until the kernel has removed the dead node's namespace.
        in_node "$other" ip link del "$(device "$other" "$1")" 2>/dev/null
        link_nodes "$other" "$1"
    done
}

show_links() {
    local node
    for node in $(node_ids); do
        echo "node $node:"
        [ -n "$(node_pid "$node")" ] && in_node "$node" tipc link list | grep -v broadcast-link
    done
}

wire_up() { # NODE: makes one of two machines, the whole of which is one node
    local node=$1 path template dir
    prepare_files "$node"
    echo 1 >"$LAB_RUN/nodes/$node/pid"
    while IFS='=' read -r path template; do
        dir=$(dirname "$path")
        mountpoint -q "$dir" && [ -e "$dir/.lab_node" ] && continue
        : >"$LAB_RUN/nodes/$node$dir/.lab_node"
        mount --bind "$LAB_RUN/nodes/$node$dir" "$dir"
    done < <(setting node_files)
    ip link set eth0 up
    tipc node set identity "machine$node"
    tipc bearer enable media eth device eth0 || die "no bearer on the wire"
    until tipc link list | grep -v '^broadcast-link' | grep -q ': up'; do sleep 0.05; done
}

make_cluster() {
    local node key value
    # Some settings belong to the kernel, not to a network namespace.
    while IFS='=' read -r key value; do
        sysctl -q -w "$key=$value" || die "sysctl $key"
    done < <(setting sysctls)
    if [ -n "$(setting machine)" ]; then
        wire_up "$(setting machine)"
        return
    fi
    for node in $(node_ids); do start_node "$node"; done
    for node in $(node_ids); do link_to_others "$node"; done
    wait_links
}

remove_cluster() {
    local node
    [ -n "$(setting machine)" ] && return
    for node in $(node_ids); do
        # shellcheck disable=SC2046
        is_node "$node" && kill -9 $(node_processes "$node") 2>/dev/null
    done
}

run_command() { # runs the command with the caller's folder, environment and arguments
    local words=() word
    while IFS= read -r -d '' word; do words+=("$word"); done <"$LAB_RUN/ctl/command"
    while IFS= read -r -d '' word; do export "${word?}"; done <"$LAB_RUN/ctl/environment"
    LAB_NODES=$(node_ids) LAB=$(setting lab)
    export LAB_NODES LAB PATH="${LAB%/*}:$PATH"
    cd "$(setting directory)" || exit 125
    "${words[@]}"
}

guest_main() {
    export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
    trap 'echo $? >"$LAB_RUN/ctl/status"' EXIT
    make_cluster
    (run_command)
}

[ "${1:-}" != guest ] || [ "${BASH_SOURCE[0]}" != "$0" ] || guest_main
