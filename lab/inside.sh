#!/bin/bash
# Inside the kernel that has TIPC: makes the nodes, runs the command, leaves its
# status in ctl/status. Started by init2 in the emulated machine, or by
# outside.py in namespaces of its own on the host.

set -u
here=$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin

ctl=$LAB_RUN/ctl
state=$LAB_RUN/state
mkdir -p "$state" "$LAB_RUN/nodes"
[[ $LAB_MODE == guest ]] || mount -t tmpfs -o mode=755 lab "$state"
cp "$ctl/spec" "$state/spec"
echo "SPEC_MODE=$LAB_MODE" >>"$state/spec"
# shellcheck source=nodes.sh
source "$here/nodes.sh"

finish() {
	echo "$1" >"$ctl/status.part" && mv "$ctl/status.part" "$ctl/status"
	[[ $LAB_MODE == guest ]] || lab_remove_placeholders
	exit "$1"
}

give_up() {
	echo "lab: $*"
	finish 125
}

# Folders that the machine's own /tmp and /run would hide.
show_host_folders() {
	local dir
	for dir in "${SPEC_SHARE[@]}"; do
		mkdir -p "$dir" && mount --bind "$LAB_RUN/host$dir" "$dir" ||
			give_up "cannot show the host's $dir"
	done
	if [[ -n $SPEC_OUT ]]; then
		mkdir -p "$SPEC_OUT" &&
			mount -t 9p -o rw,cache=mmap,trans=virtio,version=9p2000.L,msize=262144,access=any \
				out "$SPEC_OUT" || give_up "cannot mount $SPEC_OUT"
	fi
}

[[ $LAB_MODE == host ]] || show_host_folders
if [[ -z $SPEC_MACHINE ]]; then
	lab_start_nodes || give_up "the nodes could not be made"
else
	lab_start_machine || give_up "the machine could not be made a node"
fi

ulimit -Hn 524288 2>/dev/null
# The shell's own word on a killed child is no output of the command.
exec 3>&2 2>/dev/null
(
	exec 2>&3 3>&-
	cd -- "$SPEC_CWD" || exit 125
	exec env -i "${SPEC_ENV[@]}" "LAB_RUN=$LAB_RUN" "${SPEC_CMD[@]}"
) &
wait $!
status=$?
exec 2>&3 3>&-
finish $status
