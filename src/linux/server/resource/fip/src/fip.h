/// What the whole agent shares: the resource record, the run-mode globals, the exit codes,
/// the result message.
#ifndef FIP_H
#define FIP_H

#include "nicCommon.h"
#include "worker.h"

#include <atomic>
#include <netinet/in.h>
#include <new>
#include <pthread.h>

/// Bytes of the result message, of an address argument, and of a path or command line; all with terminator.
enum { FIP_SHMBUF_SIZE = 128, FIP_ADDRARG_SIZE = 82, FIP_PATH_SIZE = 1024 };

/// Exit codes, which are the status codes of the agent's functions too: a failing step's code is carried up
/// and becomes the exit status. Source routing's are the exception: a step of activate.cpp turns most of them
/// into FIP_ERR_INTERNAL.
enum fip_code {
    FIP_SUCCESS = 0,
    FIP_ERR_TOOL = 2,       ///< the ping tool failed by its own account
    FIP_ERR_STATUS = 3,     ///< a command ended with a non-zero exit status
    FIP_ERR_OPTION = 4,     ///< the command line is wrong
    FIP_ERR_NOTROOT = 5,    ///< the effective user is not root
    FIP_ERR_XMLINIT = 6,    ///< the configuration library did not start
    FIP_ERR_XMLCONF = 7,    ///< the cluster configuration did not load
    FIP_ERR_POLICY = 8,     ///< a policy did not load
    FIP_ERR_ADDRESS = 9,    ///< this server's address is not in the configuration
    FIP_ERR_MEMORY = 10,    ///< no memory
    FIP_ERR_ABNORMAL = 11,  ///< a command could not be run, or a signal ended it
    FIP_ERR_POPEN = 12,     ///< a command's output could not be opened
    FIP_ERR_NOTOOL = 13,    ///< there is no ping tool
    FIP_ERR_NOADDR = 14,    ///< the inventory is empty
    FIP_ERR_INUSE = 15,     ///< the address, or the role it is to have, is taken
    FIP_ERR_NORSC = 16,     ///< no floating-IP resource is configured
    FIP_ERR_NODEV = 17,     ///< no such interface, or none that fits
    FIP_ERR_MACADDR = 18,   ///< a hardware address makes no sense
    FIP_ERR_SOCKET = 19,    ///< a socket could not be opened
    FIP_ERR_SEND = 21,      ///< a packet was not sent whole
    FIP_ERR_THREAD = 22,    ///< a worker could not be started
    FIP_ERR_TIMEOUT = 23,   ///< a worker did not end in time
    FIP_ERR_CHECKIF = 24,   ///< the address is still listed after its removal
    FIP_ERR_CHECKPING = 25, ///< the address still answers after its removal
    FIP_ERR_NOMAC = 26,     ///< the neighbour table has no hardware address
    FIP_ERR_ALIAS = 28,     ///< the configured alias is taken
    FIP_ERR_IPFORMAT = 29,  ///< the address piece of an address argument is wrong
    FIP_ERR_IFNAME = 30,    ///< its interface or alias piece is wrong
    FIP_ERR_MASK = 31,      ///< its mask piece is wrong
    FIP_ERR_VALUE = 32,     ///< a configuration value could not be read
    FIP_ERR_HOSTNAME = 33,  ///< the host name is unknown
    FIP_ERR_IFLIST = 34,    ///< the interface list could not be read
    FIP_ERR_LINKDOWN = 35,  ///< the NIC link is down
    FIP_ERR_NICSTATUS = 36, ///< the NIC status cannot be read
    FIP_ERR_INVENTORY = 38, ///< the kernel inventory failed
    FIP_ERR_ADD = 39,       ///< adding by ioctl failed, or the address was gone again after its DAD
    FIP_ERR_DELETE = 40,    ///< removing by ioctl failed
    FIP_ERR_INTERNAL = 99
};

