/*
 * Makes calls of the library fail, as a short or hostile system would. Preloaded in front of the C
 * library; only calls that come out of libxbsa.so are counted and fail, so that neither the test
 * around it nor the C library itself is harmed.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

enum
{
    SHORT = 0,      /* in place of an error number: the call moves one byte */
    PATIENCE = 100, /* no signal comes, and no buffer is full, for ever */
    BLOCKS = 64,    /* of memory, more than the library ever holds */
    UNHARMED = -1
};

/*
 * One row for each call: result, its value in a failure, and whether the real call is made all the
 * same (a descriptor is gone even where close fails, an interrupted connect goes on); name,
 * parameters, arguments, what makes it a short one.
 */
#define NEVER 0
#define ALWAYS 1
#define INTERRUPTED (error == EINTR)
#define WHOLE (void)0
#define ONE size = size != 0
#define CALLS(C)                                                                                   \
    C(int, -1, NEVER, socket, (int family, int type, int protocol), (family, type, protocol),      \
      WHOLE)                                                                                       \
    C(int, -1, NEVER, bind, (int fd, void *address, int room), (fd, address, room), WHOLE)         \
    C(int, -1, NEVER, listen, (int fd, int backlog), (fd, backlog), WHOLE)                         \
    C(int, -1, NEVER, accept4, (int fd, void *address, void *room, int flags),                     \
      (fd, address, room, flags), WHOLE)                                                           \
    C(int, -1, INTERRUPTED, connect, (int fd, void *address, int room), (fd, address, room),       \
      WHOLE)                                                                                       \
    C(int, -1, NEVER, getsockname, (int fd, void *address, void *room), (fd, address, room),       \
      WHOLE)                                                                                       \
    C(int, -1, NEVER, getpeername, (int fd, void *address, void *room), (fd, address, room),       \
      WHOLE)                                                                                       \
    C(int, -1, NEVER, getsockopt, (int fd, int level, int key, void *value, void *room),           \
      (fd, level, key, value, room), WHOLE)                                                        \
    C(int, -1, NEVER, setsockopt, (int fd, int level, int key, void *value, int room),             \
      (fd, level, key, value, room), WHOLE)                                                        \
    C(ssize_t, -1, NEVER, send, (int fd, void *data, size_t size, int flags),                      \
      (fd, data, size, flags), ONE)                                                                \
    C(ssize_t, -1, NEVER, recv, (int fd, void *data, size_t size, int flags),                      \
      (fd, data, size, flags), ONE)                                                                \
    C(int, -1, NEVER, poll, (void *fds, long count, int wait), (fds, count, wait), WHOLE)          \
    C(int, -1, NEVER, open, (char *path, int flags, long mode), (path, flags, mode), WHOLE)        \
    C(off_t, -1, NEVER, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), WHOLE)    \
    C(ssize_t, -1, NEVER, write, (int fd, const void *data, size_t size), (fd, data, size), ONE)   \
    C(int, -1, ALWAYS, close, (int fd), (fd), WHOLE)                                               \
    C(int, -1, NEVER, fcntl, (int fd, int command, long value), (fd, command, value), WHOLE)       \
    C(FILE *, NULL, NEVER, fdopen, (int fd, const char *mode), (fd, mode), WHOLE)                  \
    C(char *, NULL, NEVER, fgets, (char *line, int size, FILE *file), (line, size, file), WHOLE)   \
    C(size_t, 0, NEVER, fread, (void *data, size_t unit, size_t size, FILE *file),                 \
      (data, unit, size, file), ONE)                                                               \
    C(int, EOF, ALWAYS, fclose, (FILE * file), (file), WHOLE)                                      \
    C(FILE *, NULL, NEVER, popen, (const char *line, const char *mode), (line, mode), WHOLE)       \
    C(int, -1, ALWAYS, pclose, (FILE * file), (file), WHOLE)                                       \
    C(void *, NULL, NEVER, getpwuid, (int user), (user), WHOLE)                                    \
    C(void *, NULL, NEVER, gethostbyname, (char *host), (host), WHOLE)                             \
    C(void *, NULL, NEVER, gethostbyaddr, (void *address, int room, int family),                   \
      (address, room, family), WHOLE)

