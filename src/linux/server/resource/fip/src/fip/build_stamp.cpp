// Compiled anew whenever anything that the program is linked from has changed: see CMakeLists.txt.
#include "build_stamp.h"

const char build_date[] = __DATE__;
const char build_time[] = __TIME__;
