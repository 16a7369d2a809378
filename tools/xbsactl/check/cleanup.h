// What the check leaves on the server, removed or told.
#ifndef XBSACTL_CHECK_CLEANUP_H
#define XBSACTL_CHECK_CLEANUP_H

#include <netinet/in.h>

#include <chrono>
#include <string>
#include <vector>

#include "base/base.h"
#include "check/report.h"

// Plain road: deletes the objects, on a connection of its own.
void cleanup_Objects(CReport &I_sReport, const base::CONNECTION &I_sConnection,
                     const sockaddr_in &I_sServer, std::chrono::milliseconds I_sBound,
                     const std::vector<std::string> &I_vecNames);

// Informix: names the copies, which no client can remove.
void cleanup_Copies(CReport &I_sReport, const std::vector<std::string> &I_vecCopies);

#endif
