// Prefix lists: verdicts and hit counts against a linear evaluation of the entries and against the look-ups of the
// radix tree, for random lists and those of operators; the oddities by name; images that hold anything.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <map>
#include <numeric>
#include <set>

#include "aclmgr/prefix_image.h"
#include "policy/prefix_match.h"
#include "tests/policy/manager.h"
#include "tests/support/random.h"
#include "tests/support/table.h"

namespace zel::policy {
namespace {

using aclmgr::PrefixDraft;
using Entry = zelAclPrefixEntry;
using Address = std::array<uint8_t, 16>;

// ---- Entries and images ---------------------------------------------------------------------------------------------

struct Query {
    Address address{};
    uint32_t length;
};

void setMask(uint8_t *mask, uint32_t length) {
    for (uint32_t bit = 0; bit < length; ++bit) mask[bit / 8] |= static_cast<uint8_t>(0x80 >> bit % 8);
}

int familyOf(std::string_view text) {
    return text.find(':') == text.npos ? ZEL_POLICY_IPV4 : ZEL_POLICY_IPV6;
}

Query query(std::string_view prefix) {
    const size_t slash = prefix.find('/');
    Query result{};
    inet_pton(familyOf(prefix) == ZEL_POLICY_IPV4 ? AF_INET : AF_INET6, std::string(prefix.substr(0, slash)).c_str(),
              result.address.data());
    std::from_chars(prefix.data() + slash + 1, prefix.data() + prefix.size(), result.length);
    return result;
}

Entry entry(int sequence, int action, std::string_view prefix, int ge = 0, int le = 0) {
    Entry result{};
    const Query parsed = query(prefix);
    result.sequence = static_cast<uint16_t>(sequence);
    result.action = static_cast<uint8_t>(action);
    result.ge = static_cast<uint8_t>(ge);
    result.le = static_cast<uint8_t>(le);
    memcpy(result.address, parsed.address.data(), 16);
    setMask(result.mask, parsed.length);
    return result;
}

// A list as an image in memory of exactly its size.
struct List {
    int family;
    std::vector<uint64_t> block;
    Bytes image;

    List(int itsFamily, const std::vector<Entry> &entries) : family(itsFamily) {
        PrefixDraft draft(family);
        draft.items = entries;
        const size_t bytes = draft.bytes();
        block.resize(bytes / sizeof(uint64_t));
        auto *header = reinterpret_cast<Image *>(block.data());
        *header = {Image::validMagic, static_cast<uint32_t>(bytes), prefixKind(family), draft.entries()};
        draft.write(header);
        image = {reinterpret_cast<uint8_t *>(block.data()), bytes};
    }
    uint32_t check(const Query &asked) const {
        return family == ZEL_POLICY_IPV4 ? checkPrefix(image, Key<4>(asked.address.data()), asked.length)
                                         : checkPrefix(image, Key<16>(asked.address.data()), asked.length);
    }
    std::vector<Entry> entries() const { return aclmgr::readPrefixes(image, family)->items; }
    std::map<int, uint32_t> hits() const {
        std::map<int, uint32_t> result;
        for (const Entry &each : entries()) result[each.sequence] = each.hits;
        return result;
    }
    zelRadix *tree() { return &reinterpret_cast<PrefixImage *>(block.data())->tree; }
};

// ---- Oracles --------------------------------------------------------------------------------------------------------

bool oracleAccepts(bool zero, uint32_t L, uint32_t P, uint32_t G, uint32_t E, uint32_t W) {
    if (zero && G == 0 && E == 8 * W) return true;
    if (zero && G == 0 && E == 0) return L == P;
    if (E == 0 && G == 0) return P != 255 && L == P;
    if (E == 0) return G > L ? false : L <= 8 * W;
    return G != 0 ? G <= L && L <= E : P <= L && L <= E;
}

// All entries one by one, in the order in which a check of nodes and ancestors would come to them.
class Oracle {
public:
    Oracle(int family, std::vector<Entry> entries) : width_(widthOf(family)), entries_(std::move(entries)) {
        for (const Entry &each : entries_) {
            uint32_t ones = 0;
            while (ones < 8 * width_ && each.mask[ones / 8] & 0x80 >> ones % 8) ++ones;
            Entry prefix{};
            setMask(prefix.mask, ones);
            const bool isPrefix = memcmp(prefix.mask, each.mask, width_) == 0 && covers(each, each.address);
            lengths_.push_back(isPrefix ? ones : 255);
        }
        order_.resize(entries_.size());
        std::iota(order_.begin(), order_.end(), 0);
        std::stable_sort(order_.begin(), order_.end(), [&](size_t a, size_t b) { return lengths_[a] > lengths_[b]; });
    }

