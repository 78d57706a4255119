/// What a run may leave behind, disturbed at whatever point.
#ifndef POINTS_JUDGE_H
#define POINTS_JUDGE_H

#include "points_run.h"
#include "points_world.h"

#include <string>

/// A mode of the agent, in a suite home and a network namespace that this process has to itself.
struct site {
    std::string home;        ///< QOR_HOME
    std::string mode;        ///< --active, --deactive, --dactive, --add, --del, --test
    std::string options;     ///< of the resource, the letters of soak_stage.sh
    std::string start;       ///< up: the address is; bare: without run/ and log/; full: the log is; or down
    std::string address;     ///< what it is about, without bits
    std::string device;      ///< the name that the address is to stand under
    std::string up;          ///< how addresses() shows it there
    std::string route_batch; ///< brings back what source routing changes
    lines command, bring_up,
        take_down;  ///< the mode's command line; those that bring about the address, and none
    int status = 0; ///< of the mode, undisturbed

    // The state without the address, which that at the end must equal.
    lines addresses, routes, configuration, files;
    std::string table;               ///< the bytes of the table of resource states
    state_row row_before, row_after; ///< the resource's, when the mode starts and ends; none: all empty
    lines unread;                    ///< the parameters that no run can read
};

/// One place of a run, and what goes wrong there.
struct point {
    std::string name;
    disturbance what;
};

/// What is wrong, and what is odd but meant so.
struct findings {
    lines violations, notes;
};

/// The message that stands in the resource's row before each point.
extern const std::string previous_message;

/// Judges what a disturbed run left, lets the agent run undisturbed and take the address down, and judges
/// that, too.
findings judge(const site &here, const point &at, const outcome &came);

#endif
