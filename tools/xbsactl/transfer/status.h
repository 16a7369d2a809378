// The parts of status that belong to the commands and the main thread.
#ifndef XBSACTL_STATUS_H
#define XBSACTL_STATUS_H

#include <cstdint>
#include <string>

namespace transfer
{
// What the line says is being done.
void SayStatus(const std::string &I_strWhat);

// Starts the count, and the clock of the rate, again. I_uExpected: bytes, 0 when unknown.
void CountStatus(uint64_t I_uExpected);

void AddStatus(uint64_t I_uBytes);
} // namespace transfer

#endif
