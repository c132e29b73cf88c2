#include "mcu/gpio.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Opens, writes once, closes; 0 when the open worked, whatever the write did.
int write_once(const char* path, const void* bytes, size_t n)
{
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return fd;
    ssize_t w = write(fd, bytes, n);
    (void)w;  // the kernel refuses e.g. a value on an input line; not reported
    close(fd);
    return 0;
}

int export_op(const char* file, const char* what, int line)
{
    char path[64];
    char num[4];
    snprintf(path, sizeof path, "%s/%s", GPIO_ROOT, file);
    snprintf(num, sizeof num, "%d", line);
    int r = write_once(path, num, 2);
    if (r < 0) printf("[MCU IF] unable to %s GPIO %d: %s\n", what, line, strerror(errno));
    return r;
}

}  // namespace

int gpio_export(int line) { return export_op("export", "export", line); }

int gpio_unexport(int line) { return export_op("unexport", "unexport", line); }

int gpio_set_direction(int line, int out)
{
    char path[64];
    snprintf(path, sizeof path, "%s/P%d_%02d/direction", GPIO_ROOT, line >> 3, line & 7);
    // The terminating zero is part of what is written.
    int r = out ? write_once(path, "out", 4) : write_once(path, "in", 3);
    if (r < 0)
        printf("[MCU IF] unable to configure GPIO %d (P%d_%02d): %s\n", line, line >> 3, line & 7,
               strerror(errno));
    return r;
}

int gpio_set_value(int line, int value)
{
    char path[64];
    snprintf(path, sizeof path, "%s/P%d_%02d/value", GPIO_ROOT, line >> 3, line & 7);
    int r = write_once(path, value ? "1" : "0", 2);
    if (r < 0)
        printf("[MCU IF] unable to set GPIO %d (P%d_%02d) output value: %s\n", line, line >> 3,
               line & 7, strerror(errno));
    return r;
}
