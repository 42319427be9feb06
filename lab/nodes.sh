#!/bin/bash
# Nodes, links and faults; sourced by inside.sh and by the commands inside a run.
#
# A node is a network and a mount namespace, held by two bind-mounted files,
# state/ID.net and state/ID.mnt. Its eth0 leads to port swID of a bridge in a
# namespace of its own, the switch. A cut is a pair of filters on the ports:
# frames are lost, yet no carrier drops, as with real boards on a real switch.
# state/ID.up, state/A-B.cut (A < B) say what the links should be.

state=$LAB_RUN/state
# shellcheck source=/dev/null
source "$state/spec"
export PATH=$PATH:/usr/sbin:/sbin

lab_die() {
	echo "lab: $*" >&2
	exit 125
}

in_switch() {
	nsenter --net="$state/switch.net" -- "$@"
}

in_node() {
	local id=$1
	shift
	nsenter --net="$state/$id.net" --mount="$state/$id.mnt" -- "$@"
}

# A known node, so that no other word becomes a part of a path.
check_node() {
	local id
	for id in $SPEC_NODES; do
		[[ $id == "${1-}" ]] && return
	done
	lab_die "no node '${1-}' (nodes: $SPEC_NODES)"
}

node_is_up() {
	[[ -e $state/$1.up ]]
}

node_mac() {
	printf '02:00:00:00:%02x:%02x' $(($1 >> 8)) $(($1 & 255))
}

cut_file() {
	if (($1 < $2)); then echo "$state/$1-$2.cut"; else echo "$state/$2-$1.cut"; fi
}

# --- files of a node -------------------------------------------------------

# Says once for all nodes how the files get into place, one line each in
# state/binds:  KIND PATH  with KIND
#   file   only the file is the node's own (its folder must stay shared)
#   new    a folder that was not there before
#   merge  a folder that exists: the node gets one with links to all its entries
lab_plan_files() {
	local path dir above
	: >"$state/binds"
	for path in "${SPEC_FILES[@]}"; do
		dir=$(dirname -- "$path")
		if [[ -d $dir ]]; then
			if is_shared_folder "$dir"; then
				[[ -e $path ]] || { : >"$path" && echo "file $path" >>"$state/placeholders"; }
				echo "file $path"
			else
				echo "merge $dir"
			fi
			continue
		fi
		above=$dir
		while [[ ! -d $(dirname -- "$above") ]]; do above=$(dirname -- "$above"); done
		if is_shared_folder "$(dirname -- "$above")"; then
			mkdir "$above" && echo "dir $above" >>"$state/placeholders"
			echo "new $above"
		else
			echo "merge $(dirname -- "$above")"
		fi
	done >>"$state/binds.all" || return
	sort -u "$state/binds.all" >"$state/binds"
}

is_shared_folder() {
	[[ $1 == / || $1 == /tmp || $1 == /run || $1 == /dev/shm ]]
}

# On the host the mount points in shared folders outlive the run.
lab_remove_placeholders() {
	local kind path
	[[ -e $state/placeholders ]] || return 0
	while read -r kind path; do
		if [[ $kind == dir ]]; then rmdir -- "$path"; else rm -f -- "$path"; fi
	done <"$state/placeholders"
}

