/*
 * The agent's own capture of the system log: a background "logread -f"
 * that fills "/tmp/cloud_log_file" while log streaming is on.  Its process
 * id is kept in "/tmp/cloud_logread_pid", and only that process is ever
 * stopped: the system's own followers (a remote-syslog forwarder, say) are
 * left alone.
 *
 * Every function here runs device commands through the shell runner; none
 * returns anything to free.
 */
#ifndef KC_CLIENT_LOG_CAPTURE_H
#define KC_CLIENT_LOG_CAPTURE_H

#define LOG_CAPTURE_FILE "/tmp/cloud_log_file"
#define LOG_CAPTURE_PID_FILE "/tmp/cloud_logread_pid"

/* Stops the capture the agent started (the process named in the id file,
 * if it is still a logread) and removes the id file. */
void stopOwnLogCapture(void);
/* Streaming on: stops the agent's capture, removes an old capture file
 * and starts a new follower. */
void startLogCapture(void);
/* Streaming off: stops the capture and removes the file. */
void stopLogCapture(void);
/* After a streamed result (or to discard the lines): stop, remove, start. */
void restartLogCapture(void);
/* At start-up: a capture left running by an earlier instance of the agent
 * (killed, or crashed) is stopped and its file removed, so that it does
 * not fill /tmp until the next reboot. */
void stopLeftoverLogCapture(void);

#endif
