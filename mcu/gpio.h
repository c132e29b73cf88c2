// GPIO lines through sysfs, directories named P<port>_<pin>.
#pragma once

inline constexpr const char* GPIO_ROOT = "/sys/class/gpio";

int gpio_export(int line);
int gpio_unexport(int line);
int gpio_set_direction(int line, int out);
int gpio_set_value(int line, int value);
