// The open log file.
#ifndef TRACE_LOG_H
#define TRACE_LOG_H

// Whether lines can go to the record's log. Forgets a log of our own that the host has closed: its
// number may be the host's by now.
bool i_IsLogOpen();

#endif
