// The open log file.
#ifndef TRACE_LOG_H
#define TRACE_LOG_H

// Tells whether lines go to a file of our own opening to which a write raises no signal.
bool i_LogIsPlain();

#endif
