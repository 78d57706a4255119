/// Brings one floating address up on this server.
#ifndef FIP_ACTIVATE_H
#define FIP_ACTIVATE_H

#include "../fip.h"

/// Runs the activation of the record's address. A step that fails after the address was added has it taken
/// off again, with three exceptions: when the link check's socket cannot be opened (FIP_ERR_SOCKET) the
/// address stays; when it was gone, or another run's, after its DAD (FIP_ERR_ADD) it is left as it is; and
/// when the ifconfig command itself fails or is late (FIP_ERR_STATUS, FIP_ERR_ABNORMAL, FIP_ERR_TIMEOUT) it
/// is unknown what it has done.
/// @return 0, or the code of the step that failed
[[nodiscard]] int fip_start_act(FIP_INFO *pfipinfo);

#endif
