// The shell's commands for configuration variables, capabilities, buffer pools and the log's
// settings. Like all commands they run in the task that registers them, which serves its modules.
//
//   config <name> [<instance> [<value> [<permission> [file|cache] [notify]]]]
//       reads a variable, answering "config <name> <instance> <value>", or writes it (into the
//       cache alone with "cache"); this is also the command that other processors send
//   configdelete, configrestore, configwatch, configunwatch <name> [<instance>]
//   configdump [<name> [<instance>]]
//   caps [<section number>]
//   pool create <name> <instance> <buffers> <bytes>
//   pool open|close|take|return|delete <name> <instance>
//   pool dump | pool check | pool dynamic <0|1>
//   showfilter, cullfilter add|delete <text> | dump | save
//   logformat [<keyword> ...] | logformat save
//   spewfilter [on|off]
#pragma once

#include "Common/OS/errors.h"

// Adds the commands, to run in the calling task. kNoError, or the error of MsgAddCmdTable.
eErrorT ConfigCommandsAdd();
