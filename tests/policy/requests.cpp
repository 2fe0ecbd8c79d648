// SPDX-License-Identifier: Apache-2.0
// Issues every request of the driver's type byte on a file, without an argument, and prints the
// numbers that the security policy lets through.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/ioctl.h>

#include "snapshot/f2fs_ioctl.h"

int main(int argc, char** argv) {
    const int fd = argc == 2 ? open(argv[1], O_RDWR) : -1;
    if (fd < 0) {
        perror("requests");
        return 1;
    }
    for (unsigned int number = 0; number < 256; ++number) {
        if (ioctl(fd, _IO(F2FS_IOC_MAGIC, number), nullptr) == 0 || errno != EACCES) {
            printf("%#x\n", number);
        }
    }
    return 0;
}
