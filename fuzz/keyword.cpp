// The keyword matcher and the trimming of texts.
#include "fuzz.h"

static std::string Folded(std::string I_strText, bool I_bExact)
{
    if (!I_bExact) strupr(I_strText.data());
    return I_strText;
}

static bool IsBlank(const std::string &I_strText)
{
    return I_strText.find_first_not_of(' ') == std::string::npos;
}

void fuzz_One(std::string &X_strBytes)
{
    const bool bExact = (fuzz_Byte(X_strBytes) & 1) != 0;
    const int iMinimum = static_cast<int>(fuzz_Byte(X_strBytes)) - 4;
    const std::string strKeyword = fuzz_Text(X_strBytes, '\0');
    const std::string strEnds = fuzz_Text(X_strBytes, '\0');
    std::string strInput = fuzz_Text(X_strBytes, '\0');
    const int iMatch = x_MatchKeyword(strInput.c_str(), strKeyword.c_str(), iMinimum,
                                      strEnds.empty() ? nullptr : strEnds.c_str(), bExact);

    std::string strWord = Folded(strInput, bExact); // the input up to its end
    strWord.resize(std::min(strWord.find_first_of(strEnds), strWord.size()));
    const size_t uMinimum = iMinimum > 0 ? static_cast<size_t>(iMinimum) : strKeyword.size();
    const bool bStart = Folded(strKeyword, bExact).compare(0, strWord.size(), strWord) == 0;
    const bool bLong = strWord.size() >= std::min(uMinimum, strKeyword.size());
    CHECK(iMatch == (bStart && bLong && !IsBlank(strInput) && !IsBlank(strKeyword)));

    CHECK(x_IsEmptyString(strInput.c_str()) == IsBlank(strInput));
    const size_t uEnd = strInput.find_last_not_of(' ') + 1;
    CHECK(x_RTrim(strInput.data()) == strInput.substr(0, uEnd));
    const size_t uSpaces = strInput.size() - std::string(strInput.c_str()).size();
    CHECK(uSpaces == strInput.size() - uEnd);
    strInput.resize(uEnd);
    const size_t uLead = std::min(strInput.find_first_not_of(' '), uEnd);
    const std::string strTail = strInput.substr(uEnd - uLead);
    CHECK(x_LTrim(strInput.data()) == strInput && strInput.substr(uEnd - uLead) == strTail);
}
