/*
 * kepd under a service manager or an init script: where its log goes, and telling
 * the manager that it serves.
 */
#ifndef KEPD_SERVICE_H
#define KEPD_SERVICE_H

/* Chooses the log's destination once, at start. foreground (-f): standard error,
 * whatever it is. Otherwise syslog (facility daemon, tag "kepd") when standard error
 * is closed, /dev/null or the journal's stream ($JOURNAL_STREAM): kepd was started in
 * the background, where nobody reads it or syslog's priorities serve the reader
 * better; else standard error (a terminal, a file, a pipe). The debug log follows it
 * to syslog. Call it before anything that may log. */
void serviceLogOpen(int foreground);
/* 1 when the log goes to syslog. */
int serviceLogsToSyslog(void);
/* Writes one finished line ("kepd: ..." and its line feed) where the log goes, at
 * priority (LOG_NOTICE, LOG_ERR) when that is syslog. Thread-safe. */
void serviceLogLine(int priority, const char *line);
/* Sends state ("READY=1", "STOPPING=1", "STATUS=...", one per line) to the service
 * manager when it asked for it with $NOTIFY_SOCKET; 0, or -1 when it could not be
 * sent (nothing is sent when nobody asked). */
int serviceNotify(const char *state);

#endif
