// The open log file.
#ifndef TRACE_LOG_H
#define TRACE_LOG_H

// Whether lines can go to the record's log. Forgets our log if the host has closed it, because the
// host may use its number by now.
bool i_IsLogOpen();

#endif
