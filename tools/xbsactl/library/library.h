// The library's entry points, loaded as a database's tool loads them.
#ifndef XBSACTL_LIBRARY_H
#define XBSACTL_LIBRARY_H

#include <string>

#include "xbsa.h"

struct LIBRARY
{
    decltype(&BSAInit) fpInit = nullptr;
    decltype(&BSATerminate) fpTerminate = nullptr;
    decltype(&BSABeginTxn) fpBeginTxn = nullptr;
    decltype(&BSAEndTxn) fpEndTxn = nullptr;
    decltype(&BSACreateObject) fpCreateObject = nullptr;
    decltype(&BSASendData) fpSendData = nullptr;
    decltype(&BSAEndData) fpEndData = nullptr;
    decltype(&BSAGetObject) fpGetObject = nullptr;
    decltype(&BSAGetData) fpGetData = nullptr;
    decltype(&BSAQueryObject) fpQueryObject = nullptr;
    decltype(&BSAGetNextQueryObject) fpGetNextQueryObject = nullptr;
    decltype(&BSAGetLastError) fpGetLastError = nullptr;
    decltype(&BSASetTrace) fpSetTrace = nullptr;
    const char *(*fpTypeErr)(int) = nullptr; // text of a code; null in another library
};

// What is loaded for --library I_strPath: a path, or a name for the loader's search.
std::string library_Path(const std::string &I_strPath);

/*
 * Loads the library for the life of the process.
 *   I_strPath  path, or a name for the loader's search; empty: the one that belongs to the tool,
 *              in ../lib beside the tool's own folder, else the loader's search
 * Throws FAILURE.
 */
LIBRARY library_Load(const std::string &I_strPath);

#endif
