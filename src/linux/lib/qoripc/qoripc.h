/// libqoripc: the node's shared facilities. Resource states (shmrm_), node flags (shmnm_), and the node-wide
/// critical sections (sem_).
///
/// The local edition keeps them in files of run/ below the suite home. A process that dies at any instant
/// leaves tables that the next one can read and write, and a critical section that the next one can enter.
///
/// The files must be regular, owned by root and writable by nobody else. Within a process the functions of
/// one family are called by one thread at a time, and no other code opens these files: closing any descriptor
/// of a file drops the process's lock on it.
#ifndef QORIPC_H
#define QORIPC_H

#ifdef __cplusplus
extern "C" {
#endif

/** Results of the shmrm_ operations (0 is success). The shmnm_ and sem_ operations use the same numbers. */
enum shmrm_err {
    SHMRM_ERR_NOTINIT = 2,      /**< not attached */
    SHMRM_ERR_INVALIDPARAM = 3, /**< a null, over-long or out-of-range argument */
    SHMRM_ERR_NOTFOUND = 4,     /**< no such entry */
    SHMRM_ERR_NOTENOUGH = 5,    /**< no room on the disk for a new table */
    SHMRM_ERR_XMLINIT = 6,
    SHMRM_ERR_FTOK = 7,    /**< the file's name cannot be formed or its directory not made */
    SHMRM_ERR_SHMGET = 8,  /**< the file cannot be opened, created, or is not safe to use */
    SHMRM_ERR_SHMAT = 9,   /**< the file cannot be mapped */
    SHMRM_ERR_SHMCTL = 10, /**< the table's lock could not be had in time, or a system call failed */
    SHMRM_ERR_MAXGRP = 11,
    SHMRM_ERR_MAXRSC = 12, /**< the table of resource states is full */
    SHMRM_ERR_MAXMON = 13,
    SHMRM_ERR_LOADINFO = 14, /**< the file holds no table, one of another layout, or not all of it */
    SHMRM_ERR_LOADCONF = 15
};

enum {
    SHMRM_NAME_SIZE = 32,      /**< bytes of a group, type or resource name, terminator included */
    SHMRM_DESCRIPT_SIZE = 128, /**< bytes of a resource's last message, terminator included */
    SHMRM_FREE_SIZE = 32       /**< bytes of a resource's free-form value */
};

/** Attaches this process to run/resource.shm, creating it (0600) when missing and completing it when its
 *  creator was killed half-way. Attaching again changes nothing, and one detach undoes any number of it.
 *  FTOK, SHMGET, NOTENOUGH, SHMAT, LOADINFO; SHMCTL also when the table had to be made and another process
 *  held its lock for 2 s. */
int shmrm_attach(void);
/** NOTINIT. */
int shmrm_detach(void);

/** Files a resource's last message; the resource is found by type and name and added when it is new. A null
 *  `group` leaves the recorded group as it is.
 *  @param size  bytes of `text` to take at the most, 1 to SHMRM_DESCRIPT_SIZE; when the text fills them all,
 *               the last byte is cut
 *  NOTINIT, INVALIDPARAM, MAXRSC; SHMCTL when another process held the table's lock for 2 s. */
int shmrm_setdescript(const char *group, const char *type, const char *rscname, const char *text, int size);

/** Files a resource's free-form value, `size` bytes, 1 to SHMRM_FREE_SIZE, in place of the former one;
 *  otherwise as shmrm_setdescript. */
int shmrm_setrscfree(const char *group, const char *type, const char *rscname, const void *data, int size);

/** One resource state as filed; every text is NUL-terminated. */
struct shmrm_state {
    char group[SHMRM_NAME_SIZE];
    char type[SHMRM_NAME_SIZE];
    char rscname[SHMRM_NAME_SIZE];
    char rscfree[SHMRM_FREE_SIZE + 1];
    char descript[SHMRM_DESCRIPT_SIZE];
};

/** Reads the entry at `index`, counted from 0 in the order in which the entries were added. Takes no lock: a
 *  writer that was stopped does not keep the states from being read. The texts are outside text and may hold
 *  any byte.
 *  NOTINIT, INVALIDPARAM; NOTFOUND behind the last entry; SHMCTL when the entry never held still. */
int shmrm_getstate(int index, struct shmrm_state *state);

/** Attaches this process to run/node.shm, creating it (0600) when missing. Results as shmrm_attach. */
int shmnm_attach(void);
/** NOTINIT. */
int shmnm_detach(void);
/** Tells whether the node's npsimu flag is set: *flag becomes 1 or 0. NOTINIT, INVALIDPARAM. */
int shmnm_getnpsimuflag(int *flag);
/** Sets the node's npsimu flag, or clears it with 0. NOTINIT. */
int shmnm_setnpsimuflag(int flag);

/** Opens run/ifconfig.lock, creating it (0600) when missing. FTOK, SHMGET. */
int sem_attach(void);
/** Closes it, leaving the critical section when it was entered. NOTINIT. */
int sem_detach(void);
/** Enters the node-wide "ifconfig" critical section, waiting without limit while another process holds it.
 *  The kernel releases it when the holder dies, however it dies; a command that the holder started does not
 *  keep it. NOTINIT, SHMCTL. */
int sem_entercrit_ifconfig(void);
/** Leaves it. NOTINIT, SHMCTL. */
int sem_leavecrit_ifconfig(void);

#ifdef __cplusplus
}
#endif

#endif
