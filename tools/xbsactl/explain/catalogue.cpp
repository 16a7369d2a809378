#include "explain/catalogue.h"

#include <sstream>

namespace
{
std::vector<CATALOGUE_ROW> AllRows()
{
    std::vector<CATALOGUE_ROW> vecRows;
    for (const CATALOGUE_PART &sPart :
         {catalogue_Codes(), catalogue_Answers(), catalogue_Messages()})
        vecRows.insert(vecRows.end(), sPart.spBegin, sPart.spEnd);
    return vecRows;
}
} // namespace

const std::vector<CATALOGUE_ROW> &catalogue_Rows()
{
    static const std::vector<CATALOGUE_ROW> vecRows = AllRows();
    return vecRows;
}

std::vector<std::string> catalogue_Texts(const CATALOGUE_ROW &I_sRow)
{
    std::vector<std::string> vecTexts;
    std::istringstream sTexts(I_sRow.cpTexts);
    for (std::string strText; std::getline(sTexts, strText, '|');) vecTexts.push_back(strText);
    return vecTexts;
}
