// Finds the COM utility through the INI file.
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "trace/trace.h"
#include "util/util.h"

static const char szIniFile[] = "/etc/korva2000.ini";
static const char szKey[] = "SM_BIN_KORVA";
static const char szUtility[] = "olm_com_interface";

enum
{
    LINE_SIZE = 512, // bytes of one read
    PATH_EXTRA = 19  // "/", the utility's name and the terminator
};

static FILE *OpenIniFile()
{
    int hFile = x_AboveStandardError(open(szIniFile, O_RDONLY | O_CLOEXEC));
    FILE *spFile = hFile != -1 ? fdopen(hFile, "r") : nullptr;
    if (spFile == nullptr && hFile != -1) close(hFile);
    return spFile;
}

// One read. A line may contain NULs, so its end cannot be searched for. Only a read that fills the
// buffer writes its last byte; the line has then ended if the byte before is a line end.
//   bpEnded  set to whether the line ends with this piece
static bool ReadPiece(FILE *spFile, char *cpPiece, bool *bpEnded)
{
    cpPiece[LINE_SIZE - 1] = '\n';
    if (fgets(cpPiece, LINE_SIZE, spFile) == nullptr) return false;
    *bpEnded = cpPiece[LINE_SIZE - 1] != '\0' || cpPiece[LINE_SIZE - 2] == '\n';
    return true;
}

// Reads the next line without its end. The rest of a line that is longer than one read is skipped,
// because it is not a separate line.
//   bpCut  set to whether more than blanks was skipped
static bool ReadIniLine(FILE *spFile, char *cpLine, bool *bpCut)
{
    char szRest[LINE_SIZE];
    bool bEnded = false;
    if (!ReadPiece(spFile, cpLine, &bEnded)) return false;
    *bpCut = false;
    while (!bEnded && ReadPiece(spFile, szRest, &bEnded))
    {
        if (szRest[strspn(szRest, " \r\n")] != '\0') *bpCut = true;
    }
    size_t uLength = strlen(cpLine);
    while (uLength > 0 && strchr("\r\n", cpLine[uLength - 1]) != nullptr) uLength--;
    cpLine[uLength] = '\0';
    return true;
}

// The value of a "name=value" line with our key, or null.
static char *KeyValue(char *cpLine)
{
    char *cpEqual = strchr(cpLine, '=');
    if (cpEqual == nullptr) return nullptr;
    *cpEqual = '\0';
    const char *cpName = x_AllTrim(x_SkipSpaces(cpLine));
    return strcmp(cpName, szKey) == 0 ? x_AllTrim(x_SkipSpaces(cpEqual + 1)) : nullptr;
}

// Builds the path from the directory. Returns 0, or 1 if it does not fit.
static int MakePath(const char *cpFolder, char *cpPath, unsigned int *uipSize)
{
    unsigned int uLength = static_cast<unsigned int>(strlen(cpFolder));
    unsigned int uSize = *uipSize;
    *uipSize = uLength;
    if (uSize <= uLength + PATH_EXTRA) return 1;

    bool bSlash = uLength > 0 && cpFolder[uLength - 1] == '/';
    snprintf(cpPath, uSize, "%s%s%s", cpFolder, bSlash ? "" : "/", szUtility);
    return 0;
}

static int SearchFile(FILE *spFile, char *cpPath, unsigned int *uipSize)
{
    char szLine[LINE_SIZE];
    bool bCut = false;
    while (ReadIniLine(spFile, szLine, &bCut))
    {
        if (x_IsEmptyString(szLine)) continue;
        TRACE("find_com_intf: INI line found: [%s]", szLine);
        const char *cpFolder = KeyValue(szLine);
        if (cpFolder == nullptr) continue;
        if (!bCut) return MakePath(cpFolder, cpPath, uipSize);
        TRACE("find_com_intf: INI line too long.");
        return 1; // a truncated path would run another program
    }
    return cpPath[0] == '\0';
}

int find_com_intf(char *cpCOMCMD, unsigned int *uipCOMCMDLen)
{
    TRACE("find_com_intf: Searching COM utility in INI file: [%s], Variable: [%s]", szIniFile,
          szKey);
    FILE *spFile = OpenIniFile();
    if (spFile == nullptr)
    {
        TRACE("find_com_intf: Unable to open [%s] file.", szIniFile);
        return 1;
    }
    int iRet = SearchFile(spFile, cpCOMCMD, uipCOMCMDLen);
    fclose(spFile);
    return iRet;
}
