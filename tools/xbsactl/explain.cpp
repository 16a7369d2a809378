#include "explain.h"

#include "errors.h"

void explain_Run(const SETTINGS &I_sSettings)
{
    (void)I_sSettings;
    throw FAILURE("not there yet");
}

std::string explain_Hint(const std::string &I_strLine)
{
    (void)I_strLine;
    return "";
}
