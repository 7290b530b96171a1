// A singly linked list: the table is short, walks start with the command most likely meant, and a
// record, 32 bytes of the heap, costs less memory than a hash of it would.

#include "libunix/daemon/child.h"

#include "libunix/daemon/state.h"

#include <cstdlib>
#include <unistd.h>

namespace plex {
namespace {

void closemaster(Child &child) {
    if (child.fd != -1) {
        close(child.fd);
        child.fd = -1;
    }
}

} // namespace

Child *add_child(int usrnum, int pid, int fd) {
    auto *child = static_cast<Child *>(malloc(sizeof(Child)));
    if (child != nullptr) {
        *child = {usrnum, pid, fd, children};
        children = child;
    }
    return child;
}

Child *find_child(int pid) {
    Child *child = children;
    while (child != nullptr && child->pid != pid) {
        child = child->next;
    }
    return child;
}

Child *find_child_usrnum(int usrnum) {
    Child *child = children;
    while (child != nullptr && child->usrnum != usrnum) {
        child = child->next;
    }
    return child;
}

int delete_child(int pid) {
    Child **link = &children;
    while (*link != nullptr && (*link)->pid != pid) {
        link = &(*link)->next;
    }
    Child *child = *link;
    if (child == nullptr) {
        return -1;
    }
    closemaster(*child);
    *link = child->next;
    free(child);
    return 1;
}

void free_children() {
    while (children != nullptr) {
        Child *child = children;
        closemaster(*child);
        children = child->next;
        free(child);
    }
}

} // namespace plex
