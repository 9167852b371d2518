// Child processes of a test, forked from it.
#ifndef CHILD_H
#define CHILD_H

#include <sys/wait.h>
#include <unistd.h>

// Runs `body` in a child, which ends with what it returns.
template <typename Body>
pid_t start_child(Body body) {
    const pid_t child = fork();
    if (child == 0)
        _exit(body());
    return child;
}

// Waits for a child: its exit status, or -1 when it was killed.
inline int end_of_child(pid_t child) {
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

template <typename Body>
int run_in_child(Body body) {
    return end_of_child(start_child(body));
}

#endif
