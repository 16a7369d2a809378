// Fixes sizes and offsets of every record that callers or debuggers can reach: hosts built with
// these headers rely on each number.
#include <cstddef>

#include "xbsa_session.h"

#if defined(__LP64__)

#define SIZE(type, size) static_assert(sizeof(type) == (size), "size of " #type)
#define AT(type, field, offset)                                                                    \
    static_assert(offsetof(type, field) == (offset), "place of " #type "." #field)

SIZE(BSA_UInt64, 8);

SIZE(BSA_ApiVersion, 6);

SIZE(BSA_DataBlock, 16);
AT(BSA_DataBlock, numBytes, 2);
AT(BSA_DataBlock, bufferPtr, 8);

SIZE(BSA_ObjectOwner, 128);

SIZE(BSA_ObjectName, 2048);

SIZE(BSA_ObjectDescriptor, 2760);
AT(BSA_ObjectDescriptor, objectOwner, 4);
AT(BSA_ObjectDescriptor, objectName, 132);
AT(BSA_ObjectDescriptor, createTime, 2184);
AT(BSA_ObjectDescriptor, copyType, 2240);
AT(BSA_ObjectDescriptor, copyId, 2244);
AT(BSA_ObjectDescriptor, restoreOrder, 2252);
AT(BSA_ObjectDescriptor, rsv2, 2260);
AT(BSA_ObjectDescriptor, rsv3, 2291);
AT(BSA_ObjectDescriptor, estimatedSize, 2324);
AT(BSA_ObjectDescriptor, resourceType, 2332);
AT(BSA_ObjectDescriptor, objectType, 2364);
AT(BSA_ObjectDescriptor, objectStatus, 2368);
AT(BSA_ObjectDescriptor, rsv4, 2372);
AT(BSA_ObjectDescriptor, objectDescription, 2403);
AT(BSA_ObjectDescriptor, objectInfo, 2503);

SIZE(BSA_QueryDescriptor, 2608);
AT(BSA_QueryDescriptor, objectName, 128);
AT(BSA_QueryDescriptor, rsv1, 2176);
AT(BSA_QueryDescriptor, rsv2, 2232);
AT(BSA_QueryDescriptor, rsv3, 2288);
AT(BSA_QueryDescriptor, rsv4, 2344);
AT(BSA_QueryDescriptor, copyType, 2400);
AT(BSA_QueryDescriptor, rsv5, 2404);
AT(BSA_QueryDescriptor, rsv6, 2435);
AT(BSA_QueryDescriptor, rsv7, 2466);
AT(BSA_QueryDescriptor, objectType, 2500);
AT(BSA_QueryDescriptor, objectStatus, 2504);
AT(BSA_QueryDescriptor, rsv8, 2508);

SIZE(_sSession, 1568);
AT(_sSession, iLastCall, 8);
AT(_sSession, szLastMessage, 12);
AT(_sSession, iOpStatus, 1548);
AT(_sSession, dBytes, 1552);
AT(_sSession, SControl, 1560);
AT(_sSession, SData, 1564);

SIZE(_sSMS, 43064);
AT(_sSMS, iPort, 4096);
AT(_sSMS, szUser, 4100);
AT(_sSMS, szPass, 8196);
AT(_sSMS, szName, 12292);
AT(_sSMS, szPath, 14340);
AT(_sSMS, szTape, 18436);
AT(_sSMS, szMode, 22532);
AT(_sSMS, szTapeBlock, 26628);
AT(_sSMS, szInfo, 30724);
AT(_sSMS, szInter, 34820);
AT(_sSMS, ulTapeID, 38920);
AT(_sSMS, ulSegmentNum, 38928);
AT(_sSMS, szTapeLabel, 38936);
AT(_sSMS, iTCPBufsiz, 43032);
AT(_sSMS, dSavesetOffset, 43040);
AT(_sSMS, dLength, 43048);
AT(_sSMS, iOpStatus, 43056);

SIZE(_sObject, 45952);
AT(_sObject, sBSA_ObjectOwner, 2760);
AT(_sObject, sSMS, 2888);

SIZE(STUCT_COM_INPUT, 1556);
AT(STUCT_COM_INPUT, szJobName, 128);
AT(STUCT_COM_INPUT, szKORVATapeServer, 384);
AT(STUCT_COM_INPUT, szDrive, 512);
AT(STUCT_COM_INPUT, szPool, 520);
AT(STUCT_COM_INPUT, szCOMTimeOut, 776);
AT(STUCT_COM_INPUT, szSessionID, 784);
AT(STUCT_COM_INPUT, szSavesetID, 1040);
AT(STUCT_COM_INPUT, szRestoreID, 1296);
AT(STUCT_COM_INPUT, iOpenJobStarted, 1552);

SIZE(_sGlobal, 56864);
AT(_sGlobal, sObject, 1568);
AT(_sGlobal, sCOM, 47520);
AT(_sGlobal, sQueryDescriptor, 49080);
AT(_sGlobal, spQueryResult, 51688);
AT(_sGlobal, iQueryIndex, 52712);
AT(_sGlobal, ulTimeOut, 52720);
AT(_sGlobal, ucXBSATraceLevel, 52728);
AT(_sGlobal, vpExternalTraceFunc, 52736);
AT(_sGlobal, iReadTraceEnvironment, 52744);
AT(_sGlobal, szLogFile, 52748);
AT(_sGlobal, hLogFile, 56844);
AT(_sGlobal, cpTraceBuffer, 56848);
AT(_sGlobal, iQAB, 56856);

#endif