    // The length of the best match stays in `best`, -1 for none.
    uint32_t check(const Query &asked) {
        const size_t none = entries_.size();
        size_t found = none;
        for (size_t i = 0; i < none && found == none; ++i)
            if (lengths_[i] == 255 && covers(entries_[i], asked.address.data())) found = i;
        uint32_t least = found != none ? entries_[found].sequence : UINT32_MAX;
        best = -1;
        for (const size_t i : order_) {
            const Entry &each = entries_[i];
            if (asked.length > 8 * width_ || lengths_[i] > asked.length || !covers(each, asked.address.data()))
                continue;
            const bool isMarked = marked.contains({lengths_[i], addressOf(each)});
            if (best < 0 && isMarked) break;
            best = std::max(best, static_cast<int>(lengths_[i]));
            if (isMarked) continue;
            const bool isZero = Address{} == addressOf(each) && lengths_[i] == 0;
            if (!oracleAccepts(isZero, asked.length, lengths_[i], each.ge, each.le, width_)) continue;
            if (each.sequence >= least) continue;
            least = each.sequence;
            found = i;
        }
        if (found == none) return none != 0;
        ++hits_[entries_[found].sequence];
        return entries_[found].action;
    }
    std::map<int, uint32_t> hits() {
        for (const Entry &each : entries_) hits_.try_emplace(each.sequence);
        return hits_;
    }

