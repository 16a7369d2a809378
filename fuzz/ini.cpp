// The INI file that names the utility's folder: what would be run is in the file as a whole.
#include "fuzz.h"

void fuzz_One(std::string &X_strBytes)
{
    static const std::string strUtility = "/olm_com_interface";
    const unsigned uLevel = fuzz_Byte(X_strBytes);
    unsigned uRoom = 1 + fuzz_Byte(X_strBytes) * 4;
    fuzz_Init(uLevel & 3, false);
    const std::string &strFile = sWorld.mapFiles["/etc/korva2000.ini"] = X_strBytes;

    std::vector<char> vecPath(uRoom);
    const size_t uSize = uRoom;
    const int iRet = find_com_intf(vecPath.data(), &uRoom);
    CHECK((iRet == 0 || iRet == 1) && strnlen(vecPath.data(), uSize) < uSize);
    if (iRet != 0) return;

    const std::string strPath = vecPath.data();
    CHECK(uRoom + strUtility.size() + 1 <= uSize && strPath.size() >= strUtility.size());
    const size_t uEnd = strPath.size() - strUtility.size();
    CHECK(strPath.substr(uEnd) == strUtility);
    CHECK(uRoom == uEnd || (uRoom == uEnd + 1 && strPath[uEnd] == '/'));
    const std::string strFolder = strPath.substr(0, uRoom);
    CHECK(strFolder.empty() || (strFolder.front() != ' ' && strFolder.back() != ' '));

    // The key stands in front of it and the line, or a NUL, ends behind it.
    const size_t uKey = strFile.find("SM_BIN_KORVA");
    CHECK(uKey != std::string::npos && strFolder.find('\n') == std::string::npos);
    for (size_t uPlace = strFile.find(strFolder, uKey); uPlace != std::string::npos;
         uPlace = strFile.find(strFolder, uPlace + 1))
    {
        const size_t uNext = strFile.find_first_not_of(" \r", uPlace + strFolder.size());
        if (uNext == std::string::npos || strFile[uNext] == '\n' || strFile[uNext] == '\0') return;
    }
    CHECK(strFolder == "a whole value of the file");
}
