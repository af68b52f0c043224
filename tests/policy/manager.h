// Writers of both sets of policy tables, which are sound when the test ends.
#pragma once

#include <gtest/gtest.h>

#include "zel/aclmgr.h"

namespace zel::test {

class ManagerTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(manager != nullptr && second != nullptr); }
    ~ManagerTest() override {
        audit();
        zelAclMgrClose(second);
        zelAclMgrClose(manager);
    }
    zelAclMgrAuditReport audit() {
        zelAclMgrAuditReport report{};
        EXPECT_EQ(zelAclMgrAudit(manager, &report), 0u);
        return report;
    }

    zelAclMgr *manager = zelAclMgrOpen(ZEL_ACLMGR_PRIMARY), *second = zelAclMgrOpen(ZEL_ACLMGR_SECOND);
};

}  // namespace zel::test
