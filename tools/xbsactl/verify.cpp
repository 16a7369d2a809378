#include "verify.h"

#include "errors.h"

int verify_Run(const SETTINGS &I_sSettings)
{
    (void)I_sSettings;
    throw FAILURE("not there yet");
}
