// The store of the policy tables: lists come, change and go by one store each, and nothing is lost.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "aclmgr/draft.h"
#include "tests/support/child.h"
#include "tests/support/eventually.h"

namespace zel::test {
namespace {

using aclmgr::Change;
using policy::Image;

// A list of `count` words, all the same.
class Words : public aclmgr::ImageBuilder {
public:
    Words(std::uint32_t count, std::uint32_t word) : count_(count), word_(word) {}
    std::uint32_t entries() const override { return count_; }
    std::size_t bytes() const override { return sizeof(Image) + count_ * sizeof(std::uint32_t); }
    void write(Image *at) const override {
        auto *words = reinterpret_cast<std::uint32_t *>(at + 1);
        for (std::uint32_t i = 0; i < count_; ++i) words[i] = word_;
    }

private:
    std::uint32_t count_, word_;
};

constexpr zelAclMgrKind anyKind = ZEL_ACLMGR_ROUTE_MAP;

TEST(PolicyWriter, ListsComeChangeAndGo) {
    zelAclMgr *manager = zelAclMgrOpen(ZEL_ACLMGR_PRIMARY);
    ASSERT_NE(manager, nullptr);
    const auto wordOf = [&](const char *name) -> int {
        const policy::ListNode *list = policy::findList(manager->root->aclNode, policy::Kind::routeMap, name);
        if (list == nullptr) return -1;
        const policy::Bytes image = policy::imageOf(list, policy::Kind::routeMap);
        return image ? static_cast<int>(*policy::inside<std::uint32_t>(image, sizeof(Image))) : 0;
    };
    Change change(*manager);
    EXPECT_EQ(wordOf("a"), -1);
    EXPECT_EQ(change.set(anyKind, "a", Words(1, 11)), 0u);
    EXPECT_EQ(change.set(anyKind, "b", Words(1000, 22)), 0u);
    EXPECT_EQ(change.set(anyKind, "", Words(1, 1)), aclmgr::codeValueRange);
    EXPECT_EQ(change.set(anyKind, std::string(141, 'x').c_str(), Words(1, 1)), 0x39000069u);
    EXPECT_EQ(change.set(anyKind, std::string(140, 'x').c_str(), Words(1, 1)), 0u);
    EXPECT_EQ(wordOf("a"), 11);
    policy::ListNode *list = change.find(anyKind, "a");
    EXPECT_EQ(change.set(anyKind, "a", Words(2, 33)), 0u);
    EXPECT_EQ(change.find(anyKind, "a"), list) << "a handle stays good while its list does";
    EXPECT_EQ(wordOf("a"), 33);
    EXPECT_EQ(change.set(anyKind, "a", Words(0, 0)), 0u);
    EXPECT_EQ(wordOf("a"), 0);
    change.remove(*list);
    EXPECT_EQ(wordOf("a"), -1);
    EXPECT_FALSE(policy::imageOf(list, policy::Kind::routeMap));
    EXPECT_EQ(wordOf("b"), 22);
}

}  // namespace
}  // namespace zel::test