/// One floating-IP resource: names, address, and every parameter read from the configuration. Filled by main,
/// the address argument and fip_xml_get_config; the sequences overwrite ifname, and masklen for IPv6,
/// before they remove an address.
struct FIP_INFO {
    char rscname[32];
    char grpname[32];
    char addr[46];      ///< address text, without mask and interface
    char mask[46];      ///< netmask text; empty when none was given
    int masklen;        ///< prefix length
    char ifname[32];    ///< interface, alias included; empty: chosen by subnet
    char pingcmd[1024]; ///< ping tool, relative to inspath
    int pingtout;       ///< seconds; 0: no duplicate-address check on activation
    int pingretry;
    int pinginterval; ///< seconds
    int pingforce;    ///< non-zero: a failed duplicate-address check is overridden
    int pingallip;    ///< non-zero: all the resource's addresses are probed
    int pingnpsimu;   ///< non-zero: ping although the node's npsimu flag is set
    char arpcmd[1024];
    int arpnum;    ///< gratuitous ARP packets
    int arpopcode; ///< 1 request, 2 reply
    char ifconfcmd[1024];
    int ifconftout;  ///< seconds
    int checkifexec; ///< non-zero: confirm a removal by inventory
    int checkifretry;
    int checkifinterval; ///< seconds
    int checkiferror;    ///< non-zero: an unconfirmed removal is an error
    int checkpiexec;     ///< non-zero: confirm a removal by ping
    int checkpiretry;
    int checkpiinterval; ///< seconds
    int checkpierror;
    int checkstime; ///< microseconds, the poll period of the bounded workers
    int checkloopc; ///< polls that make up ifconftout
    int miiw_method;
    int isMiiw;    ///< non-zero: check the NIC link after the address was added
    int ifconfuse; ///< non-zero: use the kernel interfaces, never the ifconfig command
    int srcipuse;  ///< 1: the address becomes the source of the interface's routes
};

/// When an IPv6 address is added without the kernel's duplicate address detection (DAD, RFC 4862 5.4).
enum fip_nddad {
    NDDAD_NEVER_RUN = 0,
    NDDAD_RUN = 1,
    NDDAD_UNLESS_ASKED = 2 ///< it runs unless this run's duplicate-address check has asked already
};

/// What the resource's configuration asks for beyond the record: practice that an old configuration does not
/// know, and that is off unless it is asked for. Filled by fip_xml_get_config.
struct FIP_PRACTICE {
    int ndretry = 0;       ///< IPv6: unsolicited neighbour advertisements
    int nddad = NDDAD_RUN; ///< a value of fip_nddad
    int ndtimeout = 5;     ///< seconds to wait for the end of duplicate address detection
    int guardif = 0;       ///< non-zero: a removal takes only its own address
    int pingparallel = 0;  ///< non-zero: the ping after a removal is made outside of the critical section
};

/// Argument and result of the inventory worker.
struct IPADDR_INFO {
    int ret;
    char cmdpath[FIP_PATH_SIZE]; ///< command text; the worker appends " -a"
    inventory list;
};

/// Argument and result of the worker that changes an address by command.
struct IP_CMD_INFO {
    int ret;
    char cmdpath[FIP_PATH_SIZE]; ///< the whole command line
};

/// Argument and result of one ping worker.
struct IP_INFO {
    int ret;
    char addr[46]; ///< bare address
    FIP_INFO *pinfo;
};
using PIP_INFO = IP_INFO *;

/// Bookkeeping of one ping worker's thread.
struct FIP_THREAD_INFO {
    int ret; ///< 0 when it was started, else FIP_ERR_THREAD
    pthread_t pt;
    void *thret;
};
using PFIP_THREAD_INFO = FIP_THREAD_INFO *;

// Run-mode globals: one process serves one request. Each belongs to the files behind its @writer, which alone
// write it (script/lint-globals); all others read. The main thread writes, and what a worker reads (actflag,
// ipv6flag, inspath) not while one runs; the end flags and the result message are shared with the workers.
// Two more, of the kernel's side, are in nicIfconfig.h.