# Writes the node's files below nodes/ID.
write_files() {
	local id=$1 own=$LAB_RUN/nodes/$1 i path kind text
	rm -rf "$own" && mkdir -p "$own" || return
	for i in "${!SPEC_FILES[@]}"; do
		path=${SPEC_FILES[i]}
		mkdir -p "$own$(dirname -- "$path")" || return
		# A trailing x keeps the newlines at the end.
		text=$(cat "$LAB_RUN/ctl/files/$i" && echo x) || return
		text=${text%x}
		printf %s "${text//@NODE@/$id}" >"$own$path" || return
	done
	while read -r kind path; do
		[[ $kind == merge ]] || continue
		# Entries that the node has of its own stay; ln complains and goes on.
		ln -s "$LAB_RUN/root$path"/* "$LAB_RUN/root$path"/.[!.]* "$own$path/" 2>/dev/null
	done <"$state/binds"
	return 0
}

# Puts them in place; called in the node's mount namespace.
bind_files() {
	local own=$LAB_RUN/nodes/$1 kind path
	while read -r kind path; do
		mount --bind "$own$path" "$path" || return
	done < <(sort -k2 "$state/binds")
}

# --- starting nodes --------------------------------------------------------

apply_sysctls() {
	local pair key
	for pair in "${SPEC_SYSCTL[@]}"; do
		key=/proc/sys/${pair%%=*}
		key=${key//.//}
		# Some of them are the machine's, and not there in a node.
		[[ -e $key || $1 == everywhere ]] || continue
		echo "${pair#*=}" >"$key" || return
	done
}

start_tipc() {
	local id=$1
	if [[ $SPEC_ADDRESS == legacy ]]; then
		tipc node set address "1.1.$id" || return
	else
		tipc node set identity "node$id" || return
	fi
	tipc bearer enable media eth device eth0 || return
	[[ -z $SPEC_TOLERANCE ]] ||
		tipc bearer set tolerance "$SPEC_TOLERANCE" media eth device eth0
}

# Called inside the new namespaces.
set_up_node() {
	local id=$1
	apply_sysctls if-there &&
		ip -batch - <<<$'link set lo up\nlink set eth0 up' &&
		bind_files "$id" &&
		start_tipc "$id"
}

# Makes the given nodes, all at once.
make_nodes() {
	local id pids=()
	for id; do
		: >"$state/$id.net" && : >"$state/$id.mnt" || return
		unshare --net="$state/$id.net" --mount="$state/$id.mnt" --propagation private true &
		pids+=($!)
		write_files "$id" || return
	done
	wait_for "${pids[@]}" || return
	for id; do
		echo "link add name sw$id type veth peer name eth0 address $(node_mac "$id") netns $state/$id.net"
		echo "link set dev sw$id master br0 up"
	done | in_switch ip -batch - || return
	pids=()
	for id; do
		in_node "$id" bash -c 'source "$1"; set_up_node "$2"' bash "$here/nodes.sh" "$id" &
		pids+=($!)
	done
	wait_for "${pids[@]}" || return
	for id; do : >"$state/$id.up" || return; done
}

wait_for() {
	local pid failed=0
	for pid; do wait "$pid" || failed=1; done
	return $failed
}

lab_start_nodes() {
	[[ -n $SPEC_NODES ]] || { [[ $LAB_MODE == host ]] || apply_sysctls everywhere; return; }
	[[ $LAB_MODE == host ]] || apply_sysctls everywhere || return
	lab_plan_files || return
	if [[ -s $state/binds ]]; then
		mkdir -p "$LAB_RUN/root" && mount --rbind / "$LAB_RUN/root" || return
	fi
	: >"$state/switch.net"
	unshare --net="$state/switch.net" \
		ip link add br0 up type bridge forward_delay 0 mcast_snooping 0 || return
	# shellcheck disable=SC2086
	make_nodes $SPEC_NODES && cmd_wait_links
}

# --machines: the whole machine is the node.
lab_start_machine() {
	local id=$SPEC_MACHINE
	apply_sysctls everywhere && lab_plan_files || return
	if [[ -s $state/binds ]]; then
		mkdir -p "$LAB_RUN/root" && mount --rbind / "$LAB_RUN/root" || return
	fi
	write_files "$id" && bind_files "$id" &&
		ip link set eth0 up && start_tipc "$id" || return
	for id in $SPEC_NODES; do : >"$state/$id.up"; done
	cmd_wait_links
}

# --- links -----------------------------------------------------------------

# How many links of node $1 should be up.
links_wanted() {
	local peer count=0
	for peer in $SPEC_NODES; do
		if [[ $peer != "$1" ]] && node_is_up "$peer" && [[ ! -e $(cut_file "$1" "$peer") ]]; then
			((count += 1))
		fi
	done
	echo $count
}

links_up() {
	local list line count=0
	list=$(on_node "$1" tipc link list 2>/dev/null)
	while read -r line; do
		[[ $line == broadcast-link:* || $line != *": up" ]] || ((count += 1))
	done <<<"$list"
	echo $count
}

on_node() {
	if [[ -n $SPEC_MACHINE ]]; then
		shift
		"$@"
	else
		in_node "$@"
	fi
}

# The nodes whose links can be seen from here.
nodes_seen() {
	local id
	for id in ${SPEC_MACHINE:-$SPEC_NODES}; do
		! node_is_up "$id" || echo "$id"
	done
}

links_as_wanted() {
	local id
	for id in $(nodes_seen); do
		[[ $(links_up "$id") == "$(links_wanted "$id")" ]] || return
	done
}

# Whole seconds since boot: the wall clock may be set meanwhile.
uptime_s() {
	local up _
	read -r up _ </proc/uptime
	echo "${up%.*}"
}

# Until the kernel sees what the lab made: links up, and cut ones down.
cmd_wait_links() {
	local limit=${1:-30} start
	start=$(uptime_s)
	until links_as_wanted; do
		if (($(uptime_s) - start >= limit)); then
			echo "lab: links not as wanted after $limit s:" >&2
			cmd_links >&2
			return 1
		fi
		sleep 0.05
	done
}

cmd_links() {
	local id
	for id in ${SPEC_MACHINE:-$SPEC_NODES}; do
		if ! node_is_up "$id"; then
			echo "node $id: down"
			continue
		fi
		echo "node $id: $(links_up "$id") of $(links_wanted "$id") links up"
		on_node "$id" tipc link list | sed '/^broadcast-link/d; s/^/  /'
	done
	for id in "$state"/*.cut; do
		[[ ! -e $id ]] || { id=${id##*/}; echo "cut: ${id%.cut}"; }
	done
}

