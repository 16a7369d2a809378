// The open log file.
#ifndef TRACE_LOG_H
#define TRACE_LOG_H

// Tells whether lines go to a file of our own opening that cannot raise SIGPIPE.
bool i_LogIsFile();

#endif
