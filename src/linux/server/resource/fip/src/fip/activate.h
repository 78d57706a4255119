/// Brings one floating address up on this server.
#ifndef FIP_ACTIVATE_H
#define FIP_ACTIVATE_H

#include "../fip.h"

/// Runs the activation of the record's address. What a failed step leaves on the interface is taken off
/// again; only when the link check's socket cannot be opened does the address stay.
/// @return 0, or the code of the step that failed
[[nodiscard]] int fip_start_act(FIP_INFO *pfipinfo);

#endif
