#pragma once

/// What takes the place of the system in the children of a test; set before the child is made.
///
/// child_stand_ins.cpp defines the calls of the C library and of libsystemd that consult it. A program
/// that links it gets those instead of the libraries' own.
struct StandIn
{
    int journal = -1; ///< descriptor that the journal's stream leads to; negative: there is no journal
    int journalCall = -1; ///< gets the arguments of the call to the journal, separated by "|"
    const char *refused = ""; ///< name of the call that fails: setregid, setreuid, setpriority, setrlimit
};

extern StandIn standIn;
