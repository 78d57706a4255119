/// The suite's shared memory and semaphores, as the run uses them.
///
/// Nothing here stops the run: a facility that could not be attached or entered is skipped by the later
/// operations. The globals shmrmflag, shmnmflag, semflag and sementifflag say what
/// is attached and entered.
#ifndef FIP_SUITE_STATE_H
#define FIP_SUITE_STATE_H

#include "../fip.h"

int fip_shmrm_attach(); ///< @return 0, always
int fip_shmrm_detach(); ///< @return 0, always

/// Files the result message under the resource; an empty one becomes "Success." first. @return 0, always
int fip_shmrm_setdescript(const char *rscname, const char *grpname);

int fip_shmnm_attach(); ///< @return 0, always
int fip_shmnm_detach(); ///< @return 0, always

/// Reads the node's npsimu flag. @return 0, also when the node memory is not attached (*flag is then
/// untouched), or the library's code
[[nodiscard]] int fip_shmnm_getnpsimuflag(int *flag);

/// Whether a ping is to be skipped: the node's npsimu flag is set and the resource does not insist. A flag
/// that cannot be read counts as not set.
/// @param pingnpsimu  non-zero: the resource insists
[[nodiscard]] bool fip_skips_ping(int pingnpsimu);

int fip_sem_attach(); ///< @return 0, always
int fip_sem_detach(); ///< @return 0, always

/// Enters the node-wide "ifconfig" critical section, waiting while another process holds it. When that fails
/// the run goes on without. @return 0, always
int fip_sem_entercrit_ifconfig();

/// Leaves it when it was entered. @return 0, always
int fip_sem_leavecrit_ifconfig();

/// Leaves it for the length of a scope, when the run is in it.
struct ifconfig_pause {
    ifconfig_pause() : entered(sementifflag > 0)
    {
        if (entered) {
            fip_sem_leavecrit_ifconfig();
        }
    }
    ~ifconfig_pause()
    {
        if (entered) {
            fip_sem_entercrit_ifconfig();
        }
    }
    ifconfig_pause(const ifconfig_pause &) = delete;
    ifconfig_pause &operator=(const ifconfig_pause &) = delete;

    const bool entered;
};

/// The critical section for the length of a scope, when it is wanted.
struct ifconfig_section {
    explicit ifconfig_section(bool enter) : wanted(enter)
    {
        if (wanted) {
            fip_sem_entercrit_ifconfig();
        }
    }
    ~ifconfig_section() { leave(); }
    ifconfig_section(const ifconfig_section &) = delete;
    ifconfig_section &operator=(const ifconfig_section &) = delete;

    /// Leaves it before the scope ends.
    void leave()
    {
        if (wanted) {
            fip_sem_leavecrit_ifconfig();
        }
        wanted = false;
    }

    bool wanted;
};

#endif
