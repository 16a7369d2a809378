// Simulates a long line between two network namespaces, for kernels that cannot delay packets: two
// tunnel devices and one process per direction, which delays every packet.
//
//   wire RTT_MS MBIT LOSS_PER_MILLE SINK COMMAND
//
// Runs SINK at 10.9.0.2 in one namespace and the shell command COMMAND, with PORT set, at 10.9.0.1
// in the other. Needs root. Exits with the command's code. WIRE_SETUP is a command, such as sysctl,
// that runs first at both ends.
#define _GNU_SOURCE
#include "peer.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>

enum
{
    PACKETS = 16384, // in flight; further packets are dropped
    PACKET = 2048,
    QUEUE_MS = 50 // how far the queue may be ahead of the line's speed
};

typedef struct
{
    double dDue;
    ssize_t iSize;
    char acBytes[PACKET];
} UNDERWAY;

static UNDERWAY asQueue[PACKETS];

// A new network namespace with a tunnel device. Returns the device.
static int End(int iHost, int *hpNamespace)
{
    char szCommand[256];
    struct ifreq sRequest = {.ifr_flags = IFF_TUN | IFF_NO_PI};
    Check(unshare(CLONE_NEWNET) == 0, "unshare");
    *hpNamespace = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    int hTunnel = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    snprintf(sRequest.ifr_name, sizeof sRequest.ifr_name, "wire");
    Check(ioctl(hTunnel, TUNSETIFF, &sRequest) == 0, "TUNSETIFF");
    snprintf(szCommand, sizeof szCommand,
             "ip link set lo up && ip addr add 10.9.0.%d/24 dev wire && "
             "ip link set wire mtu 1500 txqueuelen 5000 up && eval \"${WIRE_SETUP:-:}\"",
             iHost);
    Check(system(szCommand) == 0, "ip");
    return hTunnel;
}

// Reads the packets that are ready at one end. Returns the new total number.
static unsigned int Take(int hFrom, unsigned int uTaken, unsigned int uGiven, double dDelay,
                         double dBytes, long lLoss)
{
    static double dFree; // when the line has sent what was read
    for (;;)
    {
        UNDERWAY *spPacket = &asQueue[uTaken % PACKETS];
        if (uTaken - uGiven == PACKETS) return uTaken;
        spPacket->iSize = read(hFrom, spPacket->acBytes, PACKET);
        if (spPacket->iSize <= 0) return uTaken;
        double dNow = Now();
        if (random() % 1000000 < lLoss || dFree - dNow > QUEUE_MS / 1e3) continue;
        dFree = (dFree > dNow ? dFree : dNow) + (double)spPacket->iSize / dBytes;
        spPacket->dDue = dFree + dDelay;
        uTaken++;
    }
}

static void Carry(int hFrom, int hTo, double dDelay, double dBytes, long lLoss)
{
    unsigned int uTaken = 0;
    unsigned int uGiven = 0;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    prctl(PR_SET_TIMERSLACK, 1000UL);
    for (;;)
    {
        struct pollfd sPoll = {hFrom, POLLIN, 0};
        double dWait = uTaken != uGiven ? asQueue[uGiven % PACKETS].dDue - Now() : 1;
        struct timespec sWait = {(time_t)dWait, (long)((dWait - (double)(time_t)dWait) * 1e9)};
        if (dWait > 0) ppoll(&sPoll, 1, &sWait, NULL);
        uTaken = Take(hFrom, uTaken, uGiven, dDelay, dBytes, lLoss);
        for (; uGiven != uTaken && asQueue[uGiven % PACKETS].dDue <= Now(); uGiven++)
        {
            const UNDERWAY *spPacket = &asQueue[uGiven % PACKETS];
            (void)!write(hTo, spPacket->acBytes, (size_t)spPacket->iSize);
        }
    }
}

// Runs a command in a namespace. Returns its process.
static pid_t Run(int hNamespace, char *const *cppCommand, int hOutput)
{
    pid_t iChild = fork();
    if (iChild != 0) return iChild;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Check(setns(hNamespace, CLONE_NEWNET) == 0, "setns");
    if (hOutput != STDOUT_FILENO) dup2(hOutput, STDOUT_FILENO);
    execvp(cppCommand[0], cppCommand);
    _exit(127);
}

int main(int iArguments, char **cppArgument)
{
    if (iArguments != 6) return 2;
    double dDelay = atof(cppArgument[1]) / 2e3;
    double dBytes = atof(cppArgument[2]) * 1e6 / 8;
    long lLoss = (long)(atof(cppArgument[3]) * 1000);
    int ahSpace[2];
    int ahPipe[2];
    int hClient = End(1, &ahSpace[0]);
    int hServer = End(2, &ahSpace[1]);
    pid_t aiCarriers[2] = {fork()};
    if (aiCarriers[0] == 0) Carry(hClient, hServer, dDelay, dBytes, lLoss);
    aiCarriers[1] = fork();
    if (aiCarriers[1] == 0) Carry(hServer, hClient, dDelay, dBytes, lLoss);

    char szPort[16] = "";
    char szAddress[] = "10.9.0.2";
    char *apSink[] = {cppArgument[4], szAddress, NULL};
    Check(pipe(ahPipe) == 0, "pipe");
    pid_t iSink = Run(ahSpace[1], apSink, ahPipe[1]);
    Check(read(ahPipe[0], szPort, sizeof szPort - 1) > 0, "sink");
    szPort[strcspn(szPort, "\n")] = '\0';
    setenv("PORT", szPort, 1);

    int iStatus = 0;
    char szShell[] = "sh";
    char szOption[] = "-c";
    char *apCommand[] = {szShell, szOption, cppArgument[5], NULL};
    waitpid(Run(ahSpace[0], apCommand, STDOUT_FILENO), &iStatus, 0);
    kill(iSink, SIGTERM);
    kill(aiCarriers[0], SIGKILL);
    kill(aiCarriers[1], SIGKILL);
    return WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : 1;
}
