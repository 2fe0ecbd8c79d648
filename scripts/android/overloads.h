/* SPDX-License-Identifier: Apache-2.0 */
/* Included before each file: declares some calls in the forms that Android's C library adds to the
 * plain ones. Then code that defines such a call, takes its address or passes the wrong type does
 * not compile. */
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#define OVERLOAD __attribute__((overloadable))
#define SIZED(size) __attribute__((pass_object_size(size)))

#ifdef __cplusplus
extern "C" {
#endif

/* For requests that do not fit an int. */
int ioctl(int fd, unsigned int request, ...) OVERLOAD
    __attribute__((enable_if(1, ""))) __asm__("ioctl");

#if defined(_FORTIFY_SOURCE)
int checkedOpen(const char* path, int flags) __asm__("__open_2");
int uncheckedOpen(const char* path, int flags, ...) __asm__("open");
ssize_t checkedRead(int fd, void* to, size_t count, size_t size) __asm__("__read_chk");
ssize_t checkedReadlink(const char* path, char* to, size_t count,
                        size_t size) __asm__("__readlink_chk");

OVERLOAD static inline __attribute__((always_inline)) int open(const char* const SIZED(1) path,
                                                               int flags)
    __attribute__((diagnose_if((flags & (O_CREAT | 020000000)) != 0,
                               "open makes a file and gets no mode", "error"))) {
    return checkedOpen(path, flags);
}
OVERLOAD static inline __attribute__((always_inline)) int open(const char* const SIZED(1) path,
                                                               int flags, unsigned int mode) {
    return uncheckedOpen(path, flags, mode);
}
OVERLOAD static inline __attribute__((always_inline)) ssize_t read(int fd, void* const SIZED(0) to,
                                                                   size_t count) {
    return checkedRead(fd, to, count, __builtin_object_size(to, 0));
}
OVERLOAD static inline __attribute__((always_inline)) ssize_t readlink(const char* path,
                                                                       char* const SIZED(1) to,
                                                                       size_t count) {
    return checkedReadlink(path, to, count, __builtin_object_size(to, 1));
}
#endif

#ifdef __cplusplus
}
#endif
