#!/bin/sh
# What run.sh shows, inside the private root: starts log, bus, simulated modem, connection manager and daemon, makes some calls, and
# leaves a shell (or ends, with --once). The launcher ends what is left running.
set -u

# The terminal's Ctrl-C is for the shell at the prompt, not for what runs behind it.
start() {
    name=$1
    shift
    (trap '' INT; exec "$@") >"/tmp/$name.out" 2>&1 </dev/null &
}

wait_until() {
    tries=0
    until "$@" >/dev/null 2>&1; do
        tries=$((tries + 1))
        if [ "$tries" -gt 300 ]; then
            return 1
        fi
        usleep 100000
    done
}

give_up() {
    echo "$1; what it said:" >&2
    tail -n 20 "/tmp/$2.out" /var/log/messages >&2
    exit 1
}

show() {
    echo
    echo "# $*"
    "$@"
    status=$?
    [ "$status" -eq 0 ] || echo "(exit status $status)"
}

start syslogd syslogd -n -O /var/log/messages
start ubusd ubusd
wait_until ubus list || give_up "The bus does not answer" ubusd
start wanmd wanmd_standin
start modemsim modemsim --link /dev/ttyMODEM --control /tmp/modem.control --record /tmp/modem.record
wait_until test -e /dev/ttyMODEM || give_up "The simulated modem has no port" modemsim
wait_until test -S /tmp/wanmd_celmuxd_uds_file || give_up "The connection manager has no socket" wanmd
start celmuxd celmuxd
wait_until ubus list celmux || give_up "The daemon is not on the bus" celmuxd

# The daemon begins with a network scan, during which the modem takes no commands.
wait_until sh -c 'ubus -S call celmux get_imei | grep -q imei' || give_up "The modem does not answer" celmuxd

show ubus list -v celmux
for method in get_imei get_manufacturer get_model get_sw_version get_sim_status get_imsi get_ccid get_signal_quality; do
    show ubus call celmux "$method"
done

[ "${1-}" != --once ] || exit 0

echo
echo "The shell below is inside the private root: /tmp holds what each program said, /var/log/messages the system log."
echo "\"exit\" ends everything."
PS1='celmux# ' sh -i
exit 0
