// The driver that the interposed calls of this process are answered by.
#pragma once

#include "../driver/driver.h"

namespace softnic {

// From now on the device files are those of this driver, until set to null. 0, or EBUSY when there is another.
int attach_driver(Driver *driver);
void detach_driver(Driver *driver);
Driver *attached_driver();

// Also answer to the first form of the device file's name, "/dev/oxelBp<n>", which is otherwise not there.
void answer_first_form(bool answer);

// Makes the driver when a device file is opened and none is attached; null when there is to be none. Set by the
// preloaded form before the program starts.
extern Driver *(*make_driver)();

// Called in the child after a fork, before the attached driver is told.
extern void (*after_fork)();

} // namespace softnic