# pairs NODE [PEER]: the pairs that a cut or heal is about.
pairs() {
	local peer
	check_node "$1"
	if (($# > 1)); then
		check_node "$2"
		[[ $1 != "$2" ]] || lab_die "a node has no link to itself"
		echo "$1 $2"
		return
	fi
	for peer in $SPEC_NODES; do
		[[ $peer == "$1" ]] || echo "$1 $peer"
	done
}

cmd_cut() {
	local list a b
	[[ -z $SPEC_MACHINE ]] || { cut_wire; return; }
	list=$(pairs "$@") || exit
	[[ -n $list ]] || return 0
	# Ports that have the hook already answer "File exists".
	while read -r a b; do
		echo "qdisc add dev sw$a clsact"
		echo "qdisc add dev sw$b clsact"
	done <<<"$list" | in_switch tc -force -batch - 2>/dev/null
	while read -r a b; do
		node_is_up "$a" && node_is_up "$b" || continue
		drop_rule replace "$a" "$b"
		drop_rule replace "$b" "$a"
		: >"$(cut_file "$a" "$b")"
	done <<<"$list" | in_switch tc -batch -
}

cmd_heal() {
	local list a b
	[[ -z $SPEC_MACHINE ]] || { tc qdisc del dev eth0 clsact 2>/dev/null; rm -f "$state"/*.cut; return 0; }
	list=$(pairs "$@") || exit
	while read -r a b; do
		[[ -e $(cut_file "$a" "$b") ]] || continue
		rm -f "$(cut_file "$a" "$b")"
		drop_rule del "$a" "$b"
		drop_rule del "$b" "$a"
	done <<<"$list" | in_switch tc -force -batch - 2>/dev/null
	return 0
}

# What leaves the switch at port $2 and came from $3.
drop_rule() {
	case $1 in
	replace) echo "filter replace dev sw$2 egress protocol all pref $3 handle 1 flower src_mac $(node_mac "$3") action drop" ;;
	del) echo "filter del dev sw$2 egress pref $3" ;;
	esac
}

cut_wire() {
	local peer side
	tc qdisc add dev eth0 clsact 2>/dev/null
	for side in ingress egress; do
		tc filter replace dev eth0 $side protocol all pref 1 handle 1 flower action drop || return
	done
	for peer in $SPEC_NODES; do
		[[ $peer == "$SPEC_MACHINE" ]] || : >"$(cut_file "$SPEC_MACHINE" "$peer")"
	done
}

cmd_netem() {
	[[ -n $SPEC_MACHINE ]] ||
		lab_die "nodes of one kernel pass messages past the link: loss and delay need --machines 2"
	if [[ $* == off ]]; then
		tc qdisc del dev eth0 root 2>/dev/null
		return 0
	fi
	tc qdisc replace dev eth0 root netem "$@"
}

# --- processes and nodes ---------------------------------------------------

cmd_exec() {
	local id=${1-}
	check_node "$id"
	shift
	[[ ${1-} != -- ]] || shift
	(($# > 0)) || lab_die "exec: no command"
	if [[ -n $SPEC_MACHINE ]]; then
		[[ $id == "$SPEC_MACHINE" ]] || lab_die "node $id is another machine"
		LAB_NODE=$id exec -- "$@"
	fi
	node_is_up "$id" || lab_die "node $id is down"
	# Entering a mount namespace loses the working directory: env restores it.
	exec nsenter --net="$state/$id.net" --mount="$state/$id.mnt" -- \
		env -C "$PWD" "LAB_NODE=$id" "$@"
}

# Sends signal $2 to every process of node $1; true if there was one.
signal_node() {
	local dir pid found=1
	for dir in /proc/[0-9]*; do
		[[ $dir/ns/net -ef $state/$1.net ]] || continue
		pid=${dir#/proc/}
		kill "-$2" "$pid" 2>/dev/null && found=0
	done
	return $found
}

# A board that loses power sends nothing more, not even what the kernel sends
# for a dying process. So: stop the processes, lose all frames, let the links
# time out, and only then kill.
cmd_node_down() {
	local id=${1-}
	[[ -z $SPEC_MACHINE ]] || lab_die "node-down: not with --machines"
	check_node "$id"
	node_is_up "$id" || return 0
	signal_node "$id" STOP
	in_switch ip link set "sw$id" nomaster || return
	rm -f "$state/$id.up"
	cmd_wait_links
	while (($(links_up "$id") > 0)); do sleep 0.05; done
	while signal_node "$id" KILL; do sleep 0.01; done
	in_switch ip link del "sw$id"
	umount "$state/$id.net" "$state/$id.mnt"
	rm -f "$state"/"$id"-*.cut "$state"/*-"$id".cut
}

# Returns when its links are up.
cmd_node_up() {
	local id=${1-}
	[[ -z $SPEC_MACHINE ]] || lab_die "node-up: not with --machines"
	check_node "$id"
	! node_is_up "$id" || return 0
	make_nodes "$id" && cmd_wait_links
}

# Each machine counts its own visits, so that a name can be used again.
cmd_barrier() {
	local name=${1-} limit=${2:-60} sync=$LAB_RUN/sync visit id start
	[[ -n $SPEC_MACHINE ]] || return 0
	[[ $name =~ ^[A-Za-z0-9_.-]+$ ]] || lab_die "barrier: a name of letters, digits, . _ -"
	visit=$(($(cat "$state/barrier.$name" 2>/dev/null || echo 0) + 1))
	echo "$visit" >"$state/barrier.$name"
	: >"$sync/$name.$visit.$SPEC_MACHINE" || return
	start=$(uptime_s)
	for id in $SPEC_NODES; do
		until [[ -e $sync/$name.$visit.$id ]]; do
			(($(uptime_s) - start < limit)) ||
				lab_die "barrier $name: machine $id did not come within $limit s"
			sleep 0.02
		done
	done
}

lab_command() {
	local name=$1
	shift
	"cmd_${name//-/_}" "$@"
}
