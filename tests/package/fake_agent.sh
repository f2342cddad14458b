#!/bin/sh
# Stand-in for /usr/bin/korvat-cloud in the service-script tests: appends
# "start PID ARGS..." and each signal it gets ("TERM PID", "USR1 PID") to
# /tmp/fake-agent.log, prints one line on stdout and one on stderr, and
# idles.  It ignores SIGTERM while /tmp/fake-agent.ignore-term exists; on
# SIGUSR1 it restarts its service in the background the way the agent does
# after a server-URL change.
LOG=/tmp/fake-agent.log
echo "start $$ $*" >> "$LOG"
echo "stand-in agent $$ running"
echo "stand-in agent $$ stderr line" >&2

on_term() {
	echo "TERM $$" >> "$LOG"
	[ -e /tmp/fake-agent.ignore-term ] || exit 143
}

on_usr1() {
	echo "USR1 $$" >> "$LOG"
	/etc/init.d/korvatCloud restart > /dev/null 2>&1 &
}

if [ -e /tmp/fake-agent.timer ]; then
    agent=$$
    (
        trap 'echo "TIMER-TERM $(sh -c "echo \$PPID")" >> "$LOG"; kill -9 "$agent"; exit 0' TERM
        sh -c 'echo $PPID' > /tmp/cloud_timer_pid
        while :; do
            sleep 1 &
            wait $!
        done
    ) &
fi

trap on_term TERM
trap on_usr1 USR1
while :; do
	sleep 1 &
	wait $!
done
