/// Runs a program to its end, disturbed at one system call of its own. Its threads count, and its children as
/// long as they have not turned into a command; commands run undisturbed. x86-64 only: it changes registers.
#ifndef POINTS_RUN_H
#define POINTS_RUN_H

#include <string>
#include <vector>

/// What is done to a run.
enum class fault {
    none, ///< nothing, and it is not traced
    list, ///< its calls are noted
    kill, ///< SIGKILL on entry to a call
    step, ///< SIGKILL behind an instruction that it makes while it holds a writer's lock
    fail, ///< a call is not made and gives an error; close is made all the same, brk makes no room
    cut,  ///< a call transfers half of its bytes
};

/// A fault and its place.
struct disturbance {
    fault what = fault::none;
    long number = 0; ///< fail, cut: the system call; step: the lock, from 1
    long turn =
        0; ///< from 1: among all calls; step: instructions; fail, cut: calls of that number since main()
    int error = 0;                             ///< fail: the errno
    bool on = false;                           ///< fail: all later ones of that number, too
    std::vector<std::string> environment = {}; ///< NAME=VALUE, for this run only
};

/// A call that a run made.
struct made_call {
    long number;
    long turn; ///< among those of its number since main(), from 1; 0: before main()
    unsigned long
        argument; ///< the one that tells most: flags of an open, command of fcntl and ioctl, kind of futex
    std::string about; ///< the file, below the suite home where it is there
};

struct outcome {
    int status = 0;               ///< exit status, or minus the signal
    bool late = false;            ///< it took more than 30 s and was killed
    bool hit = false;             ///< the disturbance took place
    long steps = 0;               ///< step: instructions until the next system call
    int orphans = 0;              ///< processes that outlived the program by 3 s, and were killed
    std::string about;            ///< what the disturbed call was about
    std::vector<made_call> calls; ///< list: all of them, in order
};

/// Runs argv[0], with nothing to read and nobody to read it. @return what came of it
outcome run_disturbed(const std::vector<std::string> &argv, const disturbance &wanted);

#endif
