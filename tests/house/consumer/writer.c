/* The writer of the policy tables, in a C program that keeps its segments to itself. */
#include <stdio.h>
#include <unistd.h>

#include "zel/aclmgr.h"
#include "zel/platform.h"

int main(void) {
    char prefix[32];
    snprintf(prefix, sizeof prefix, "zeltest%ld-writer", (long)getpid());
    if (zelPlatformSetShmPrefix(prefix) != 0) return 2;
    zelAclMgr *manager = zelAclMgrOpen(ZEL_ACLMGR_PRIMARY);
    if (manager == NULL) perror("zelAclMgrOpen");
    zelAclMgrClose(manager);
    zelPlatformUnlinkSegments();
    return manager != NULL ? 0 : 1;
}
