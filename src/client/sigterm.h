/*
 * The SIGTERM behaviour of the agent (see sigterm.cpp for the routing of a
 * process-wide SIGTERM on today's Linux and why the work is done by a
 * thread of its own rather than inside the handler).
 */
#ifndef KC_CLIENT_SIGTERM_H
#define KC_CLIENT_SIGTERM_H

/* Starts the worker and installs kapri_sig_term for SIGTERM.  mainProcessId
 * is the main thread's id: a SIGTERM that hits it closes the connection. */
void startSigtermHandling(int mainProcessId);
/* The handler: records which thread was hit and wakes the worker. */
void kapri_sig_term(int signum);
/* Waits until the work of every SIGTERM recorded so far is done (the
 * maintenance timer calls it before its own reaction to the signal). */
void waitSigtermHandled(void);

#endif