extern int actflag;      ///< -1 undecided, 0 activation, 1 deactivation; @writer fip/main
extern int nomuseflag;   ///< non-zero: the address is the command line's (--add, --del); @writer fip/main
extern int dynamicflag;  ///< 1: parameters come from the configuration under check; @writer fip/main
extern int ipv6flag;     ///< 1: the run's address is IPv6; @writer fip/address_text
extern int fullnotation; ///< 1: it names its interface and alias ("trusted mode"); @writer fip/address_text

extern FIP_PRACTICE practice; ///< @writer fip/config

extern char inspath[FIP_PATH_SIZE];   ///< the suite's installation path; @writer fip/config
extern char rdrctpath[FIP_PATH_SIZE]; ///< the check log's name below it; @writer fip/check_mode
extern char rdrctfile[FIP_PATH_SIZE]; ///< the check log's whole name; @writer fip/check_mode

extern void *hchkconf; ///< the configuration under check; null while none is loaded; @writer fip/conf_check

extern int shmrmflag;    ///< 1: the resource states are attached; @writer fip/suite_state
extern int shmnmflag;    ///< 1: the node's state is attached; @writer fip/suite_state
extern int semflag;      ///< 1: the critical section's file is open; @writer fip/suite_state
extern int sementifflag; ///< 1: the run is in the critical section; @writer fip/suite_state
extern int xmliniflag;   ///< 1: the configuration library was started; @writer fip/config
extern int xmlconflag;   ///< 1: the cluster configuration was loaded; @writer fip/config
extern int loginiflag;   ///< 1: the trace log was opened; @writer fip/trace_setup

extern std::atomic<int> ifconfthend; ///< end flag of the inventory worker; @writer fip/inventory
extern std::atomic<int> actthend;    ///< end flag of the address-change worker; @writer fip/address_change

/// The result message: what is filed as the resource's last message when the run ends. Written through
/// fip_set_message only; the exit sequence reads it when no worker runs any more but one that was left
/// behind. @writer fip
extern char shmbuf[FIP_SHMBUF_SIZE];

/// Puts a text into shmbuf, cut to its size. Any thread may call it; the last text stands.
void fip_set_message(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/// Puts "Internal error. (status=CODE)" into shmbuf.
/// @return code
int fip_internal_error(int code);

/// What an exit code stands for, in words for a person; null for a code that is none of ours.
[[nodiscard]] const char *fip_code_text(int code);

/// Tells of a failed allocation, in the trace and in the result message. @return FIP_ERR_MEMORY
int fip_out_of_memory();

/// A result of libqorxml as it becomes the exit status where no code of ours stands for it: unchanged, so the
/// number is to be read as a QOR_XMLERR_... value (qorfip(8), EXIT STATUS).
constexpr int fip_library_status(int xml_result)
{
    return xml_result;
}

/// Runs `job`, which returns a status, and turns a failed allocation into one. A handler for every exception
/// would stop the cancellation of a worker, which unwinds like one.
/// @return the job's status; FIP_ERR_MEMORY, with a result message
template <class Job>
[[nodiscard]] int fip_bound_memory(Job job)
{
    try {
        return job();
    } catch (const std::bad_alloc &) {
        return fip_out_of_memory();
    }
}

struct command;

/// Closes a command on behalf of the function `self`, and tells how it ended.
/// @return 0; FIP_ERR_ABNORMAL or FIP_ERR_STATUS, with a result message
[[nodiscard]] int fip_close_command(const char *self, command *cmd, const char *line);

/// Puts into the result message that a command could not be run to its end. @return FIP_ERR_ABNORMAL
int fip_command_abnormal(const char *line, int error);

/// Runs a worker that waits for a command, within the resource's time-out.
/// @return 0 when it ended in time; FIP_ERR_THREAD, FIP_ERR_TIMEOUT or FIP_ERR_MEMORY, with a result message
[[nodiscard]] int fip_run_bounded(const worker_texts &texts, const FIP_INFO &info, worker_entry entry,
                                  const std::shared_ptr<void> &block, std::atomic<int> *endflag);

/// Whether a text can be a resource's name: with a '/' it would lead a configuration path to another element.
[[nodiscard]] bool fip_is_resource_name(const char *text);

/// Sleeps whole seconds; a negative number is none.
void fip_pause(int seconds);

#endif
