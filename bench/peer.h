// Shared by the benchmark's programs: clocks, sockets, and the two ends of a data connection.
#ifndef PEER_H
#define PEER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum
{
    PIECE = 262144, // bytes per call at the server's end, larger than any client block
    BACKLOG = 64
};

static inline void Check(int bGood, const char *cpWhat)
{
    if (bGood) return;
    perror(cpWhat);
    exit(1);
}

// The client's block. Its offset within a page matters, so all programs use that of a large block
// from malloc, or with BENCH_PAGE the start of a page. It is written once, because pages that were
// never written share one page of zeros, which is sent faster than real data.
static inline char *Block(void)
{
    static _Alignas(4096) char acPages[16 + 65536];
    if (acPages[16] == 0) memset(acPages, 1, sizeof acPages);
    return getenv("BENCH_PAGE") != NULL ? acPages : acPages + 16;
}

static inline double Now(void)
{
    struct timespec sNow;
    clock_gettime(CLOCK_MONOTONIC, &sNow);
    return (double)sNow.tv_sec + (double)sNow.tv_nsec / 1e9;
}

// CPU seconds of this process, in user and system mode, without its children.
static inline double Cpu(void)
{
    struct rusage sUsage;
    getrusage(RUSAGE_SELF, &sUsage);
    return (double)(sUsage.ru_utime.tv_sec + sUsage.ru_stime.tv_sec) +
           (double)(sUsage.ru_utime.tv_usec + sUsage.ru_stime.tv_usec) / 1e6;
}

static inline int Connect(struct in_addr sHost, int iPort)
{
    struct sockaddr_in sTo = {.sin_family = AF_INET, .sin_port = htons((in_port_t)iPort)};
    sTo.sin_addr = sHost;
    int hSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Check(connect(hSocket, (struct sockaddr *)&sTo, sizeof sTo) == 0, "connect");
    return hSocket;
}

// Listens on a port that the system chooses. Returns the listener.
static inline int Listen(struct in_addr sHost, int *ipPort)
{
    struct sockaddr_in sOwn = {.sin_family = AF_INET, .sin_addr = sHost};
    socklen_t uSize = sizeof sOwn;
    int hListener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Check(bind(hListener, (struct sockaddr *)&sOwn, sizeof sOwn) == 0, "bind");
    Check(listen(hListener, BACKLOG) == 0, "listen");
    Check(getsockname(hListener, (struct sockaddr *)&sOwn, &uSize) == 0, "getsockname");
    *ipPort = ntohs(sOwn.sin_port);
    return hListener;
}

// The server's end of a store. The system discards the bytes without copying them, so that only the
// client is measured.
static inline void Discard(int hData)
{
    static char acPiece[PIECE];
    while (recv(hData, acPiece, sizeof acPiece, MSG_TRUNC) > 0)
    {
    }
}

// The server's end of a restore.
static inline void Produce(int hData, long long llBytes)
{
    static char acPiece[PIECE];
    while (llBytes > 0)
    {
        size_t uPiece = llBytes < PIECE ? (size_t)llBytes : PIECE;
        ssize_t iSent = send(hData, acPiece, uPiece, MSG_NOSIGNAL);
        if (iSent <= 0) return;
        llBytes -= iSent;
    }
}

#endif
