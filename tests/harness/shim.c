/*
 * Makes calls of the library fail, as on an overloaded or hostile system. Preloaded before the C
 * library. Counts and fails only calls from libxbsa.so, so that neither the test nor the C library
 * itself is affected.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <string.h>

enum
{
    SHORT = 0,      /* instead of an error number: the call moves one byte */
    PATIENCE = 100, /* limit of injected EINTR and EAGAIN */
    BLOCKS = 64,    /* of memory, more than the library ever has */
    UNHARMED = -1
};

/* One row for each call: its name, its result after a failure, and whether the real call is made
 * nevertheless (close fails but closes the descriptor, an interrupted connect continues). */
#define NEVER 0
#define ALWAYS 1
#define INTERRUPTED (error == EINTR)
/* clang-format off */
#define CALLS(C)                                                                                   \
    C(socket, -1, NEVER) C(bind, -1, NEVER) C(listen, -1, NEVER) C(accept4, -1, NEVER)             \
    C(connect, -1, INTERRUPTED) C(getsockname, -1, NEVER) C(getpeername, -1, NEVER)                \
    C(getsockopt, -1, NEVER) C(setsockopt, -1, NEVER) C(send, -1, NEVER) C(recv, -1, NEVER)        \
    C(poll, -1, NEVER) C(open, -1, NEVER) C(write, -1, NEVER) C(close, -1, ALWAYS)                 \
    C(fcntl, -1, NEVER) C(fdopen, 0, NEVER) C(fgets, 0, NEVER)                                     \
    C(fread, 0, NEVER) C(fclose, -1, ALWAYS) C(popen, 0, NEVER) C(pclose, -1, ALWAYS)              \
    C(getpwuid, 0, NEVER) C(gethostbyname, 0, NEVER) C(gethostbyaddr, 0, NEVER)
/* clang-format on */

#define NAME(name, failed, made) #name,
static const char *const names[] = {"malloc", CALLS(NAME) "sleep", NULL};

/* Which call fails: the n-th of that name, and with on all later ones. */
static struct
{
    int row, number, on, error;
} fault;
int shim_hits; /* number of failed calls */
static int calls[sizeof names / sizeof *names];
static char *first, *last;   /* range of the library's code */
static void *blocks[BLOCKS]; /* memory that it has not freed */

static int find_library(struct dl_phdr_info *info, size_t size, void *data)
{
    (void)size, (void)data;
    if (strstr(info->dlpi_name, "libxbsa.so") == NULL) return 0;
    for (int i = 0; i < info->dlpi_phnum; i++)
    {
        const ElfW(Phdr) *part = &info->dlpi_phdr[i];
        if (part->p_type != PT_LOAD || (part->p_flags & PF_X) == 0) continue;
        first = (char *)(info->dlpi_addr + part->p_vaddr);
        last = first + part->p_memsz;
    }
    return 1;
}

static int find(const char *name)
{
    int row = 0;
    while (names[row] != NULL && strcmp(names[row], name) != 0) row++;
    return row;
}

/* Starts counting. Returns 0 if the call is not in the table. */
int shim_arm(const char *name, int number, int on, int error)
{
    dl_iterate_phdr(find_library, NULL);
    fault = (__typeof__(fault)){find(name), number, on, error};
    shim_hits = 0;
    memset(calls, 0, sizeof calls);
    return names[fault.row] != NULL && first != NULL;
}

int shim_calls(const char *name)
{
    return calls[find(name)];
}

int shim_blocks(void)
{
    int held = 0;
    for (int i = 0; i < BLOCKS; i++) held += blocks[i] != NULL;
    return held;
}

static int is_library(const void *caller)
{
    return (const char *)caller >= first && (const char *)caller < last;
}

/* The error number for this call, or SHORT or UNHARMED. */
static int judge(const char *name, const void *caller)
{
    int row = find(name), number = is_library(caller) ? ++calls[row] : 0;
    if (number == 0 || row != fault.row || number < fault.number) return UNHARMED;
    if (number > fault.number && !fault.on) return UNHARMED;
    int passes = fault.error == EINTR || fault.error == EAGAIN;
    return passes && shim_hits >= PATIENCE ? UNHARMED : (shim_hits++, fault.error);
}

/* The headers that declare these are not included. Numbers and addresses use the same registers and
 * pass unchanged. Calls that may be partial have the size as their third argument. */
#define DEFINE(name, failed, made)                                                                 \
    long name(long a, long b, long c, long d, long e)                                              \
    {                                                                                              \
        static long (*real)(long, long, long, long, long);                                         \
        if (real == NULL) *(void **)&real = dlsym(RTLD_NEXT, #name);                               \
        int error = judge(#name, __builtin_return_address(0));                                     \
        if (error == SHORT) c = c != 0;                                                            \
        if (error == SHORT || error == UNHARMED) return real(a, b, c, d, e);                       \
        if (made) real(a, b, c, d, e);                                                             \
        errno = error;                                                                             \
        return failed;                                                                             \
    }
CALLS(DEFINE)

void *malloc(size_t size)
{
    static void *(*real)(size_t);
    if (real == NULL) *(void **)&real = dlsym(RTLD_NEXT, "malloc");
    const void *caller = __builtin_return_address(0);
    if (!is_library(caller)) return real(size);
    if (judge("malloc", caller) != UNHARMED) return errno = ENOMEM, NULL;
    int i = 0;
    while (i < BLOCKS - 1 && blocks[i] != NULL) i++;
    return blocks[i] = real(size);
}

/* Accepts any caller, because the library's last call may be a tail call. The look-up of the real
 * function may itself free an old error text; that memory is not freed. */
void free(void *memory)
{
    static void (*real)(void *);
    static int looking;
    if (real == NULL && looking++ != 0) return;
    if (real == NULL) *(void **)&real = dlsym(RTLD_NEXT, "free");
    for (int i = 0; i < BLOCKS; i++)
        if (blocks[i] == memory) blocks[i] = NULL;
    real(memory);
}

/* The library's waits between two tries are counted and return at once. */
unsigned int sleep(unsigned int seconds)
{
    static unsigned int (*real)(unsigned int);
    if (real == NULL) *(void **)&real = dlsym(RTLD_NEXT, "sleep");
    const void *caller = __builtin_return_address(0);
    return !is_library(caller) ? real(seconds) : judge("sleep", caller) == UNHARMED ? 0 : seconds;
}
