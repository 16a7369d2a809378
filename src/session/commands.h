// Places of the lines in the command list.
#ifndef SESSION_COMMANDS_H
#define SESSION_COMMANDS_H

enum
{
    SLOT_USER,
    SLOT_PASS,
    SLOT_TYPE,
    SLOT_CWD,
    SLOT_TRANSFER,
    SLOT_QUIT
};

#endif
