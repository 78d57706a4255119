/// When the program was built. Not part of the library: every program that is linked has a stamp of its own.
#ifndef FIP_BUILD_STAMP_H
#define FIP_BUILD_STAMP_H

extern const char build_date[]; ///< as "Jan 26 2026"
extern const char build_time[]; ///< as "19:06:41"

#endif
