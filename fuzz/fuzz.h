// What the fuzz targets share: the input, and a world of one's own around the library. The calls by
// which the library reaches servers, files, the utility and the environment are taken by the linker
// to world.cpp, so that a run needs no network, starts no child and is over in microseconds.
#ifndef FUZZ_FUZZ_H
#define FUZZ_FUZZ_H

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "journal/journal.h"
#include "record/record.h"
#include "trace/trace.h"

// A finding: the fuzzer keeps the input and ends.
#define CHECK(bTrue) ((bTrue) ? (void)0 : fuzz_Fail(__FILE__, __LINE__, #bTrue))
[[noreturn]] void fuzz_Fail(const char *cpFile, int iLine, const char *cpWhat);

// The bytes of a run are switches first, then texts. Each of these takes one from the front.
unsigned fuzz_Byte(std::string &X_strBytes);                 // 0 at the end
std::string fuzz_Text(std::string &X_strBytes, char I_cEnd); // without its end character

struct WORLD
{
    // What the library finds
    std::string strReplies; // on the control connection, all at once, then the end
    std::string strData;    // on the data connection of a restore
    bool bNoHost = false;   // names are not found
    bool bDeaf = false;     // the server has closed before it is sent anything
    bool bNoData = false;   // no data connection comes
    bool bStranger = false; // it comes from another address
    std::map<std::string, std::string> mapFiles;
    std::map<std::string, std::string> mapEnvironment;
    std::vector<std::string> vecAnswers; // of the utility, one a run

    // What the library did
    std::string strHeard;                 // by the server on the control connection
    std::string strStored;                // and on the data connection
    std::string strWritten;               // to files
    std::string strTrace;                 // the lines of the trace
    std::vector<std::string> vecCommands; // for the shell
};

extern WORLD sWorld;

void fuzz_One(std::string &X_strBytes); // the target; the world and the record are new

// Opens a session whose trace goes to strTrace, in Informix mode with the server "srv".
long fuzz_Init(unsigned I_uLevel, bool I_bStrict, bool I_bInformix);

void fuzz_Listen(); // takes what the library has sent so far

void fuzz_CheckRecord(); // its texts end within their fields; also done after each run

#endif
