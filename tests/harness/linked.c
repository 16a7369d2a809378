/*
 * A host that is linked with the library, uses its record by name and ends through exit(). Its
 * record must be that of the library, before a call and after. Prints "ok" if so.
 */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "xbsa.h"
#include "xbsa_session.h"

int main(void)
{
    BSA_ObjectOwner sOwner = {"PLAIN", ""};
    char *cpaNothing[] = {NULL};
    long lHandle = 0;
    int bOk = sGlobal.sSession.SControl == -1;
    bOk &= BSAInit(&lHandle, NULL, &sOwner, cpaNothing) == 0;
    bOk &= sGlobal.sSession.lBSAHandle == getpid();
    sGlobal.sSession.lBSAHandle++;
    bOk &= BSATerminate(lHandle) == BSA_RC_INVALID_HANDLE;
    if (bOk) printf("ok\n");
    exit(0);
}
