#!/bin/sh
# A private Slurm cluster of one node on this machine, for tests and for
# trying `zarn submit` without a real cluster:
#
#   scripts/slurm-private-cluster.sh start DIR [OWNER]   # prints the SLURM_CONF line
#   export SLURM_CONF=DIR/slurm.conf
#   ...sbatch, squeue, scancel, zarn submit...
#   scripts/slurm-private-cluster.sh stop DIR
#
# Everything lives in DIR: a munged with its own generated key and socket,
# slurmctld and slurmd from a generated slurm.conf (free ports, the machine's
# own host name, proctrack/linuxproc, task/none, select/cons_tres with the
# machine's processors and memory), their state, spool, logs and process ids.
# The daemons run as the current user (root or not); nothing outside DIR is
# touched. `stop` cancels what still runs, then ends the daemons by the
# process ids they wrote, and waits for them. With OWNER (a process id), a
# watcher stops the cluster as soon as that process is gone, so that a test
# that crashes or is killed leaves no daemon behind.
#
# Exit status: 0 done; 1 the cluster could not be started (the reason and
# the end of the daemon's log on standard error, and whatever was started is
# stopped again); 2 usage; 3 the Slurm or munge programs are not installed;
# 4 this user may not start the daemons (their logs say permission denied).
set -eu

