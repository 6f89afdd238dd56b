// Leaves a process nothing but what it has open.
//
// What stands on a stick was written by strangers, and the code that takes it apart is large: a
// fault in it must not hand them the rights of root.
#ifndef VOLSNIFFER_CONFINEMENT_H
#define VOLSNIFFER_CONFINEMENT_H

// From here on the process is a user whom nobody else is, without capabilities, without groups,
// without a way to regain any; it can open nothing and have no child. It goes on reading and
// writing what is open already. A caller who is not root keeps his user and his groups, and loses
// the rest.
//
// Non-zero on success, else errno is set.
int give_up_rights();

#endif
