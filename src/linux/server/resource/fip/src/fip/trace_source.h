/// The source name under which everything in fip/ writes its trace lines.
#ifndef FIP_TRACE_SOURCE_H
#define FIP_TRACE_SOURCE_H

#include "../tracersc.h"

inline constexpr char trace_source[] = "src/fip.c";

#endif
