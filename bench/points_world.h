/// What can be seen of the agent's runs: the namespace's addresses and routes, the resource
/// states, the files.
#ifndef POINTS_WORLD_H
#define POINTS_WORLD_H

#include <string>
#include <vector>

using lines = std::vector<std::string>;

/// A row of the resource states.
struct state_row {
    std::string group, type, name, device, message;
    bool operator==(const state_row &other) const = default;
};

/// Every address of the namespace as "NAME ADDRESS/BITS BROADCAST", and every interface as "NAME up" or "NAME
/// down", sorted.
lines addresses();

/// Every route of the namespace, sorted.
lines routes();

/// Lets ip(8) do what a file says, with "-force -batch". @return false when something failed
bool change_network(const std::string &batch);

/// The rows that qorstat prints. @return false when it fails
bool read_states(std::vector<state_row> *rows);

/// Every file and directory below a directory, sorted; with inode, mode and time of change, if told so.
lines listing(const std::string &directory, bool stamped);

/// A file's bytes; none when it is not there.
std::string contents(const std::string &path);

/// The trace of a suite home.
std::string trace(const std::string &home);

/// The lines of a trace that are not whole.
lines torn_lines(const std::string &trace);

/// The lines of a trace that have another one in them.
lines swallowing_lines(const std::string &trace);

/// The parameters that the runs in a trace could not read, sorted.
lines unread_parameters(const std::string &trace);

#endif
