// The catalogue of return codes, replies and messages: the one source of xbsactl explain, of the
// hints of xbsactl trace, and of the page in the documentation.
#ifndef XBSACTL_CATALOGUE_H
#define XBSACTL_CATALOGUE_H

#include <string>
#include <vector>

// In the order of the page.
enum class ROW
{
    RETURN_CODE, // BSA_RC_
    DATABASE,    // a call that failed, as the database tells it
    EXIT_CODE,   // of xbsactl
    SERVER,      // reply of the server
    UTILITY,     // answer of the COM utility
    REASON,      // the system's text at the front of a message
    MESSAGE,     // the library's own
    HARMLESS     // looks worse than it is
};

constexpr int NO_CODE = -1;

struct CATALOGUE_ROW
{
    ROW eKind;
    int iCode;            // NO_CODE for none
    const char *cpTexts;  // divided by "|"; "..." stands for anything
    const char *cpSeen;   // one sentence: what it means, what the caller sees
    const char *cpCause;  // what usually is behind it
    const char *cpAction; // what to do
};

const std::vector<CATALOGUE_ROW> &catalogue_Rows();

// The texts of a row, one by one.
std::vector<std::string> catalogue_Texts(const CATALOGUE_ROW &I_sRow);

// The parts of the table.
struct CATALOGUE_PART
{
    const CATALOGUE_ROW *spBegin;
    const CATALOGUE_ROW *spEnd;
};

CATALOGUE_PART catalogue_Codes();
CATALOGUE_PART catalogue_Answers();
CATALOGUE_PART catalogue_Messages();

#endif
