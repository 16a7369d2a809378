// Finds the rows of the catalogue that a text is about.
#ifndef XBSACTL_MATCH_H
#define XBSACTL_MATCH_H

#include <string>
#include <vector>

#include "explain/catalogue.h"

using ROWS = std::vector<const CATALOGUE_ROW *>;

// Rows of that number, given as 17, 0x11 or 425.
ROWS match_Number(const std::string &I_strText);

// Rows whose message stands in the line: what says most comes first, and of messages that are part
// of each other the longest alone.
ROWS match_Line(const std::string &I_strLine);

// Rows in whose message the text stands, any case.
ROWS match_Part(const std::string &I_strText);

// Rows that hold each word of the text somewhere.
ROWS match_Words(const std::string &I_strText);

#endif
