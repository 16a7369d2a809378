#include "tracelog.h"

#include "errors.h"

void tracelog_Run(const SETTINGS &I_sSettings)
{
    (void)I_sSettings;
    throw FAILURE("not there yet");
}
