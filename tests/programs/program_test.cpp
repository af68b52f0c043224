// The child that becomes a program under test; it dies with the test because that outlives the exec.
#include <fcntl.h>
#include <unistd.h>

#include "tests/support/child.h"

ZEL_CHILD(program) {
    const int output = open(argv[0], O_WRONLY | O_APPEND);
    if (output < 0 || dup2(output, STDOUT_FILENO) < 0 || dup2(output, STDERR_FILENO) < 0) return 126;
    execv(argv[1], argv + 1);
    return 127;
}