    static Address addressOf(const Entry &each) {
        Address address;
        memcpy(address.data(), each.address, address.size());
        return address;
    }
    std::set<std::pair<uint32_t, Address>> marked;
    int best = -1;

private:
    bool covers(const Entry &each, const uint8_t *address) const {
        for (uint32_t i = 0; i < width_; ++i)
            if ((address[i] & each.mask[i]) != each.address[i]) return false;
        return true;
    }
    uint32_t width_;
    std::vector<Entry> entries_;
    std::vector<uint32_t> lengths_;
    std::vector<size_t> order_;
    std::map<int, uint32_t> hits_;
};

// ---- Random lists ---------------------------------------------------------------------------------------------------

// Bits come from few places of the address, so that prefixes nest and repeat.
Address randomAddress(test::Random &random, uint32_t width) {
    Address address{};
    address[0] = random() % 8 ? 0x20 : static_cast<uint8_t>(random());
    address[1] = static_cast<uint8_t>(random() & 0x13);
    address[width - 2] = static_cast<uint8_t>(random() & 0x81);
    address[width - 1] = static_cast<uint8_t>(random() & 0x0f);
    return address;
}

std::vector<Entry> randomEntries(test::Random &random, uint32_t width) {
    std::vector<Entry> entries;
    const uint32_t bits = 8 * width, count = 1 + random() % (random() % 4 ? 40 : 400);
    const auto bound = [&] {
        return static_cast<uint8_t>(random() % 3 ? 0 : random() % 6 ? random() % (bits + 1) : bits);
    };
    int sequence = 0;
    for (uint32_t i = 0; i < count; ++i) {
        Entry made{};
        made.sequence = static_cast<uint16_t>(sequence += 1 + static_cast<int>(random() % 9));
        made.action = static_cast<uint8_t>(random() % 8 == 7 ? 7 : random() % 2);
        made.ge = bound();
        made.le = bound();
        const Address address = randomAddress(random, width);
        setMask(made.mask, random() % 8 ? random() % (bits + 1) : 0);
        if (random() % 24 == 0) made.mask[random() % width] ^= static_cast<uint8_t>(1u << random() % 8);
        for (uint32_t byte = 0; byte < width; ++byte)
            made.address[byte] = random() % 500 ? address[byte] & made.mask[byte] : address[byte];
        entries.push_back(made);
    }
    return entries;
}

void markSome(List &list, Oracle &oracle, test::Random &random) {
    for (zelRadixEntry *at = nullptr; (at = zelRadixGetNext(list.tree(), at));) {
        if (random() % 5) continue;
        at->rtn->rtn_flags = ZEL_RADIX_DELETED;
        Address address{};
        memcpy(address.data(), at->rth_addr, widthOf(list.family));
        oracle.marked.insert({at->rtn->rtn_bit, address});
    }
}

void compare(List &list, Oracle &oracle, const std::vector<Query> &queries) {
    for (const Query &asked : queries) {
        const uint32_t expected = oracle.check(asked);
        ASSERT_EQ(list.check(asked), expected)
            << testing::PrintToString(asked.address) << "/" << asked.length << ", family " << list.family;
        const zelRadixEntry *best = zelRadixGetBest(list.tree(), asked.address.data(), asked.length);
        ASSERT_EQ(best ? best->rtn->rtn_bit : -1, oracle.best);
    }
    ASSERT_EQ(list.hits(), oracle.hits());
}

TEST(PrefixList, RandomListsDecideAsALinearEvaluation) {
    test::Random random = test::seeded();
    const int lists = test::isFullRun() ? 10'000 : 1'000;
    for (int i = 0; i < lists; ++i) {
        const int family = random() % 3 ? ZEL_POLICY_IPV4 : ZEL_POLICY_IPV6;
        const uint32_t width = widthOf(family);
        const std::vector<Entry> entries = randomEntries(random, width);
        std::vector<Query> queries;
        for (int q = 0; q < 100; ++q) {
            Query asked{randomAddress(random, width), random() % 30 ? random() % (8 * width + 1) : 8 * width + 1};
            if (random() % 4 == 0) memcpy(asked.address.data(), entries[random() % entries.size()].address, 16);
            queries.push_back(asked);
        }
        List list(family, entries);
        Oracle oracle(family, entries);
        ASSERT_TRUE(aclmgr::isWholePrefixes(list.image));
        ASSERT_EQ(list.entries().size(), entries.size());
        if (i % 4 == 0) markSome(list, oracle, random);
        ASSERT_NO_FATAL_FAILURE(compare(list, oracle, queries));
    }
}

// ---- Lists of operators ---------------------------------------------------------------------------------------------

// Each prefix itself, one bit longer, at its bound, and anything within and beside it.
std::vector<Query> queriesFor(const std::vector<Entry> &entries, uint32_t width, size_t step, test::Random &random) {
    std::vector<Query> queries;
    for (size_t i = 0; i < entries.size(); i += step) {
        Query asked{};
        memcpy(asked.address.data(), entries[i].address, 16);
        const uint32_t length = lengthOfMask(entries[i].mask, width);
        for (const uint32_t asks : {length, length + 1, uint32_t{entries[i].le}, random() % (8 * width + 1)}) {
            asked.length = asks;
            queries.push_back(asked);
            for (uint32_t byte = length / 8 + 1; byte < width; ++byte)
                asked.address[byte] = static_cast<uint8_t>(random());
        }
        asked.address[random() % width] ^= static_cast<uint8_t>(1u << random() % 8);
        queries.push_back(asked);
    }
    return queries;
}

TEST(PrefixList, ListsOfOperators) {
    std::map<std::pair<std::string, int>, std::vector<Entry>> lists;
    const auto number = [](std::string_view &row) { return atoi(std::string(test::column(row)).c_str()); };
    for (const char *file : {"prefixlist_campus.txt.xz", "prefixlist_filters.txt.xz"}) {
        const long rows = test::eachRow(file, [&](std::string_view row) {
            const std::string name(test::column(row));
            const int sequence = number(row), action = test::column(row) == "deny";
            const std::string_view prefix = test::column(row);
            const int ge = number(row), le = number(row);
            lists[{name, familyOf(prefix)}].push_back(entry(sequence, action, prefix, ge, le));
        });
        ASSERT_GT(rows, 0);
    }
    EXPECT_EQ(lists.size(), 124u);
    // Origin authorisations: as many as sequence numbers allow, with several bounds for one prefix.
    for (const std::string file : {"roa_2020-02_a.txt.xz", "roa_dn42_2022-01.txt.xz"}) {
        const long rows = test::eachRow(file, [&](std::string_view row) {
            const std::string_view prefix = test::column(row);
            auto &entries = lists[{file, familyOf(prefix)}];
            const int sequence = static_cast<int>(entries.size()) + 1;
            entries.push_back(entry(sequence, sequence % 5 == 0, prefix, 0, number(row)));
        });
        ASSERT_GT(rows, 0);
    }
    test::Random random = test::seeded();
    for (const auto &[name, entries] : lists) {
        List list(name.second, entries);
        Oracle oracle(name.second, entries);
        EXPECT_TRUE(aclmgr::isWholePrefixes(list.image)) << name.first;
        const size_t step = 1 + entries.size() / (test::isFullRun() ? 20'000 : 500);
        const auto queries = queriesFor(entries, widthOf(name.second), step, random);
        ASSERT_NO_FATAL_FAILURE(compare(list, oracle, queries));
    }
}

// ---- Lengths --------------------------------------------------------------------------------------------------------

TEST(PrefixList, LengthTest) {
    // Without a mask there is no telling; the default entry is told by its bytes and not by its length.
    for (uint32_t width : {4u, 16u})
        for (uint32_t G : {0u, 1u, 8u, 24u, 8 * width})
            for (uint32_t E : {0u, 7u, 8u, 24u, 8 * width})
                for (uint32_t P : {0u, 8u, 24u, 255u})
                    for (uint32_t L : {0u, 7u, 8u, 9u, 24u, 8 * width, 8 * width + 1, 255u})
                        for (const bool zero : {false, true})
                            EXPECT_EQ(prefixListCmpEntInfo(zero, static_cast<uint8_t>(L), static_cast<uint8_t>(P),
                                                           static_cast<uint8_t>(G), static_cast<uint8_t>(E), width),
                                      oracleAccepts(zero, L, P, G, E, width))
                                << zero << " L " << L << " P " << P << " ge " << G << " le " << E;
    EXPECT_EQ(acl_host_order_mask2plen(0), 0);
    EXPECT_EQ(acl_host_order_mask2plen(0xfffffe00), 23);
    EXPECT_EQ(acl_host_order_mask2plen(UINT32_MAX), 32);
    EXPECT_EQ(acl_host_order_mask2plen(0xff00ff00), 255);
    const uint8_t holes[16] = {255, 255, 0, 1}, half[16] = {255, 255, 255, 255, 255, 255, 255, 254};
    EXPECT_EQ(acl_mask2plen(holes), 255);
    EXPECT_EQ(acl_mask2plen(half), 63);
    EXPECT_EQ(acl_mask2plen(nullptr), 255);
}

// ---- The calls ------------------------------------------------------------------------------------------------------

constexpr uint32_t ten = 0x0a000000, eleven = 0x0b000000, ofEight = 0xff000000;

class PrefixCalls : public test::ManagerTest {
protected:
    static uint32_t set(zelAclMgr *into, int family, const std::vector<Entry> &entries, const char *name = "list") {
        return zelAclMgrSetPrefixList(into, name, family, entries.data(), static_cast<uint32_t>(entries.size()));
    }
    std::vector<Entry> get() {
        std::vector<Entry> entries(10);
        const int count = zelAclMgrGetPrefixEntries(manager, "list", ZEL_POLICY_IPV4, entries.data(), 10);
        entries.resize(static_cast<size_t>(std::max(count, 0)));
        return entries;
    }
};

// Every form, by name and by handle: 10/8 is in the first tables, 11/8 in the second, 2001:db8::/32 in the other
// family.
TEST_F(PrefixCalls, AllForms) {
    EXPECT_EQ(prefixListCheck("list", ten, ofEight), 0u);
    ASSERT_EQ(set(manager, ZEL_POLICY_IPV4, {entry(65535, 0, "10.0.0.0/8")}), 0u);
    ASSERT_EQ(set(second, ZEL_POLICY_IPV4, {entry(5, 0, "11.0.0.0/8")}), 0u);
    ASSERT_EQ(set(manager, ZEL_POLICY_IPV6, {entry(5, 0, "2001:db8::/32")}), 0u);
    zelPrefixList *list = ipPrefixListFind("list", nullptr, ZEL_POLICY_IPV4);
    zelPrefixList *six = ipPrefixListFind("list", nullptr, ZEL_POLICY_IPV6);
    ASSERT_TRUE(list && six && list != six);
    EXPECT_EQ(ipPrefixListFind("list", nullptr, 3), nullptr);
    for (const uint32_t address : {ten, eleven}) {
        const uint32_t first = address == ten ? 0 : 1, other = 1 - first;
        uint8_t bytes[5] = {4}, *at = bytes + 1;
        wire::store(at, address);
        const uint8_t mask[4] = {255};
        const zelPrefixListName handle{list, nullptr}, name{nullptr, "list"};
        for (const auto check : {prefixListCheck, prefixListCheckExt, m_prefixListCheckExt})
            EXPECT_EQ(check("list", address, ofEight), first);
        for (const auto check : {prefixListCheckWithHandle, prefixListCheckWithHandleExt, m_prefixListCheckWithHandle,
                                 m_prefixListCheckWithHandleExt})
            EXPECT_EQ(check(list, address, ofEight), first);
        for (const auto check : {prefixListCheckv4_v6, prefixListCheckv4_v6Ext, m_prefixListCheckv4_v6Ext})
            EXPECT_EQ(check("list", at, mask, ZEL_POLICY_IPV4), first);
        for (const auto check : {prefixListCheckWithHandlev4_v6, prefixListCheckWithHandlev4_v6Ext,
                                 m_prefixListCheckWithHandlev4_v6, m_prefixListCheckWithHandlev4_v6Ext})
            EXPECT_EQ(check(list, at, mask, ZEL_POLICY_IPV4), first);
        EXPECT_EQ(m_prefixListCheck("list", address, ofEight), other);
        EXPECT_EQ(m_prefixListCheckv4_v6("list", at, mask, ZEL_POLICY_IPV4), other);
        EXPECT_EQ(prefixFilterCheck(address, ofEight, list), first);
        EXPECT_EQ(prefixFilterCheckv4_v6(at, mask, list, ZEL_POLICY_IPV4), first);
        EXPECT_EQ(prefixListCheck2(list, nullptr, bytes, 8) + prefixListCheck2(nullptr, "list", bytes, 8), 2 * first);
        for (const auto check : {prefixListCheckNew, prefixListCheckNew_Ext}) {
            EXPECT_EQ(check(list, nullptr, at, 8, ZEL_POLICY_IPV4, nullptr), first);
            EXPECT_EQ(check(nullptr, "list", at, 8, ZEL_POLICY_IPV4,
                            &root()->acl2CB.trees[static_cast<size_t>(Kind::prefix4)]),
                      other);
        }
        for (const auto check : {prefixListCheckNew1, bgp_match_addr})
            EXPECT_EQ(check(&handle, at, 8, ZEL_POLICY_IPV4) + check(&name, at, 8, ZEL_POLICY_IPV4), 2 * first);
        bytes[0] = 5;
        EXPECT_EQ(prefixListCheck2(list, "list", bytes, 8), 1u);
    }
    const Query inside = query("2001:db8::/32");
    EXPECT_EQ(prefixListCheckNew(six, nullptr, inside.address.data(), 32, ZEL_POLICY_IPV6, nullptr), 0u);
    EXPECT_EQ(prefixListCheckNew(nullptr, "list", inside.address.data(), 33, ZEL_POLICY_IPV6, nullptr), 1u);
    // Another family than the list's, or none.
    EXPECT_EQ(prefixListCheckNew(list, nullptr, inside.address.data(), 8, ZEL_POLICY_IPV6, nullptr), 1u);
    EXPECT_EQ(prefixListCheckNew(list, nullptr, inside.address.data(), 8, 3, nullptr), 1u);
    EXPECT_EQ(prefixListCheckNew(nullptr, "list", inside.address.data(), 8, 3, nullptr), 0u);
    EXPECT_EQ(prefixListCheck("list", ten, 0xff00ff00), 1u);
    // An empty list permits, whatever is asked.
    ASSERT_EQ(set(manager, ZEL_POLICY_IPV4, {}), 0u);
    EXPECT_EQ(prefixListCheckWithHandle(list, eleven, ofEight), 0u);
    EXPECT_EQ(prefixListCheckNew(list, nullptr, inside.address.data(), 8, 3, nullptr), 0u);
}

TEST_F(PrefixCalls, EntriesThatStayKeepTheirHits) {
    ASSERT_EQ(set(manager, ZEL_POLICY_IPV4, {entry(5, 0, "10.0.0.0/8"), entry(10, 1, "11.0.0.0/8")}), 0u);
    for (const uint32_t address : {ten, eleven, eleven}) prefixListCheck("list", address, ofEight);
    const Entry more = entry(0, 0, "12.0.0.0/8", 9, 10);
    ASSERT_EQ(zelAclMgrAddPrefixEntry(manager, "list", ZEL_POLICY_IPV4, &more), 0u);
    auto entries = get();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[2].sequence, 15);
    EXPECT_EQ(entries[2].ge + entries[2].le, 19);
    EXPECT_EQ(entries[0].hits + 10 * entries[1].hits + 100 * entries[2].hits, 21u);
    // A changed entry begins anew; what a caller says of hits does not count.
    entries[1].action = 0;
    entries[1].hits = entries[2].hits = 7;
    ASSERT_EQ(set(manager, ZEL_POLICY_IPV4, entries), 0u);
    entries = get();
    EXPECT_EQ(entries[0].hits + 10 * entries[1].hits + 100 * entries[2].hits, 1u);
}

TEST_F(PrefixCalls, RefusalsChangeNothing) {
    ASSERT_EQ(set(manager, ZEL_POLICY_IPV4, {entry(5, 0, "10.0.0.0/8")}), 0u);
    EXPECT_EQ(set(manager, ZEL_POLICY_IPV4, {entry(5, 0, "10.0.0.0/8"), entry(5, 0, "11.0.0.0/8")}), 0x39000025u);
    EXPECT_EQ(set(manager, ZEL_POLICY_IPV4, {entry(5, 0, "10.0.0.0/8", 0, 33)}), 0x3900001fu);
    EXPECT_EQ(set(manager, ZEL_POLICY_IPV4, {entry(5, 0, "10.0.0.0/8", 20, 19)}), 0x3900001fu);
    EXPECT_EQ(set(manager, ZEL_POLICY_IPV4, {entry(65535, 0, "10.0.0.0/8"), entry(0, 0, "11.0.0.0/8")}), 0x3900002du);
    EXPECT_EQ(set(manager, 3, {entry(5, 0, "10.0.0.0/8")}), 0x3900002fu);
    EXPECT_EQ(set(manager, ZEL_POLICY_IPV4, {entry(5, 0, "10.0.0.0/8")}, std::string(141, 'n').c_str()), 0x3900006au);
    ASSERT_EQ(get().size(), 1u);
    EXPECT_EQ(zelAclMgrGetPrefixEntries(manager, "none", ZEL_POLICY_IPV4, nullptr, 0), -1);
}

// ---- Images that hold anything --------------------------------------------------------------------------------------

TEST(PrefixList, ChecksOfDamagedImagesEndInside) {
    test::Random random = test::seeded();
    const int rounds = test::isFullRun() ? 200'000 : 20'000;
    for (int i = 0; i < rounds;) {
        const int family = random() % 2 ? ZEL_POLICY_IPV4 : ZEL_POLICY_IPV6;
        const uint32_t width = widthOf(family);
        const List whole(family, randomEntries(random, width));
        for (int variant = 0; variant < 50; ++variant, ++i) {
            List list = whole;
            list.image.begin = reinterpret_cast<uint8_t *>(list.block.data());
            auto *words = reinterpret_cast<uint32_t *>(list.block.data());
            // Mostly what leads on: the header, and words that are not 0.
            const size_t all = list.image.bytes / 4, header = sizeof(PrefixImage) / 4;
            for (uint32_t damage = 0; damage <= random() % 8; ++damage) {
                uint32_t &word = words[4 + random() % ((random() % 2 ? header : all) - 4)];
                const uint32_t to[] = {random(), word + 1, word ^ 1u << random() % 32,
                                       random() % static_cast<uint32_t>(all * 4), UINT32_MAX};
                word = to[random() % 5];
            }
            for (int q = 0; q < 10; ++q) list.check({randomAddress(random, width), random() % (8 * width + 2)});
            aclmgr::isWholePrefixes(list.image);
            ASSERT_LE(list.entries().size(), std::max(list.image.header()->entries, 1u));
        }
    }
}

}  // namespace
}  // namespace zel::policy
