// What is under way, for others to read: a line when SIGUSR1 asks for it, and the file of --status.
// stop.cpp's thread calls status_Print and status_Tick, any thread status_End; the rest belongs to
// the main thread.
#ifndef XBSACTL_STATUS_H
#define XBSACTL_STATUS_H

#include <cstdint>
#include <string>

#include "base/settings.h"

// Starts the clock and writes the file for the first time, if one is wanted. Throws FAILURE when
// it cannot be written or is another's.
void status_Begin(const SETTINGS &I_sSettings);

// What the line says is being done.
void status_Say(const std::string &I_strWhat);

// Starts the count, and the clock of the rate, again. I_uExpected: bytes, 0 when unknown.
void status_Count(uint64_t I_uExpected);

void status_Add(uint64_t I_uBytes);

// One line to standard error; none when nobody reads there, for it must not wait.
void status_Print();

// Writes the file again. Failures are warned of once, and end nothing.
void status_Tick();

// Writes the file for the last time; the first call counts.
void status_End(int I_iExit);

#endif
