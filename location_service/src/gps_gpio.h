// The receiver's two power lines through the kernel's sysfs GPIO files. Each call opens what it
// needs, writes once and closes again; what the kernel makes of the write is not checked. Any
// thread.
#ifndef GPS_GPIO_H
#define GPS_GPIO_H

// 1 when the line is exported (its direction file exists), 0 when not (logged).
int u_gpio_check_file(int gpio);

// 0, or -1 when the file cannot be opened (logged).
int u_gpio_export(int gpio);
int u_gpio_unexport(int gpio);

// 1 = out, 0 = in. 0, or -1 (logged): no such file, or another direction.
int u_gpio_set_direction(int gpio, int direction);

// 1 = high, 0 = low. 0, or -1 (logged): no such file, or another value.
int u_gpio_set_value(int gpio, int value);

#endif
