// All JSON texts of the tool, in one source: their library takes long to compile and to check.
#ifndef XBSACTL_JSON_H
#define XBSACTL_JSON_H

#include <string>
#include <vector>

#include "base/settings.h"
#include "xbsa.h"

struct FINDING;
struct JOURNAL;

// What "query" and "check" print, which docs/xbsactl.md and docs/check.md describe: fields may be
// added, none may change.
std::string json_Copies(const SETTINGS &I_sSettings,
                        const std::vector<BSA_ObjectDescriptor> &I_vecCopies);
std::string json_Findings(bool I_bInformix, const std::vector<FINDING> &I_vecFindings);

// The file of the journal. What is none throws FAILURE.
std::string json_Journal(const JOURNAL &I_sJournal);
JOURNAL json_ReadJournal(const std::string &I_strText);

// The text in double quotes, with escapes.
std::string json_Quoted(const std::string &I_strText);

#endif
