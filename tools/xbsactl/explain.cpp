#include "explain.h"

#include "errors.h"

void explain_Run(const SETTINGS &I_sSettings)
{
    (void)I_sSettings;
    throw FAILURE("not there yet");
}
