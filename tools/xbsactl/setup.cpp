#include "setup.h"

#include "errors.h"

int setup_Run(const SETTINGS &I_sSettings)
{
    (void)I_sSettings;
    throw FAILURE("not there yet");
}