#define NAME(type, failed, made, name, parameters, arguments, shorten) #name,
static const char *const names[] = {"malloc", CALLS(NAME) "sleep", NULL};

/* Which call fails: the n-th one of that name, and those after it where on is set. */
static struct
{
    const char *name;
    int number, on, error, count, hits;
} fault;
static char *first, *last;   /* the library's code */
static void *blocks[BLOCKS]; /* what it has allocated and not given back */
static int highest;          /* no block lies behind this one */

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

/* Begins to count; returns 0 for a call that is not in the table. */
int shim_arm(const char *name, int number, int on, int error)
{
    int row = 0;
    while (names[row] != NULL && strcmp(names[row], name) != 0) row++;
    dl_iterate_phdr(find_library, NULL);
    fault.name = names[row];
    fault.number = number;
    fault.on = on;
    fault.error = error;
    fault.count = fault.hits = 0;
    return names[row] != NULL && first != NULL;
}

/* How many calls failed. */
int shim_hits(void)
{
    return fault.hits;
}

/* How many blocks of memory the library holds. */
int shim_blocks(void)
{
    int held = 0;
    for (int i = 0; i < highest; i++) held += blocks[i] != NULL;
    return held;
}

static int is_library(const void *caller)
{
    return (const char *)caller >= first && (const char *)caller < last;
}

/* The error number that this call is to fail with, SHORT or UNHARMED. */
static int judge(const char *name, const void *caller)
{
    if (!is_library(caller) || fault.name == NULL || strcmp(fault.name, name) != 0) return UNHARMED;
    fault.count++;
    if (fault.count != fault.number && (!fault.on || fault.count < fault.number)) return UNHARMED;
    int passes = fault.error == EINTR || fault.error == EAGAIN;
    if (passes && fault.hits >= PATIENCE) return UNHARMED;
    fault.hits++;
    return fault.error;
}

/* The headers that declare these are left out: some are variable in their arguments there. */
#define DEFINE(type, failed, made, name, parameters, arguments, shorten)                           \
    type name parameters                                                                           \
    {                                                                                              \
        static type(*real) parameters;                                                             \
        if (real == NULL) *(void **)&real = dlsym(RTLD_NEXT, #name);                               \
        int error = judge(#name, __builtin_return_address(0));                                     \
        if (error == SHORT) shorten;                                                               \
        if (error == SHORT || error == UNHARMED) return real arguments;                            \
        if (made) real arguments;                                                                  \
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
    if (judge("malloc", caller) != UNHARMED)
    {
        errno = ENOMEM;
        return NULL;
    }
    int i = 0;
    while (i < BLOCKS - 1 && blocks[i] != NULL) i++;
    if (i >= highest) highest = i + 1;
    return blocks[i] = real(size);
}

/*
 * Whoever calls: what the library gives back in its last step comes from the caller's address. The
 * look-up of the real one may itself free an old error text, which is let go.
 */
void free(void *memory)
{
    static void (*real)(void *);
    static int looking;
    if (real == NULL && looking++ != 0) return;
    if (real == NULL) *(void **)&real = dlsym(RTLD_NEXT, "free");
    for (int i = 0; i < highest && memory != NULL; i++)
    {
        if (blocks[i] == memory) blocks[i] = NULL;
    }
    real(memory);
}

/* The library's waits between two tries are over at once. */
unsigned int sleep(unsigned int seconds)
{
    static unsigned int (*real)(unsigned int);
    if (real == NULL) *(void **)&real = dlsym(RTLD_NEXT, "sleep");
    return is_library(__builtin_return_address(0)) ? 0 : real(seconds);
}
