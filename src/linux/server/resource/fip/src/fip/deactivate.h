/// Takes one floating address off this server.
#ifndef FIP_DEACTIVATE_H
#define FIP_DEACTIVATE_H

#include "../fip.h"

/// Runs the deactivation of the record's address, and confirms as configured that it is gone. An address that
/// is not present counts as deactivated.
/// @return 0, or the code of the step that failed
[[nodiscard]] int fip_start_deact(FIP_INFO *pfipinfo);

#endif
