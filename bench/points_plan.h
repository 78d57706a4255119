/// The points of a run, from the calls that it makes.
#ifndef POINTS_PLAN_H
#define POINTS_PLAN_H

#include "points_judge.h"

/// A kill on entry to each call. What the loader does before main() is the same for all modes.
std::vector<point> plan_kills(const std::vector<made_call> &calls, bool with_loader);

/// A kill behind each instruction that is made while the lock is held.
std::vector<point> plan_steps(long lock, long count);

/// Each call since main() that can fail: once with every plausible errno, cut short, and from there on.
std::vector<point> plan_errors(const std::vector<made_call> &calls);

/// Each allocation, alone and with all that follow.
std::vector<point> plan_allocations(long count, const std::string &library);

#endif
