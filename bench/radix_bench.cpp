// The radix tree with the IPv4 and IPv6 tables of the Internet, against tries and a lookup table that hold the same.
#include <arpa/inet.h>
#include <malloc.h>
#include <rte_eal.h>
#include <rte_lpm.h>
#include <rte_malloc.h>
#include <rte_rib.h>
#include <rte_rib6.h>
#include <sched.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "bench/support/row.h"
#include "tests/support/table.h"
#include "zel/containers.h"

namespace {

using namespace zel::bench;

struct Prefix {
    zelRadixEntry entry{};
    std::array<uint8_t, 16> key{};
    uint8_t bits = 0;

    uint32_t word() const {
        uint32_t network;
        memcpy(&network, key.data(), sizeof network);
        return ntohl(network);
    }
};

// Each prefix once, in the order of the file.
std::vector<Prefix> readTable(const char *file, int family) {
    std::vector<Prefix> prefixes;
    std::unique_ptr<zelRadix, void (*)(zelRadix *)> seen(zelRadixCreate("seen", 128, nullptr, nullptr, nullptr),
                                                         zelRadixDestroy);
    prefixes.reserve(1 << 20);
    zel::test::eachRow(file, [&](std::string_view row) {
        const std::string_view text = zel::test::column(row);
        const size_t slash = text.find('/');
        Prefix &prefix = prefixes.emplace_back();
        inet_pton(family, std::string(text.substr(0, slash)).c_str(), prefix.key.data());
        std::from_chars(text.data() + slash + 1, text.data() + text.size(), prefix.bits);
        prefix.entry.rth_addr = prefix.key.data();
        if (zelRadixInsert(seen.get(), &prefix.entry, prefix.bits) != &prefix.entry) prefixes.pop_back();
    });
    return prefixes;
}

// The tables stay, and so do the trees: loading one takes longer than measuring it.
std::vector<Prefix> &prefixes4() {
    static std::vector<Prefix> table = readTable("rib4_full_2015-10.txt.xz", AF_INET);
    return table;
}

std::vector<Prefix> &prefixes6() {
    static std::vector<Prefix> table = readTable("rib6_full_2015-11_origin.txt.xz", AF_INET6);
    return table;
}

zelRadix *load(std::vector<Prefix> &prefixes, uint16_t bits) {
    zelRadix *tree = zelRadixCreate("bench", bits, nullptr, nullptr, nullptr);
    for (Prefix &prefix : prefixes) zelRadixInsert(tree, &prefix.entry, prefix.bits);
    return tree;
}

zelRadix *tree4() {
    static zelRadix *tree = load(prefixes4(), 32);
    return tree;
}

// ---- Addresses ------------------------------------------------------------------------------------------------------

constexpr size_t addresses = 1 << 20;
using Address = std::array<uint8_t, 16>;

// Anywhere, or in a prefix of the table that is chosen at random.
std::vector<Address> makeAddresses(const std::vector<Prefix> *table) {
    std::mt19937 random(1);
    std::vector<Address> all(addresses);
    for (Address &address : all) {
        for (uint8_t &byte : address) byte = static_cast<uint8_t>(random());
        if (!table) continue;
        const Prefix &prefix = (*table)[random() % table->size()];
        for (int bit = 0; bit < prefix.bits; ++bit) {
            const auto mask = static_cast<uint8_t>(0x80 >> bit % 8);
            uint8_t &byte = address[static_cast<size_t>(bit / 8)];
            byte = static_cast<uint8_t>((byte & ~mask) | (prefix.key[static_cast<size_t>(bit / 8)] & mask));
        }
    }
    return all;
}

const std::vector<Address> &anywhere() {
    static const auto all = makeAddresses(nullptr);
    return all;
}
const std::vector<Address> &inTable4() {
    static const auto all = makeAddresses(&prefixes4());
    return all;
}
const std::vector<Address> &inTable6() {
    static const auto all = makeAddresses(&prefixes6());
    return all;
}

// Both sides read the address as their interface wants it: we as bytes, the peers of IPv4 as a word.
template <class LookUp>
void eachAddress(benchmark::State &state, const std::vector<Address> &all, LookUp lookUp) {
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(lookUp(all[i++ % addresses].data()));
}

uint32_t wordOf(const uint8_t *address) {
    uint32_t network;
    memcpy(&network, address, sizeof network);
    return ntohl(network);
}

// ---- Peers ----------------------------------------------------------------------------------------------------------

// The environment binds the calling thread to a CPU of its choice; it is given back.
bool startPeers() {
    static const bool started = [] {
        cpu_set_t cpus;
        sched_getaffinity(0, sizeof cpus, &cpus);
        char program[] = "bench_radix", huge[] = "--no-huge", pci[] = "--no-pci", memory[] = "-m", megabytes[] = "1024",
             telemetry[] = "--no-telemetry", quiet[] = "--log-level=error";
        char *arguments[] = {program, huge, pci, telemetry, memory, megabytes, quiet};
        const bool result = rte_eal_init(static_cast<int>(std::size(arguments)), arguments) >= 0;
        sched_setaffinity(0, sizeof cpus, &cpus);
        return result;
    }();
    return started;
}

rte_rib *makeRib(int nodes) {
    rte_rib_conf configuration{};
    configuration.max_nodes = nodes;
    rte_rib *rib = startPeers() ? rte_rib_create("rib", SOCKET_ID_ANY, &configuration) : nullptr;
    if (!rib) return nullptr;
    for (const Prefix &prefix : prefixes4())
        if (!rte_rib_insert(rib, prefix.word(), prefix.bits)) return nullptr;
    return rib;
}

// The pool is as large as the table needs, to the node; both tries branch at the same bits.
rte_rib *rib4() {
    static rte_rib *rib = makeRib(static_cast<int>(tree4()->rtt_nodes));
    return rib;
}

rte_rib6 *rib6() {
    static rte_rib6 *rib = [] {
        rte_rib6_conf configuration{};
        configuration.max_nodes = 1 << 16;
        rte_rib6 *made = startPeers() ? rte_rib6_create("rib6", SOCKET_ID_ANY, &configuration) : nullptr;
        for (const Prefix &prefix : prefixes6())
            if (made) rte_rib6_insert(made, prefix.key.data(), prefix.bits);
        return made;
    }();
    return rib;
}

// A table of all 24-bit prefixes and one look-up, whatever is in it. To enter a rule it searches all rules of that
// length one by one, so only every eighth of the 24-bit prefixes is entered.
rte_lpm *lpm4() {
    static rte_lpm *lpm = [] {
        rte_lpm_config configuration{};
        configuration.max_rules = 1 << 20;
        configuration.number_tbl8s = 1 << 13;
        rte_lpm *made = startPeers() ? rte_lpm_create("lpm", SOCKET_ID_ANY, &configuration) : nullptr;
        uint32_t hop = 0;
        for (const Prefix &prefix : prefixes4())
            if (made && ++hop && prefix.bits > 0 && (prefix.bits != 24 || hop % 8 == 0))
                rte_lpm_add(made, prefix.word(), prefix.bits, hop);
        return made;
    }();
    return lpm;
}

// ---- Best match -----------------------------------------------------------------------------------------------------

// With a side index over so many bits: 16 is what a table of this size has by itself.
template <uint32_t indexBits, auto all>
void ourBest4(benchmark::State &state) {
    zelRadix *tree = tree4();
    if (tree->rtt_index_bits != indexBits) zelRadixSetIndex(tree, indexBits);
    eachAddress(state, all(), [tree](const uint8_t *address) { return zelRadixGetBest(tree, address, 32); });
}

template <auto all>
void ribBest4(benchmark::State &state) {
    rte_rib *rib = rib4();
    if (!rib) return state.SkipWithError("no rte_rib");
    eachAddress(state, all(), [rib](const uint8_t *address) { return rte_rib_lookup(rib, wordOf(address)); });
}

template <auto all>
void lpmBest4(benchmark::State &state) {
    rte_lpm *lpm = lpm4();
    if (!lpm) return state.SkipWithError("no rte_lpm");
    eachAddress(state, all(), [lpm](const uint8_t *address) {
        uint32_t hop = 0;
        return rte_lpm_lookup(lpm, wordOf(address), &hop) == 0 ? hop : 0;
    });
}

void ourBest6(benchmark::State &state) {
    static zelRadix *tree = load(prefixes6(), 128);
    eachAddress(state, inTable6(), [](const uint8_t *address) { return zelRadixGetBest(tree, address, 128); });
}

void ribBest6(benchmark::State &state) {
    rte_rib6 *rib = rib6();
    if (!rib) return state.SkipWithError("no rte_rib6");
    eachAddress(state, inTable6(), [rib](const uint8_t *address) { return rte_rib6_lookup(rib, address); });
}

ZEL_ROW("radix best match, IPv4 table, any address", "ns", time)
    .ours(ourBest4<16, anywhere>)
    .peer("rte_rib", ribBest4<anywhere>, 0.5)
    .peer("rte_lpm", lpmBest4<anywhere>);
ZEL_ROW("radix best match, IPv4 table, its addresses", "ns", time)
    .ours(ourBest4<16, inTable4>)
    .peer("rte_rib", ribBest4<inTable4>, 0.5)
    .peer("rte_lpm", lpmBest4<inTable4>);
ZEL_ROW("radix best match, IPv6 table, its addresses", "ns", time).ours(ourBest6).peer("rte_rib6", ribBest6, 0.5, 0.25);

// ---- Change ---------------------------------------------------------------------------------------------------------

// The whole table in random order: out and in again.
template <class Change>
void eachPrefix(benchmark::State &state, Change change) {
    static const std::vector<Prefix *> shuffled = [] {
        std::vector<Prefix *> all;
        for (Prefix &prefix : prefixes4()) all.push_back(&prefix);
        std::shuffle(all.begin(), all.end(), std::mt19937(1));
        return all;
    }();
    size_t i = 0;
    for (auto _ : state) change(*shuffled[i++ % shuffled.size()]);
}

void ourChange(benchmark::State &state) {
    zelRadix *tree = tree4();
    eachPrefix(state, [tree](Prefix &prefix) {
        zelRadixRemove(tree, &prefix.entry);
        zelRadixInsert(tree, &prefix.entry, prefix.bits);
    });
}

void ribChange(benchmark::State &state) {
    rte_rib *rib = rib4();
    if (!rib) return state.SkipWithError("no rte_rib");
    eachPrefix(state, [rib](const Prefix &prefix) {
        rte_rib_remove(rib, prefix.word(), prefix.bits);
        rte_rib_insert(rib, prefix.word(), prefix.bits);
    });
}

ZEL_ROW("radix insert + remove, IPv4 table", "ns", time).ours(ourChange).peer("rte_rib", ribChange, 1.1, 0.7);

// The 24-bit index takes 64 MB; it is chosen by whoever creates a tree.
ZEL_ROW("radix best match, 24-bit index, any address", "ns", time)
    .ours(ourBest4<24, anywhere>)
    .peer("rte_lpm", lpmBest4<anywhere>, noBar, 3.0);
ZEL_ROW("radix best match, 24-bit index, its addresses", "ns", time)
    .ours(ourBest4<24, inTable4>)
    .peer("rte_lpm", lpmBest4<inTable4>, noBar, 1.0);

// ---- Memory ---------------------------------------------------------------------------------------------------------

size_t taken = 0;
size_t sizeOf(void *block) {
    return malloc_usable_size(block) + sizeof(size_t);
}
void *take(size_t bytes) {
    void *block = malloc(bytes);
    taken += sizeOf(block);
    return block;
}
void give(void *block) {
    taken -= sizeOf(block);
    free(block);
}

// Header, blocks of nodes, their table and the 16-bit index, with what malloc adds. The records of the caller are not
// in it, nor the entry heads at their start, which are sizeof(zelRadixEntry) each.
void ourMemory(benchmark::State &state) {
    tree4();
    std::vector<Prefix> copy = prefixes4();
    for (auto _ : state) {
        taken = sizeof(zelRadix);
        zelRadix *tree = zelRadixCreate("memory", 32, take, give, nullptr);
        for (Prefix &prefix : copy) {
            prefix.entry.rth_addr = prefix.key.data();
            zelRadixInsert(tree, &prefix.entry, prefix.bits);
        }
        zelRadixSetIndex(tree, 16);
        state.counters["size"] = static_cast<double>(taken) / static_cast<double>(copy.size());
        zelRadixDestroy(tree);
    }
}

size_t heapInUse() {
    rte_malloc_socket_stats heap{};
    rte_malloc_get_socket_stats(0, &heap);
    return heap.heap_allocsz_bytes;
}

// What the trie takes for its pool of nodes, which is as large as this table needs. Each node has room for a next hop.
void ribMemory(benchmark::State &state) {
    if (!startPeers()) return state.SkipWithError("no rte_rib");
    for (auto _ : state) {
        const size_t before = heapInUse();
        rte_rib_conf configuration{};
        configuration.max_nodes = static_cast<int>(tree4()->rtt_nodes);
        rte_rib *rib = rte_rib_create("memory", SOCKET_ID_ANY, &configuration);
        if (!rib) return state.SkipWithError("no rte_rib");
        const size_t bytes = heapInUse() - before;
        state.counters["size"] = static_cast<double>(bytes) / static_cast<double>(prefixes4().size());
        rte_rib_free(rib);
    }
}

ZEL_ROW("radix memory per prefix, IPv4 table", "bytes", size)
    .ours(ourMemory)
    .peer("rte_rib", ribMemory, 0.2, 0.12)
    .once();

}  // namespace
