// What the fuzz targets share: the input, and a simulated world around the library. The linker
// redirects the library's calls for servers, files, the utility and the environment to world.cpp,
// so that a run needs no network, starts no child and takes microseconds.
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

// Reports a finding: the fuzzer keeps the input and ends.
#define CHECK(bTrue) ((bTrue) ? (void)0 : fuzz_Fail(__FILE__, __LINE__, #bTrue))
[[noreturn]] void fuzz_Fail(const char *cpFile, int iLine, const char *cpWhat);

// The input of a run begins with switches, followed by texts. These functions take one from the
// front.
unsigned fuzz_Byte(std::string &X_strBytes);                 // 0 at the end
std::string fuzz_Text(std::string &X_strBytes, char I_cEnd); // without the end character

struct WORLD
{
    // What the library finds
    std::string strReplies; // on the control connection, all at once, then a close
    std::string strData;    // on the data connection of a restore
    bool bNoHost = false;   // name look-ups fail
    bool bDeaf = false;     // the server closes before it receives anything
    bool bNoData = false;   // the server opens no data connection
    bool bStranger = false; // the data connection comes from another address
    std::map<std::string, std::string> mapFiles;
    std::map<std::string, std::string> mapEnvironment;
    std::vector<std::string> vecAnswers; // of the utility, one per run

    // What the library did
    std::string strHeard;                 // received by the server on the control connection
    std::string strStored;                // and on the data connection
    std::string strWritten;               // written to files
    std::string strTrace;                 // the lines of the trace
    std::vector<std::string> vecCommands; // passed to the shell
};

extern WORLD sWorld;

void fuzz_One(std::string &X_strBytes); // the target; world and record are new

// Opens a session whose trace goes to strTrace, in Informix mode with the server "srv".
long fuzz_Init(unsigned I_uLevel, bool I_bStrict, bool I_bInformix);

void fuzz_Listen(); // collects what the library has sent so far

void fuzz_CheckRecord(); // checks that texts end within their fields; also runs after each run

#endif
