#include "suite_state.h"

#include "../fip.h"
#include "trace_source.h"

#include "qoripc.h"

namespace
{

/// Tells of a library call's result under the wrapper's name. @return ret
int told(const char *self, const char *call, int ret)
{
    if (ret != 0) {
        TRACE_AS(self, TRACE_WARNING, "%s() failed. (ret=%d)", call, ret);
    } else {
        TRACE_AS(self, TRACE_DEBUG, "%s() succeeded.", call);
    }
    return ret;
}

void enter(const char *self)
{
    TRACE_AS(self, TRACE_DEBUG, "%s()  ENTRY...", self);
}

/// Raises the counter when the call succeeds.
int raise(const char *self, const char *call, int (*function)(), int *counter)
{
    if (told(self, call, function()) == 0) {
        ++*counter;
    }
    return 0;
}

/// Lowers the counter when the call succeeds.
int lower(const char *self, const char *call, int (*function)(), int *counter)
{
    if (told(self, call, function()) == 0) {
        --*counter;
    }
    return 0;
}

} // namespace

int fip_shmrm_attach()
{
    enter(__func__);
    return raise(__func__, "shmrm_attach", shmrm_attach, &shmrmflag);
}

int fip_shmrm_detach()
{
    enter(__func__);
    return shmrmflag < 1 ? 0 : lower(__func__, "shmrm_detach", shmrm_detach, &shmrmflag);
}

int fip_shmrm_setdescript(const char *rscname, const char *grpname)
{
    enter(__func__);
    if (shmrmflag < 1) {
        return 0;
    }
    if (shmbuf[0] == '\0') {
        fip_set_message("Success.");
    }
    told(__func__, "shmrm_setdescript", shmrm_setdescript(grpname, "fip", rscname, shmbuf, FIP_SHMBUF_SIZE));
    return 0;
}

int fip_shmnm_attach()
{
    enter(__func__);
    return raise(__func__, "shmnm_attach", shmnm_attach, &shmnmflag);
}

int fip_shmnm_detach()
{
    enter(__func__);
    return shmnmflag < 1 ? 0 : lower(__func__, "shmnm_detach", shmnm_detach, &shmnmflag);
}

int fip_shmnm_getnpsimuflag(int *flag)
{
    enter(__func__);
    return shmnmflag < 1 ? 0 : told(__func__, "shmnm_getnpsimuflag", shmnm_getnpsimuflag(flag));
}

bool fip_skips_ping(int pingnpsimu)
{
    int npsimu = 0;
    return pingnpsimu == 0 && fip_shmnm_getnpsimuflag(&npsimu) == 0 && npsimu == 1;
}

int fip_sem_attach()
{
    enter(__func__);
    return raise(__func__, "sem_attach", sem_attach, &semflag);
}

int fip_sem_detach()
{
    enter(__func__);
    return semflag < 1 ? 0 : lower(__func__, "sem_detach", sem_detach, &semflag);
}

int fip_sem_entercrit_ifconfig()
{
    enter(__func__);
    return semflag == 0 ? 0
                        : raise(__func__, "sem_entercrit_ifconfig", sem_entercrit_ifconfig, &sementifflag);
}

int fip_sem_leavecrit_ifconfig()
{
    enter(__func__);
    if (semflag < 1 || sementifflag < 1) {
        return 0;
    }
    return lower(__func__, "sem_leavecrit_ifconfig", sem_leavecrit_ifconfig, &sementifflag);
}