usage() {
    echo "usage: $0 start|stop|status DIR" >&2
    exit 2
}
[ $# -eq 2 ] || [ $# -eq 3 ] || usage
command=$1
dir=$2
owner=${3:-}

PATH=$PATH:/usr/sbin:/sbin
export PATH

have_programs() {
    for program in munged mungekey slurmctld slurmd sbatch squeue scancel sinfo; do
        command -v "$program" >/dev/null 2>&1 || {
            echo "slurm-private-cluster: $program is not installed (Debian packages slurm-wlm and munge)" >&2
            return 1
        }
    done
}

# A TCP port nobody listens on, from a range that is rarely in use.
free_port() {
    taken=$( (ss -Htln 2>/dev/null || netstat -tln 2>/dev/null || true) | awk '{print $4}' | sed 's/.*://')
    port=$(( ( $(od -An -N2 -tu2 /dev/urandom) % 20000 ) + 30000 ))
    while echo "$taken" | grep -qx "$port" || [ "$port" = "${1:-}" ]; do
        port=$((port + 1))
    done
    echo "$port"
}

pid_of() {
    [ -s "$dir/$1.pid" ] && cat "$dir/$1.pid" || true
}

# A process that runs: a zombie (ended, not yet reaped by a parent that
# may never reap it) counts as ended.
alive() {
    [ -n "$1" ] && kill -0 "$1" 2>/dev/null &&
        [ "$(sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | cut -c1)" != Z ]
}

# Ends a daemon by its process id file and waits (at most 10 s, then KILL).
end_daemon() {
    pid=$(pid_of "$1")
    alive "$pid" || { rm -f "$dir/$1.pid"; return 0; }
    kill -TERM "$pid" 2>/dev/null || true
    i=0
    while alive "$pid" && [ $i -lt 100 ]; do sleep 0.1; i=$((i + 1)); done
    alive "$pid" && kill -KILL "$pid" 2>/dev/null || true
    rm -f "$dir/$1.pid"
}

stop() {
    if [ -f "$dir/slurm.conf" ] && alive "$(pid_of slurmctld)"; then
        # What still runs is cancelled, so that no job step outlives the node.
        SLURM_CONF=$dir/slurm.conf scancel --full --quiet --user="$(id -un)" 2>/dev/null || true
        i=0
        while [ $i -lt 50 ] && [ -n "$(SLURM_CONF=$dir/slurm.conf squeue -h -t R,CG 2>/dev/null)" ]; do
            sleep 0.1
            i=$((i + 1))
        done
    fi
    end_daemon slurmd
    end_daemon slurmctld
    end_daemon munged
    # The watcher, unless it is the one stopping the cluster.
    [ "$(pid_of watch)" = "$$" ] || end_daemon watch
}

fail() {
    echo "slurm-private-cluster: $1" >&2
    [ -n "${2:-}" ] && [ -f "$dir/$2" ] && tail -n 15 "$dir/$2" >&2
    denied=0
    cat "$dir"/*.out "$dir"/*.log "$dir"/munge/*.out "$dir"/munge/*.log 2>/dev/null |
        grep -qiE 'permission denied|operation not permitted' && denied=1
    stop
    [ $denied -eq 1 ] && exit 4
    exit 1
}

start() {
    have_programs || exit 3
    mkdir -p "$dir"
    dir=$(cd "$dir" && pwd)
    case $dir in *[!A-Za-z0-9/._+-]*) fail "the folder $dir must not hold spaces or special characters (slurm.conf)";; esac
    alive "$(pid_of slurmctld)" && fail "a cluster already runs in $dir"
    mkdir -p "$dir/munge" "$dir/state" "$dir/spool"
    chmod 700 "$dir/munge"
    user=$(id -un)
    host=$(hostname -s)
    cpus=$(getconf _NPROCESSORS_ONLN)
    # What slurmd finds, less a margin, so that the node is never refused as
    # smaller than configured.
    memory=$(awk '/^MemTotal:/ { printf "%d", $2 / 1024 * 0.9 }' /proc/meminfo)

    # munge: a generated key, its own socket, log, seed and process id.
    rm -f "$dir/munge/munge.key"
    mungekey --create --keyfile="$dir/munge/munge.key" 2>/dev/null ||
        dd if=/dev/urandom of="$dir/munge/munge.key" bs=1024 count=1 2>/dev/null
    chmod 400 "$dir/munge/munge.key"
    munged --force --key-file="$dir/munge/munge.key" --socket="$dir/munge/munge.socket" \
        --pid-file="$dir/munged.pid" --log-file="$dir/munge/munged.log" --seed-file="$dir/munge/munged.seed" \
        >"$dir/munge/munged.out" 2>&1 || fail "munged did not start" munge/munged.out
    i=0
    while [ ! -S "$dir/munge/munge.socket" ] && [ $i -lt 50 ]; do sleep 0.1; i=$((i + 1)); done
    [ -S "$dir/munge/munge.socket" ] || fail "munged made no socket" munge/munged.log

    ctld_port=$(free_port)
    slurmd_port=$(free_port "$ctld_port")
    cat >"$dir/slurm.conf" <<EOF
# A private one-node cluster made by scripts/slurm-private-cluster.sh.
ClusterName=zarnprivate
SlurmctldHost=$host(127.0.0.1)
SlurmUser=$user
SlurmdUser=$user
SlurmctldPort=$ctld_port
SlurmdPort=$slurmd_port
AuthType=auth/munge
CredType=cred/munge
AuthInfo=socket=$dir/munge/munge.socket
StateSaveLocation=$dir/state
SlurmdSpoolDir=$dir/spool
SlurmctldPidFile=$dir/slurmctld.pid
SlurmdPidFile=$dir/slurmd.pid
SlurmctldLogFile=$dir/slurmctld.log
SlurmdLogFile=$dir/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
JobCompType=jobcomp/none
MpiDefault=none
SwitchType=switch/none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core_Memory
DefMemPerCPU=$((memory / cpus))
SchedulerType=sched/builtin
SchedulerParameters=batch_sched_delay=0,sched_min_interval=0,default_queue_depth=1000,sched_max_job_start=0
PriorityType=priority/basic
MessageTimeout=5
ReturnToService=2
MinJobAge=600
KillWait=10
InactiveLimit=0
SlurmctldTimeout=30
SlurmdTimeout=60
NodeName=$host NodeAddr=127.0.0.1 CPUs=$cpus RealMemory=$memory State=UNKNOWN
PartitionName=local Nodes=$host Default=YES MaxTime=INFINITE State=UP
EOF
    export SLURM_CONF="$dir/slurm.conf"
    slurmctld -i -f "$SLURM_CONF" >"$dir/slurmctld.out" 2>&1 || fail "slurmctld did not start" slurmctld.log
    slurmd -f "$SLURM_CONF" >"$dir/slurmd.out" 2>&1 || fail "slurmd did not start" slurmd.log
    # Ready when the node is idle.
    i=0
    while [ $i -lt 300 ]; do
        state=$(sinfo -h -n "$host" -o %t 2>/dev/null || true)
        case $state in idle*) break ;; esac
        sleep 0.1
        i=$((i + 1))
    done
    case $state in idle*) ;; *) fail "the node did not come up (state: ${state:-none})" slurmd.log ;; esac
    if [ -n "$owner" ]; then
        setsid sh "$0" watch "$dir" "$owner" </dev/null >/dev/null 2>&1 &
        echo $! >"$dir/watch.pid"
    fi
    echo "SLURM_CONF=$SLURM_CONF"
}

case $command in
start) start ;;
stop)
    [ -d "$dir" ] || exit 0
    dir=$(cd "$dir" && pwd)
    stop
    ;;
status)
    alive "$(pid_of slurmctld)" && alive "$(pid_of slurmd)" && alive "$(pid_of munged)"
    ;;
watch)
    # Runs in the background from `start DIR OWNER`: stops the cluster once
    # OWNER is gone (or once the cluster is stopped by someone else).
    [ -n "$owner" ] || usage
    echo $$ >"$dir/watch.pid"
    while alive "$owner" && alive "$(pid_of slurmctld)"; do sleep 1; done
    stop
    rm -f "$dir/watch.pid"
    ;;
*) usage ;;
esac
