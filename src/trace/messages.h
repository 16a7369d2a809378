// The two message tables of the error formatters.
#ifndef TRACE_MESSAGES_H
#define TRACE_MESSAGES_H

#include "xbsa_session.h"

// The row with the number 0 ends a table. A look-up never returns its text.
extern const MsgTbl asSocketMessages[];
extern const MsgTbl asNameMessages[];

#endif
