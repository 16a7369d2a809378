// Allocation wrappers and the stopwatch.
#include <cstdlib>
#include <ctime>

#include "xbsa_session.h"

// The record of ftime, which current C libraries no longer have.
typedef struct
{
    time_t lSeconds;
    unsigned short usMilliseconds;
    short sTimeZone;
    short sDaylight;
} TIMER;

void *x_Malloc(size_t uSize)
{
    return malloc(uSize);
}

void x_Free(void *vpMemory)
{
    free(vpMemory);
}

static int ReadClock(TIMER *spTimer)
{
    struct timespec sNow = {0, 0};
    int iRet = clock_gettime(CLOCK_REALTIME, &sNow);
    spTimer->lSeconds = sNow.tv_sec;
    spTimer->usMilliseconds = static_cast<unsigned short>(sNow.tv_nsec / 1000000);
    spTimer->sTimeZone = 0;
    spTimer->sDaylight = 0;
    return iRet;
}

int x_TimerStart(void **vppTimer)
{
    TIMER *spTimer = static_cast<TIMER *>(x_Malloc(sizeof(TIMER)));
    *vppTimer = spTimer;
    return spTimer == nullptr ? -1 : ReadClock(spTimer);
}

void x_TimerStop(void *vpTimer, unsigned long *ulpMilliseconds)
{
    *ulpMilliseconds = 0;
    if (vpTimer == nullptr) return;

    TIMER *spStart = static_cast<TIMER *>(vpTimer);
    TIMER sNow;
    ReadClock(&sNow);
    long lElapsed =
        (sNow.lSeconds - spStart->lSeconds) * 1000 + sNow.usMilliseconds - spStart->usMilliseconds;
    *ulpMilliseconds = static_cast<unsigned long>(lElapsed);
    x_Free(spStart);
}
