#include "catalogue.h"

#include <sstream>

namespace
{
std::vector<CATALOGUE_ROW> AllRows()
{
    std::vector<CATALOGUE_ROW> vecRows;
    for (const auto *vecPart : {&catalogue_vecCodes, &catalogue_vecAnswers, &catalogue_vecMessages})
        vecRows.insert(vecRows.end(), vecPart->begin(), vecPart->end());
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
