// The process environment under the two names that callers know.
#include <cstdlib>

#include "xbsa_session.h"

char *xbsa_getenv(const char *cpEnvVar)
{
    return getenv(cpEnvVar);
}

char *x_getenv(const char *cpEnvVar)
{
    return getenv(cpEnvVar);
}
