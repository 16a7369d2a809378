// The two message tables of the error formatters.
#ifndef TRACE_MESSAGES_H
#define TRACE_MESSAGES_H

#include "xbsa_session.h"

// Rows end with the number 0, whose text a look-up never returns.
extern const MsgTbl asSocketMessages[];
extern const MsgTbl asNameMessages[];

#endif
