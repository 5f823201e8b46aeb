// Exit statuses of the tools, the same for all verbs.

#pragma once

enum ExitStatus : int {
    kDone = 0,      // what was asked for is done
    kRefused = 1,   // the agent, the push server, a command or a check said no
    kUsage = 2,     // the command line is wrong
    kNotThere = 3,  // the agent, the object service, the object or a file is not there to be used
    kTimeout = 4    // it took too long
};
