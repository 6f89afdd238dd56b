// What a careless parent process may have left to the daemon.
#ifndef QUARRYD_CORE_INHERITED_STATE_H
#define QUARRYD_CORE_INHERITED_STATE_H

// Gives the process what the rest of the daemon relies on: descriptors 0 to 2 are open (on
// /dev/null when they were not), children can be waited for, alarms ring, a reader of stderr that
// goes away does no harm, no signal is blocked, and a line on stdout is written when it ends,
// whatever stdout is. Prints nothing.
void put_inherited_state_right();

#endif
