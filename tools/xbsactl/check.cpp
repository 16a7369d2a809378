#include "check.h"

#include "errors.h"

int check_Run(const SETTINGS &I_sSettings)
{
    (void)I_sSettings;
    throw FAILURE("not there yet");
}
